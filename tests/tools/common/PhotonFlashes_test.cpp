// The file that carries the flash of every simulated photon: literal bytes, a table of bad files with their
// messages, and the writer read back. (What the model hands out: PhotonSimulationTest.)

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TempDir.hpp"
#include "common/PhotonFlashes.hpp"

using namespace kovra::tools;
using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::Time;
using testing::StrEq;
using testing::ThrowsMessage;

namespace {

std::string le(std::uint64_t value, int width) {
  std::string bytes;
  for (int i = 0; i < width; ++i) bytes.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
  return bytes;
}

std::string header(std::uint64_t version, std::uint64_t width, std::uint64_t nPhotons, std::uint64_t nFlashes,
                   std::uint64_t fingerprint) {
  return "KOVRAFLS" + le(version, 4) + le(width, 4) + le(nPhotons, 8) + le(nFlashes, 8) + le(fingerprint, 8);
}

}  // namespace

TEST(PhotonFlashesTest, FileIsWrittenWholeAndReadBack) {
  TempDir dir;
  const std::vector<kovra::tpx3spidr::PhotonEvent> photons = {
      {Length{1}, Length{2}, Time{3}}, {Length{4}, Length{5}, Time{6}}, {Length{7}, Length{8}, Time{9}}};
  const std::string path = get_photonFlashesPath(dir.file("run.kovraphot"));
  {
    PhotonFlashes_Writer writer(path, 10);
    writer.append(std::vector<std::int64_t>{2, -1});
    writer.append(std::vector<std::int64_t>{0});
    writer.finish(3, fingerprint_photons(photons));
    EXPECT_FALSE(std::filesystem::exists(path));  // only the temporary file exists until commit
    writer.commit();
  }
  EXPECT_EQ(read_bytes(path), header(1, 4, 3, 3, fingerprint_photons(photons)) + le(2, 4) + le(~0ULL, 4) + le(0, 4));
  const Photon_Flashes back = read_photonFlashes(path, photons);
  EXPECT_EQ(back.flashOfPhoton, (std::vector<std::int64_t>{2, -1, 0}));
  EXPECT_EQ(back.nFlashes, 3U);
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
      {header(1, 4, 3, 1, fp) + std::string(12, '\0'), "made for 3 photons, the photon file has 2"},
      {header(1, 4, 2, 1, fp) + std::string(7, '\0'), "truncated or overlong"},
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
  const std::string missing = dir.file("missing");
  EXPECT_THAT([&] { read_photonFlashes(missing, photons); },
              ThrowsMessage<std::invalid_argument>(StrEq("cannot read the photon flash file '" + missing + "'")));
}
