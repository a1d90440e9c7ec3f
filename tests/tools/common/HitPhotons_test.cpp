// The file that carries the photon of every simulated raw hit: literal bytes written and read back, and a table
// of bad files with their messages.

#include "common/HitPhotons.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "TempDir.hpp"

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

std::string header(std::uint64_t version, std::uint64_t width, std::uint64_t nHits, std::uint64_t nPhotons,
                   std::uint64_t fingerprint) {
  return "KOVRAHIT" + le(version, 4) + le(width, 4) + le(nHits, 8) + le(nPhotons, 8) + le(fingerprint, 8);
}

const std::vector<kovra::tpx3spidr::PhotonEvent> photons = {{Length{1}, Length{2}, Time{3}},
                                                            {Length{4}, Length{5}, Time{6}}};

}  // namespace

TEST(HitPhotonsTest, FileIsWrittenWholeAndReadBack) {
  TempDir dir;
  EXPECT_EQ(get_hitPhotonsPath("a/run.tpx3"), "a/run.truth.kovrahit");
  const std::string path = get_hitPhotonsPath(dir.file("run.tpx3"));
  {
    HitPhotons_Writer writer(path);
    for (const std::uint64_t p : {1U, 1U, 0U}) writer.add(p);
    writer.finish(2, fingerprint_photons(photons));
    EXPECT_FALSE(std::filesystem::exists(path));  // nothing at the path until commit
    writer.commit();
  }
  EXPECT_EQ(read_bytes(path), header(1, 4, 3, 2, fingerprint_photons(photons)) + le(1, 4) + le(1, 4) + le(0, 4));
  EXPECT_EQ(read_hitPhotons(path, photons), (std::vector<std::uint32_t>{1, 1, 0}));
  {
    HitPhotons_Writer uncommitted(dir.file("other.truth.kovrahit"));
    uncommitted.add(0);
    uncommitted.finish(2, fingerprint_photons(photons));
  }
  EXPECT_FALSE(std::filesystem::exists(dir.file("other.truth.kovrahit")));
}

TEST(HitPhotonsTest, BadFilesAreRefusedWithOneMessage) {
  TempDir dir;
  std::vector<kovra::tpx3spidr::PhotonEvent> shifted = photons;
  shifted[0].x = Length{9};
  const std::uint64_t fp = fingerprint_photons(photons);
  const std::string path = dir.file("t.truth.kovrahit");
  const std::string where = "hit truth file '" + path + "': ";
  const struct {
    std::string bytes;
    std::string message;
  } cases[] = {
      {"KOVRAHI", "not a hit truth file"},
      {"KOVRAFLS" + header(1, 4, 1, 2, fp).substr(8) + le(0, 4), "not a hit truth file"},
      {header(2, 4, 1, 2, fp) + le(0, 4), "unknown version"},
      {header(1, 8, 1, 2, fp) + le(0, 8), "bad entry width"},
      {header(1, 4, 1, 3, fp) + le(0, 4), "made for 3 photons, the photon file has 2"},
      {header(1, 4, 2, 2, fp) + le(0, 4), "truncated or overlong"},
      {header(1, 4, 1, 2, fp) + le(0, 4) + "x", "truncated or overlong"},
      {header(1, 4, 1, 2, fingerprint_photons(shifted)) + le(0, 4),
       "made for other photons (another seed or other settings)"},
      {header(1, 4, 2, 2, fp) + le(1, 4) + le(2, 4), "hit 1 names photon 2, not one of the 2"},
  };
  for (const auto& c : cases) {
    write_bytes(path, c.bytes);
    EXPECT_THAT([&] { read_hitPhotons(path, photons); }, ThrowsMessage<std::invalid_argument>(StrEq(where + c.message)))
        << c.message;
  }
}
