// The companion tools make the missing folders of their outputs, as kovra_brantel does those of its event file,
// and name an output whose folder cannot be made, with the system's reason.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "RunProgram.hpp"
#include "TempDir.hpp"

namespace {

struct Folder_Case {
  std::string program;
  std::string arguments;             ///< every output in a folder of its own under new/
  std::vector<std::string> outputs;  ///< what the run must have written
  std::string blocked;               ///< arguments with an output under "file", a plain file
  std::string message;               ///< what the blocked run says
};

}  // namespace

TEST(ToolOutputFoldersTest, MissingFoldersAreMadeAndAFileInTheWayIsNamedWithTheReason) {
  const TempDir dir;
  const Program_Outcome simulated =
      run_program(dir, KOVRA_SIMULATE_PATH, "-o in.kovraphot -d 0.002 --triggers 1e4 --truth --raw in.tpx3");
  ASSERT_EQ(simulated.status, 0) << simulated.err;
  const Program_Outcome reconstructed =
      run_program(dir, KOVRA_BRANTEL_PATH, "--verbose -1 -s 5 -t 5e-7 -i in.kovraphot -o in.kovraevent");
  ASSERT_EQ(reconstructed.status, 0) << reconstructed.err;
  write_bytes(dir.file("file"), "a file where a folder is asked for");

  const Folder_Case cases[] = {
      {KOVRA_SIMULATE_PATH,
       "-o new/a/s.kovraphot -d 0.001 --truth --raw new/b/s.tpx3",
       {"new/a/s.kovraphot", "new/a/s.truth.csv", "new/a/s.truth.kovraflash", "new/b/s.tpx3"},
       "-o file/s.kovraphot -d 0.001",
       "kovra_simulate: cannot write 'file/s.kovraphot': Not a directory\n"},
      {KOVRA_SIMULATE_PATH,
       "-o s.kovraphot -d 0.001 --raw new/c/s.tpx3",
       {"new/c/s.tpx3"},
       "-o s.kovraphot -d 0.001 --raw file/s.tpx3",
       "kovra_simulate: cannot write 'file/s.tpx3': Not a directory\n"},
      {KOVRA_INSPECT_PATH,
       "in.kovraevent --csv new/d/e.csv --hdf5 new/e/e.h5 -i new/f/e.png --spectrum new/g/t.csv --stack-hdf5 "
       "new/h/t.h5 --stack-tiff new/i/t.tif --plot new/j/p.png",
       {"new/d/e.csv", "new/e/e.h5", "new/f/e.png", "new/g/t.csv", "new/h/t.h5", "new/i/t.tif", "new/j/p.png"},
       "in.kovraevent --spectrum t.csv --stack-tiff file/t.tif",
       "kovra_inspect: in.kovraevent: cannot write TIFF file \"file/t.tif\": Not a directory\n"},
      {KOVRA_EVALUATE_PATH,
       "in.kovraphot -s 5 -t 5e-7 --csv new/k/scan.csv --plots new/l/plots",
       {"new/k/scan.csv", "new/l/plots/scan.csv", "new/l/plots/heatmaps.png"},
       "in.kovraphot -s 5 -t 5e-7 --plots file/plots",
       "kovra_evaluate: in.kovraphot: cannot write 'file/plots': Not a directory\n"},
      {KOVRA_IMPORT_PATH,
       "in.tpx3 -o new/m/i.kovraphot",
       {"new/m/i.kovraphot"},
       "in.tpx3 -o file/i.kovraphot",
       "kovra_import: cannot write \"file/i.kovraphot\": Not a directory\n"},
  };
  for (const Folder_Case& c : cases) {
    const Program_Outcome made = run_program(dir, c.program, c.arguments);
    EXPECT_EQ(made.status, 0) << c.arguments << "\n" << made.err;
    for (const std::string& output : c.outputs) {
      EXPECT_TRUE(std::filesystem::is_regular_file(dir.file(output))) << output;
    }
    const Program_Outcome blocked = run_program(dir, c.program, c.blocked);
    EXPECT_EQ(std::tuple(blocked.status, blocked.err), std::tuple(1, c.message)) << c.blocked;
  }
  EXPECT_FALSE(std::filesystem::exists(dir.file("t.csv")));  // nothing is written when a folder cannot be made
}
