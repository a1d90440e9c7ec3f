// Hot pixels: which counts pass the bound, and the program on a raw file built packet by packet (chips placed as
// the import places them). (Command lines that do not fit: InspectTest.BadCommandLines; a photon file and the
// mask at work: ImportTest.)

#include "inspect/HotPixels.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "FileBytes.hpp"
#include "RunProgram.hpp"
#include "TempDir.hpp"
#include "kovra/tpx3spidr/Tpx3Packets.hpp"
#include "tools/import/RawBytes.hpp"

using namespace kovra::inspect;
using namespace kovra::tpx3spidr::raw;

TEST(HotPixelsTest, MoreThanTheFactorTimesTheMedianOfThePixelsThatFired) {
  const Pixel_Counts counts = {{pack_pixel(4, 9), 5},
                               {pack_pixel(1, 1), 5},
                               {pack_pixel(2, 1), 6},
                               {pack_pixel(7, 0), 50},
                               {pack_pixel(3, 1), 51}};
  const Hot_Pixels hot = find_hotPixels(counts, 8);
  EXPECT_EQ(hot.fired, 5U);
  EXPECT_EQ(hot.median, 6U);
  ASSERT_EQ(hot.pixels.size(), 2U);  // by y, then x
  EXPECT_EQ(std::vector<int>({hot.pixels[0].x, hot.pixels[0].y, hot.pixels[1].x, hot.pixels[1].y}),
            std::vector<int>({7, 0, 3, 1}));
  EXPECT_EQ(find_hotPixels(counts, 8.5).pixels.size(), 0U);  // 51 is not more than 8.5 x 6
  // The lower of two middles; a negative position keeps its sign.
  const Hot_Pixels even = find_hotPixels({{pack_pixel(-1, 0), 1}, {pack_pixel(0, 0), 30}}, 10);
  EXPECT_EQ(even.median, 1U);
  ASSERT_EQ(even.pixels.size(), 1U);
  EXPECT_EQ(std::vector<int>({even.pixels[0].x, even.pixels[0].y}), std::vector<int>({0, 0}));
  EXPECT_EQ(find_hotPixels({{pack_pixel(-1, -2), 11}}, 10).pixels.size(), 0U);  // its own median
}

TEST(HotPixelsTest, ProgramListsARawFilesHotPixelsInTheFrameAsAMaskFile) {
  TempDir dir;
  std::vector<std::uint64_t> chip0(30, make_hitPacket(5, 6, 10, 100));
  for (unsigned c = 0; c < 10; ++c) chip0.push_back(make_hitPacket(c + 20, 3, 10, 200));
  // A second chip: a quad.
  write_bytes(dir.file("run.tpx3"),
              RawBytes().chunk(0, chip0).chunk(1, {make_hitPacket(0, 0, 10, 300), make_heartbeatPacket(1)}).data);
  const auto r = run_program(dir, KOVRA_INSPECT_PATH, "run.tpx3 --hot-pixels -");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "# hot pixels of run.tpx3: 1 of the 12 pixels that fired have more than 10 x the median of 1 hits\n"
            "# x y\n261 6  # 30 hits\n");
  // To a file, whole: what kovra_import --mask reads.
  ASSERT_EQ(run_program(dir, KOVRA_INSPECT_PATH, "run.tpx3 --hot-pixels masks/hot.txt --hot-factor 40").status, 0);
  EXPECT_EQ(read_bytes(dir.file("masks/hot.txt")),
            "# hot pixels of run.tpx3: 0 of the 12 pixels that fired have more than 40 x the median of 1 hits\n"
            "# x y\n");
  std::filesystem::create_directory(dir.file("taken"));
  const auto taken = run_program(dir, KOVRA_INSPECT_PATH, "run.tpx3 --hot-pixels taken");
  EXPECT_EQ(taken.status, 1);
  EXPECT_EQ(taken.err, "kovra_inspect: run.tpx3: cannot write mask file \"taken\": Is a directory\n");
}
