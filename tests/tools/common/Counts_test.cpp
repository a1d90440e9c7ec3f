// A count of one takes the singular in every message of the companion tools: runs on files made to hold one photon,
// one flash, one trigger, one chunk of raw data.

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "FileBytes.hpp"
#include "RunProgram.hpp"
#include "TempDir.hpp"

TEST(ToolCountsTest, ACountOfOneTakesTheSingular) {
  const TempDir dir;
  // 10 us of a weak source with one trigger: seed 1 gives one dark count and no flash, seed 28 one flash of one
  // photon and no dark count.
  const std::string source = " -d 1e-5 -r 1e5 -n 1 --dark-rate 1e5 --triggers 5e4 --seed ";
  const std::string stackTooLarge =
      "one.kovraphot: the time-of-flight stack needs 4096 MiB (1 bin x 32768 x 32768 cells x 4 bytes)";
  const std::tuple<const char*, std::string, std::string> runs[] = {
      // program, arguments, part of what it says
      {KOVRA_SIMULATE_PATH, "-o dark.kovraphot" + source + "1",
       "kovra_simulate: wrote 1 photon (0 from 0 flashes, 1 dark count, 1 trigger) to dark.kovraphot\n"},
      {KOVRA_SIMULATE_PATH, "-o one.kovraphot --truth --raw one.tpx3" + source + "28",
       "kovra_simulate: wrote 1 photon (1 from 1 flash, 0 dark counts, 1 trigger) to one.kovraphot\n"},
      {KOVRA_SIMULATE_PATH, "-o three.kovraphot" + source + "2",
       "kovra_simulate: wrote 3 photons (1 from 1 flash, 2 dark counts, 1 trigger) to three.kovraphot\n"},
      {KOVRA_IMPORT_PATH, "one.tpx3 -o imported.kovraphot", " other in 1 chunk\n"},
      {KOVRA_INSPECT_PATH, "one.kovraphot --size 1 -i map.png",
       "kovra_inspect: 1 of 1 photon lies outside the image of 1 x 1 pixels and was left out\n"},
      {KOVRA_INSPECT_PATH, "one.kovraphot --spectrum - --tof-max 1e-9 --tof-bins 1",
       "kovra_inspect: time of flight: 0 of 1 photon counted, 1 outside [0 s, 1.5625e-09 s)\n"},
      {KOVRA_INSPECT_PATH, "one.kovraphot --tof-max 1 --tof-bins 1 --size 32768 --stack-hdf5 s.h5 --stack-memory 1",
       stackTooLarge},
      {KOVRA_INSPECT_PATH, "back.kovraphot", "time order    1 record earlier than the one before"},
      {KOVRA_EVALUATE_PATH, "one.kovraphot -s 5 -t 5e-7 --fom-photons 1", "1 event with at least 1 photon)\n"},
      {KOVRA_EVALUATE_PATH, "three.kovraphot -s 5 -t 5e-7 --truth one.truth.csv",
       "'one.truth.kovraflash': made for 1 photon, the photon file has 3\n"},
  };
  // Two photons, the second earlier than the first.
  const FileBytes photons = FileBytes().i32(0).i32(0).i64(20).i32(0).i32(0).i64(10);
  write_bytes(dir.file("back.kovraphot"), FileBytes::file(2, FileBytes().block("photons", photons)).data);
  for (const auto& [program, arguments, said] : runs) {
    const Program_Outcome r = run_program(dir, program, arguments);
    EXPECT_NE((r.out + r.err).find(said), std::string::npos) << arguments << "\n" << r.out << r.err;
  }
}
