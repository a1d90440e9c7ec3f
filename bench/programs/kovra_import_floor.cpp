// kovra_import_floor: the floor under kovra_import. Reads a raw Timepix3 file in 4 MiB blocks, walks its chunks,
// decodes every hit (pixel, ToT, time) and writes 16 bytes per hit (x, y as 32-bit integers, the hit's raw time
// as a 64-bit one) and flushes them to disk, with no clock following, ordering or grouping; what kovra_import
// takes beyond this is the cost of those. With "-" as OUTPUT nothing is written: reading and decoding alone.
//
// Usage: kovra_import_floor RAW OUTPUT

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Packets.hpp"

int main(int argc, char* argv[]) {
  using namespace kovra::tpx3spidr::raw;
  if (argc != 3) {
    std::fprintf(stderr, "Usage: kovra_import_floor RAW OUTPUT\n");
    return 2;
  }
  constexpr std::size_t blockWords = std::size_t{1} << 19;
  std::vector<std::uint64_t> block(blockWords);
  std::vector<std::uint64_t> out(2 * blockWords);
  const bool discard = std::strcmp(argv[2], "-") == 0;
  const auto start = std::chrono::steady_clock::now();

  std::unique_ptr<std::FILE, int (*)(std::FILE*)> input(std::fopen(argv[1], "rb"), &std::fclose);
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> output(discard ? nullptr : std::fopen(argv[2], "wb"), &std::fclose);
  if (!input || (!discard && !output)) {
    std::fprintf(stderr, "kovra_import_floor: cannot open '%s'\n", !input ? argv[1] : argv[2]);
    return 1;
  }
  std::uint64_t packets = 0;
  std::uint64_t hits = 0;
  std::uint64_t checksum = 0;
  std::uint64_t chunkLeft = 0;
  for (std::size_t n = 0; (n = std::fread(block.data(), 8, blockWords, input.get())) > 0;) {
    std::size_t nOut = 0;
    for (std::size_t i = 0; i < n; ++i) {
      const std::uint64_t p = block[i];
      if (chunkLeft == 0) {
        if (!is_chunkHeader(p)) {
          std::fprintf(stderr, "kovra_import_floor: no chunk header where one should be\n");
          return 1;
        }
        chunkLeft = get_chunkBytes(p) / 8;
        continue;
      }
      --chunkLeft;
      ++packets;
      if (!is_hit(p)) continue;
      const std::uint64_t xy = get_hitColumn(p) << 16 | std::uint64_t{get_hitRow(p)} << 48;
      out[nOut++] = xy;
      out[nOut++] = get_hitTicks(p) | std::uint64_t{get_hitTot(p)} << 40;
    }
    hits += nOut / 2;
    if (discard) {
      for (std::size_t i = 0; i < nOut; i += 512) checksum = checksum * 31 + out[i];
    } else if (std::fwrite(out.data(), 8, nOut, output.get()) != nOut) {
      std::fprintf(stderr, "kovra_import_floor: write error on '%s'\n", argv[2]);
      return 1;
    }
  }
  // kovra_import makes its output durable before it renames it into place; so does the floor.
  if (output && (std::fflush(output.get()) != 0 || fsync(fileno(output.get())) != 0)) {
    std::fprintf(stderr, "kovra_import_floor: write error on '%s'\n", argv[2]);
    return 1;
  }
  if (output && std::fclose(output.release()) != 0) {
    std::fprintf(stderr, "kovra_import_floor: write error on '%s'\n", argv[2]);
    return 1;
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%llu packets, %llu hits in %.3f s: %.1f million packets per second (checksum %llu)\n",
              static_cast<unsigned long long>(packets), static_cast<unsigned long long>(hits), seconds,
              static_cast<double>(packets) / seconds / 1e6, static_cast<unsigned long long>(checksum));
  return 0;
}
