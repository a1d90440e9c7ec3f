// kovra_io_limit: the floor under an end-to-end run. Reads a whole file with plain buffered I/O in 4 MiB
// blocks and writes a file of a given size the same way, doing nothing else; what kovra_brantel takes beyond
// this is the cost of its parsing, reconstruction and formatting.
//
// Usage: kovra_io_limit INPUT OUTPUT OUTPUT_BYTES

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

int main(int argc, char* argv[]) {
  if (argc != 4) {
    std::fprintf(stderr, "Usage: kovra_io_limit INPUT OUTPUT OUTPUT_BYTES\n");
    return 2;
  }
  char* endOfNumber = nullptr;
  const unsigned long long outputBytes = std::strtoull(argv[3], &endOfNumber, 10);
  if (*argv[3] == '\0' || *endOfNumber != '\0') {
    std::fprintf(stderr, "kovra_io_limit: OUTPUT_BYTES must be a whole number, got '%s'\n", argv[3]);
    return 2;
  }
  constexpr std::size_t blockBytes = std::size_t{4} << 20;
  std::vector<unsigned char> block(blockBytes);
  const auto start = std::chrono::steady_clock::now();

  std::unique_ptr<std::FILE, int (*)(std::FILE*)> input(std::fopen(argv[1], "rb"), &std::fclose);
  if (!input) {
    std::fprintf(stderr, "kovra_io_limit: cannot read '%s'\n", argv[1]);
    return 1;
  }
  std::uint64_t inputBytes = 0;
  std::uint64_t checksum = 0;  // one byte of every page read, so that the reading cannot be left out
  for (std::size_t n = 0; (n = std::fread(block.data(), 1, blockBytes, input.get())) > 0;) {
    inputBytes += n;
    for (std::size_t i = 0; i < n; i += 4096) checksum = checksum * 31 + block[i];
  }
  if (std::ferror(input.get())) {
    std::fprintf(stderr, "kovra_io_limit: read error on '%s'\n", argv[1]);
    return 1;
  }

  std::unique_ptr<std::FILE, int (*)(std::FILE*)> output(std::fopen(argv[2], "wb"), &std::fclose);
  if (!output) {
    std::fprintf(stderr, "kovra_io_limit: cannot write '%s'\n", argv[2]);
    return 1;
  }
  for (std::uint64_t left = outputBytes; left > 0;) {
    const std::size_t n = left < blockBytes ? static_cast<std::size_t>(left) : blockBytes;
    if (std::fwrite(block.data(), 1, n, output.get()) != n) {
      std::fprintf(stderr, "kovra_io_limit: write error on '%s'\n", argv[2]);
      return 1;
    }
    left -= n;
  }
  if (std::fclose(output.release()) != 0) {
    std::fprintf(stderr, "kovra_io_limit: write error on '%s'\n", argv[2]);
    return 1;
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("read %llu bytes, wrote %llu bytes in %.3f s: %.0f MB/s (checksum %llu)\n",
              static_cast<unsigned long long>(inputBytes), outputBytes, seconds,
              static_cast<double>(inputBytes + outputBytes) / seconds / 1e6, static_cast<unsigned long long>(checksum));
  return 0;
}
