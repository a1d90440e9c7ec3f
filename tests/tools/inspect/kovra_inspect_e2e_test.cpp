// End-to-end runs of the built kovra_inspect: exit status, standard output and standard error apart, and the
// files it writes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "InspectFiles.hpp"
#include "TempDir.hpp"

namespace {

using ::testing::StartsWith;

class InspectProgramTest : public ::testing::Test {
 protected:
  void SetUp() override {
    write_bytes(dir.file("run.kovraevent"),
                event_file({{10 * px, 20 * px, 1000, 1, 0.0}, {30 * px, 40 * px, 3000, 4, 2e-9}}));
  }

  /// Runs the program in the temporary directory; returns the exit status, output and error in `out`, `err`.
  int run(const std::string& arguments) {
    const std::string command =
        "cd '" + dir.path().string() + "' && '" KOVRA_INSPECT_PATH "' " + arguments + " > stdout.txt 2> stderr.txt";
    const int raw = std::system(command.c_str());
    out = read_bytes(dir.file("stdout.txt"));
    err = read_bytes(dir.file("stderr.txt"));
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  }

  TempDir dir;
  std::string out;
  std::string err;
};

TEST_F(InspectProgramTest, SummaryIsTheDefault) {
  EXPECT_EQ(run("run.kovraevent"), 0);
  EXPECT_THAT(out, StartsWith("file          run.kovraevent\ntype          events\nrecords       2\n"));
  EXPECT_EQ(err, "");
}

TEST_F(InspectProgramTest, BadInputIsOneLineAndStatusOneOrTwo) {
  write_bytes(dir.file("photons.kovraevent"), photon_file({{1, 2, 3}}));
  const struct {
    const char* arguments;
    int status;
    const char* err;
  } cases[] = {
      {"photons.kovraevent", 1, "kovra_inspect: photons.kovraevent: File has wrong type!\n"},
      {"missing.kovraphot", 1, "kovra_inspect: missing.kovraphot: file \"missing.kovraphot\" could not be opened!\n"},
      {"run.kovraevent --image no/dir/m.png", 1,
       "kovra_inspect: run.kovraevent: cannot write PNG file \"no/dir/m.png\": No such file or directory\n"},
      {"run.kovraevent --size", 2, "kovra_inspect: option --size needs a value\nTry 'kovra_inspect --help'.\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    EXPECT_EQ(run(c.arguments), c.status);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, c.err);
  }
}

TEST_F(InspectProgramTest, AllExportsInOneRun) {
  EXPECT_EQ(run("run.kovraevent --csv - --hdf5 run.h5 --image map.png --size 25"), 0);
  EXPECT_EQ(out,
            "x,y,t,x_px,y_px,t_s,nPhotons,psd_s\n"
            "655360,1310720,1000,10,20,1.5624999999999999e-06,1,0\n"
            "1966080,2621440,3000,30,40,4.6875e-06,4,2e-09\n");
  EXPECT_EQ(err, "kovra_inspect: 1 of 2 events lie outside the image of 25 x 25 pixels and were left out\n");
  EXPECT_EQ(read_bytes(dir.file("run.h5")).substr(0, 8), "\x89HDF\r\n\x1a\n");
  EXPECT_EQ(read_bytes(dir.file("map.png")).substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
}

}  // namespace
