// The flash of every simulated photon: what the model hands out, and the file that carries it (literal bytes,
// a table of bad files with their messages, and the writer read back).

#include <cmath>
#include <filesystem>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TempDir.hpp"
#include "simulate/PhotonFlashes.hpp"
#include "simulate/PhotonSimulation.hpp"

using namespace kovra::simulate;
using testing::StrEq;
using testing::ThrowsMessage;

namespace {

Simulation_Settings crowded() {
  Simulation_Settings s;
  s.duration_s = 0.002, s.eventRate_Hz = 1.0e6, s.darkRate_Hz = 5.0e5, s.tauSlow_s = 1e-6, s.seed = 7;
  return s;
}

struct Labelled_Run {
  Simulation_Result result;
  std::vector<True_Event> truth;
  std::vector<std::int64_t> flashOfPhoton;
};

Labelled_Run simulate_labelled(const Simulation_Settings& s, long sliceTicks) {
  Labelled_Run run;
  run.result = simulate_photonEvents_withFlashes(
      s, [&](const True_Event& e) { run.truth.push_back(e); },
      [&](std::span<const std::int64_t> slice) {
        run.flashOfPhoton.insert(run.flashOfPhoton.end(), slice.begin(), slice.end());
      },
      sliceTicks);
  return run;
}

std::string le(std::uint64_t value, int width) {
  std::string bytes;
  for (int i = 0; i < width; ++i) bytes.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
  return bytes;
}

std::string zeros(std::size_t n) { return std::string(n, '\0'); }

std::string header(std::uint64_t version, std::uint64_t width, std::uint64_t nPhotons, std::uint64_t nFlashes,
                   std::uint64_t fingerprint) {
  return "KOVRAFLS" + le(version, 4) + le(width, 4) + le(nPhotons, 8) + le(nFlashes, 8) + le(fingerprint, 8);
}

}  // namespace

TEST(PhotonFlashesTest, EveryPhotonNamesTheFlashThatSentItWhateverTheSlicing) {
  const Labelled_Run run = simulate_labelled(crowded(), 0);
  const auto& photons = run.result.photons.photonEvents;
  ASSERT_EQ(run.flashOfPhoton.size(), photons.size());
  std::vector<std::uint64_t> count(run.truth.size(), 0);
  std::uint64_t dark = 0;
  for (std::size_t i = 0; i < photons.size(); ++i) {
    const std::int64_t f = run.flashOfPhoton[i];
    ASSERT_TRUE(f >= -1 && f < static_cast<std::int64_t>(run.truth.size())) << f;
    if (f < 0) {
      ++dark;
      continue;
    }
    const True_Event& flash = run.truth[static_cast<std::size_t>(f)];
    ++count[static_cast<std::size_t>(f)];
    // Light comes after the flash, around its position (sigma 1 pixel).
    ASSERT_GE(photons[i].toa.get_seconds(), flash.t_s - Time::tick_seconds) << i;
    ASSERT_LT(std::hypot(photons[i].x.get_pixels() - flash.x_px, photons[i].y.get_pixels() - flash.y_px), 8.0) << i;
  }
  EXPECT_EQ(dark, run.result.nDarkPhotons);
  for (std::size_t f = 0; f < run.truth.size(); ++f) ASSERT_EQ(count[f], run.truth[f].nPhotons) << f;

  // Slices far shorter than a flash's light, and the whole acquisition in one: the same labels.
  for (const long slice : {7L, 10000000L}) {
    const Labelled_Run other = simulate_labelled(crowded(), slice);
    EXPECT_EQ(other.flashOfPhoton, run.flashOfPhoton) << slice;
    EXPECT_EQ(other.result.photons.photonEvents.size(), photons.size()) << slice;
  }
}

TEST(PhotonFlashesTest, FileIsWrittenWholeAndReadBack) {
  TempDir dir;
  const std::vector<kovra::tpx3spidr::PhotonEvent> photons = {{Length{1}, Length{2}, Time{3}},
                                                               {Length{4}, Length{5}, Time{6}},
                                                               {Length{7}, Length{8}, Time{9}}};
  const std::string path = get_photonFlashesPath(dir.file("run.kovraphot"));
  EXPECT_EQ(path, dir.file("run.truth.kovraflash"));
  {
    PhotonFlashes_Writer writer(path, 10);
    writer.append(std::vector<std::int64_t>{2, -1});
    writer.append(std::vector<std::int64_t>{0});
    EXPECT_FALSE(std::filesystem::exists(path));  // only the temporary file exists until finish
    writer.finish(3, fingerprint_photons(photons));
  }
  EXPECT_EQ(read_bytes(path), header(1, 4, 3, 3, fingerprint_photons(photons)) + le(2, 4) + le(~0ULL, 4) + le(0, 4));
  const Photon_Flashes back = read_photonFlashes(path, photons);
  EXPECT_EQ(back.flashOfPhoton, (std::vector<std::int64_t>{2, -1, 0}));
  EXPECT_EQ(back.nFlashes, 3U);

  // A writer that is not finished leaves nothing behind.
  { PhotonFlashes_Writer unfinished(dir.file("gone.truth.kovraflash"), 10); }
  EXPECT_FALSE(std::filesystem::exists(dir.file("gone.truth.kovraflash")));
  EXPECT_FALSE(std::filesystem::exists(dir.file("gone.truth.kovraflash.part")));
}

TEST(PhotonFlashesTest, BadFilesAreRefusedWithOneMessage) {
  TempDir dir;
  const std::vector<kovra::tpx3spidr::PhotonEvent> photons = {{Length{1}, Length{2}, Time{3}},
                                                               {Length{4}, Length{5}, Time{6}}};
  std::vector<kovra::tpx3spidr::PhotonEvent> shifted = photons;
  shifted[1].toa = Time{7};
  const std::uint64_t fp = fingerprint_photons(photons);
  ASSERT_NE(fp, fingerprint_photons(shifted));
  const std::string path = dir.file("t.truth.kovraflash");
  const std::string where = "photon flash file '" + path + "': ";
  const struct {
    std::string bytes;
    std::string message;
  } cases[] = {
      {"", "not a photon flash file"},
      {"KOVRAFLX" + header(1, 4, 2, 1, fp).substr(8) + le(0, 8), "not a photon flash file"},
      {header(2, 4, 2, 1, fp) + le(0, 8), "unknown version"},
      {header(1, 2, 2, 1, fp) + le(0, 4), "bad entry width"},
      {header(1, 4, 3, 1, fp) + zeros(12), "made for 3 photons, the photon file has 2"},
      {header(1, 4, 2, 1, fp) + zeros(7), "truncated or overlong"},
      {header(1, 8, 2, 1, fp) + zeros(12), "truncated or overlong"},
      {header(1, 4, 2, 1, fingerprint_photons(shifted)) + le(0, 8),
       "made for other photons (another seed or other settings)"},
      {header(1, 4, 2, 1, fp) + le(0, 4) + le(1, 4), "photon 1 names flash 1, not one of the 1"},
      {header(1, 8, 2, 1, fp) + le(0, 8) + le(~1ULL, 8), "photon 1 names flash -2, not one of the 1"},
  };
  for (const auto& c : cases) {
    write_bytes(path, c.bytes);
    EXPECT_THAT([&] { read_photonFlashes(path, photons); },
                ThrowsMessage<std::invalid_argument>(StrEq(where + c.message)))
        << c.message;
  }
  // The two widths agree on what they hold.
  write_bytes(path, header(1, 8, 2, 1, fp) + le(~0ULL, 8) + le(0, 8));
  EXPECT_EQ(read_photonFlashes(path, photons).flashOfPhoton, (std::vector<std::int64_t>{-1, 0}));
  const std::string missing = dir.file("missing");
  EXPECT_THAT([&] { read_photonFlashes(missing, photons); },
              ThrowsMessage<std::invalid_argument>(StrEq("cannot read the photon flash file '" + missing + "'")));
}
