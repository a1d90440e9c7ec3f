// The simulator's two truth files, the flash of every photon (.truth.kovraflash) and the photon of every hit
// (.truth.kovrahit), share one layout, one writer and one checked reader: each kind written and read back as
// literal bytes, and one table of bad files run on both, with each kind's own range check.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "TempDir.hpp"
#include "common/HitPhotons.hpp"
#include "common/PhotonFlashes.hpp"

using namespace kovra::tools;
using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::Time;
using testing::StrEq;
using testing::ThrowsMessage;

namespace {

std::string le(std::uint64_t value, int width) {
  std::string bytes;
  for (int i = 0; i < width; ++i) bytes.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
  return bytes;
}

/// The 40-byte header: magic, version, entry width, entry count, other count, fingerprint.
std::string header(const std::string& magic, std::uint64_t version, std::uint64_t width, std::uint64_t entries,
                   std::uint64_t other, std::uint64_t fingerprint) {
  return magic + le(version, 4) + le(width, 4) + le(entries, 8) + le(other, 8) + le(fingerprint, 8);
}

/// `bytes` with the little-endian field at `offset` replaced by `value`.
std::string with(std::string bytes, std::size_t offset, std::uint64_t value, int width) {
  return bytes.replace(offset, static_cast<std::size_t>(width), le(value, width));
}

const std::vector<PhotonEvent> photons = {{Length{1}, Length{2}, Time{3}}, {Length{4}, Length{5}, Time{6}}};

/// One kind of truth file; its good file for `photons` has two entries, each naming item 0.
struct Truth_Kind {
  const char* name;  ///< as the reader's messages call it
  const char* magic;
  std::size_t photonCountAt;  ///< the header field that must hold the photon count
  std::uint64_t otherCount;
  int badWidth;            ///< an entry width this kind does not take
  std::uint64_t badEntry;  ///< names no item, as entry 1
  const char* badEntryMessage;

  std::string good() const {
    return header(magic, 1, 4, 2, otherCount, fingerprint_photons(photons)) + le(0, 4) + le(0, 4);
  }
  void read(const std::string& path) const {
    if (magic == std::string("KOVRAFLS")) {
      read_photonFlashes(path, photons);
    } else {
      read_hitPhotons(path, photons);
    }
  }
};

const Truth_Kind kinds[] = {{"photon flash file", "KOVRAFLS", 16, 1, 2, 1, "photon 1 names flash 1, not one of the 1"},
                            {"hit truth file", "KOVRAHIT", 24, 2, 8, 2, "hit 1 names photon 2, not one of the 2"}};

}  // namespace

TEST(TruthFilesTest, EachKindIsWrittenWholeBesideItsSourceAndReadBack) {
  TempDir dir;
  const std::uint64_t fp = fingerprint_photons(photons);
  EXPECT_EQ(get_photonFlashesPath("a/run.kovraphot"), "a/run.truth.kovraflash");
  EXPECT_EQ(get_hitPhotonsPath("a/run.tpx3"), "a/run.truth.kovrahit");

  const std::string flashPath = dir.file("run.truth.kovraflash");
  {
    PhotonFlashes_Writer writer(flashPath, 10);
    writer.append(std::vector<std::int64_t>{1});
    writer.append(std::vector<std::int64_t>{-1});
    writer.finish(3, fp);
    EXPECT_FALSE(std::filesystem::exists(flashPath));  // only the temporary file exists until commit
    writer.commit();
  }
  EXPECT_EQ(read_bytes(flashPath), header("KOVRAFLS", 1, 4, 2, 3, fp) + le(1, 4) + le(~0ULL, 4));
  const Photon_Flashes flashes = read_photonFlashes(flashPath, photons);
  EXPECT_EQ(flashes.flashOfPhoton, (std::vector<std::int64_t>{1, -1}));
  EXPECT_EQ(flashes.nFlashes, 3U);

  const std::string hitPath = dir.file("run.truth.kovrahit");
  {
    HitPhotons_Writer writer(hitPath);
    for (const std::uint64_t p : {1U, 1U, 0U}) writer.add(p);
    writer.finish(2, fp);
    writer.commit();
  }
  EXPECT_EQ(read_bytes(hitPath), header("KOVRAHIT", 1, 4, 3, 2, fp) + le(1, 4) + le(1, 4) + le(0, 4));
  EXPECT_EQ(read_hitPhotons(hitPath, photons), (std::vector<std::uint32_t>{1, 1, 0}));

  {
    HitPhotons_Writer uncommitted(dir.file("other.truth.kovrahit"));
    uncommitted.add(0);
    uncommitted.finish(2, fp);
  }
  EXPECT_FALSE(std::filesystem::exists(dir.file("other.truth.kovrahit")));
}

TEST(TruthFilesTest, BadFilesOfEitherKindAreRefusedWithOneMessage) {
  TempDir dir;
  std::vector<PhotonEvent> shifted = photons;
  shifted[1].toa = Time{7};
  ASSERT_NE(fingerprint_photons(photons), fingerprint_photons(shifted));
  const std::string path = dir.file("t.truth");
  for (const Truth_Kind& kind : kinds) {
    SCOPED_TRACE(kind.name);
    const std::string good = kind.good(), where = kind.name + (" '" + path + "': ");
    write_bytes(path, good);
    EXPECT_NO_THROW(kind.read(path));
    const std::pair<std::string, std::string> cases[] = {
        {good.substr(0, 7), std::string("not a ") + kind.name},
        {with(good, 7, 'X', 1), std::string("not a ") + kind.name},
        {with(good, 8, 2, 4), "unknown version"},
        {with(good, 12, static_cast<std::uint64_t>(kind.badWidth), 4), "bad entry width"},
        {with(good, kind.photonCountAt, 3, 8), "made for 3 photons, the photon file has 2"},
        {good.substr(0, good.size() - 1), "truncated or overlong"},
        {good.substr(0, good.size() - 4), "truncated or overlong"},
        {good + "x", "truncated or overlong"},
        {with(good, 32, fingerprint_photons(shifted), 8), "made for other photons (another seed or other settings)"},
        {with(good, 44, kind.badEntry, 4), kind.badEntryMessage},
    };
    for (const auto& [bytes, message] : cases) {
      write_bytes(path, bytes);
      EXPECT_THAT([&] { kind.read(path); }, ThrowsMessage<std::invalid_argument>(StrEq(where + message))) << message;
    }
    const std::string missing = dir.file("missing");
    EXPECT_THAT([&] { kind.read(missing); }, ThrowsMessage<std::invalid_argument>(StrEq(
                                                 std::string("cannot read the ") + kind.name + " '" + missing + "'")));
  }
  // Entries of 8 bytes are signed too.
  write_bytes(path, header("KOVRAFLS", 1, 8, 2, 1, fingerprint_photons(photons)) + le(0, 8) + le(~1ULL, 8));
  EXPECT_THAT([&] { kinds[0].read(path); },
              ThrowsMessage<std::invalid_argument>(
                  StrEq("photon flash file '" + path + "': photon 1 names flash -2, not one of the 1")));
}
