// End-to-end runs of the built kovra_inspect: exit status, standard output and standard error apart, and the
// files it writes.

#include <sys/wait.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "InspectFiles.hpp"
#include "TempDir.hpp"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Run_Result {
  int status = -1;
  std::string out;
  std::string err;
};

class InspectProgramTest : public ::testing::Test {
 protected:
  /// Runs the program in the temporary directory with the arguments as given to the shell.
  Run_Result run(const std::string& arguments) const {
    const std::string command = "cd '" + dir.path().string() + "' && '" KOVRA_INSPECT_PATH "' " + arguments +
                                " > stdout.txt 2> stderr.txt";
    const int raw = std::system(command.c_str());
    Run_Result result;
    result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    result.out = read_bytes(dir.file("stdout.txt"));
    result.err = read_bytes(dir.file("stderr.txt"));
    return result;
  }

  void SetUp() override {
    write_bytes(dir.file("run.kovraevent"),
                event_file({{10 * px, 20 * px, 1000, 1, 0.0}, {30 * px, 40 * px, 3000, 4, 2e-9}}));
  }

  TempDir dir;
};

TEST_F(InspectProgramTest, SummaryIsTheDefault) {
  const Run_Result r = run("run.kovraevent");
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.out, StartsWith("file          run.kovraevent\ntype          events\nrecords       2\n"));
  EXPECT_THAT(r.out, HasSubstr("photons per event\n"));
  EXPECT_EQ(r.err, "");
}

TEST_F(InspectProgramTest, BadFilesEndWithTheReadersMessageAndStatusOne) {
  write_bytes(dir.file("photons.kovraevent"), photon_file({{1, 2, 3}}));
  write_bytes(dir.file("cut.kovraevent"), read_bytes(dir.file("run.kovraevent")).substr(0, 70));
  const struct {
    const char* arguments;
    const char* err;
  } cases[] = {
      {"photons.kovraevent", "kovra_inspect: photons.kovraevent: File has wrong type!\n"},
      {"cut.kovraevent", "kovra_inspect: cut.kovraevent: Block size is indicated as 112 but only 54 bytes are left in the file!\n"},
      {"missing.kovraevent",
       "kovra_inspect: missing.kovraevent: file \"missing.kovraevent\" could not be opened!\n"},
      {"run.txt", "kovra_inspect: run.txt: input file \"run.txt\" must end in .kovraphot or .kovraevent\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const Run_Result r = run(c.arguments);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, c.err);
  }
}

TEST_F(InspectProgramTest, BadCommandLineIsStatusTwo) {
  const Run_Result r = run("run.kovraevent --size");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "kovra_inspect: option --size needs a value\nTry 'kovra_inspect --help'.\n");
}

TEST_F(InspectProgramTest, HelpGoesToStandardOutput) {
  const Run_Result r = run("--help");
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.out, StartsWith("Usage: kovra_inspect FILE [options]\n"));
  EXPECT_EQ(r.err, "");
}

TEST_F(InspectProgramTest, AllExportsInOneRun) {
  const Run_Result r = run("run.kovraevent --csv - --hdf5 run.h5 --image map.png --binning 4");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "x,y,t,x_px,y_px,t_s,nPhotons,psd_s\n"
            "655360,1310720,1000,10,20,1.5624999999999999e-06,1,0\n"
            "1966080,2621440,3000,30,40,4.6875e-06,4,2e-09\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(read_bytes(dir.file("run.h5")).substr(0, 8), "\x89HDF\r\n\x1a\n");
  EXPECT_EQ(read_bytes(dir.file("map.png")).substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
}

TEST_F(InspectProgramTest, RecordsOutsideTheImageAreNoted) {
  const Run_Result r = run("run.kovraevent --image map.png --size 25");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "kovra_inspect: 1 of 2 events lie outside the image of 25 x 25 pixels and were left out\n");
}

TEST_F(InspectProgramTest, UnwritableOutputIsStatusOne) {
  const Run_Result r = run("run.kovraevent --image no/such/dir/map.png");
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, StartsWith("kovra_inspect: run.kovraevent: cannot write PNG file \"no/such/dir/map.png\""));
}

}  // namespace
