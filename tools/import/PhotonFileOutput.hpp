#pragma once

// A photon file written as a stream: photons and trigger times are handed over as they come, and the file
// appears whole or not at all. The file is written to a temporary file beside the target; the block sizes,
// unknown until the end, are written as placeholders and patched once the photons are all there. Trigger
// times wait in an anonymous scratch file, so memory stays bounded however many there are. Only `commit`
// renames the file into place; without it the temporary file is removed and the target stays as it was.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "kovra/detail/RecordIO.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::import {

/// One photon file being written. Throws std::invalid_argument when it cannot be written.
class PhotonFile_Output {
 public:
  using Photon = kovra::tpx3spidr::PhotonEvent;

  PhotonFile_Output(std::string target_, bool withTriggers_)
      : target(std::move(target_)), withTriggers(withTriggers_) {
    std::string pattern = target + ".XXXXXX";
    const int fd = ::mkstemp(pattern.data());
    if (fd < 0) fail("cannot create a file beside it");
    tempPath = pattern;
    const mode_t mask = ::umask(0);  // mkstemp makes the file private; give it the mode a new file would get
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);
    file.reset(::fdopen(fd, "w+b"));
    if (!file) {
      ::close(fd);
      fail("cannot open its temporary file");
    }
    buffer.resize(std::size_t{1} << 20);
    std::setvbuf(file.get(), buffer.data(), _IOFBF, buffer.size());
    if (withTriggers) {
      triggers.reset(std::tmpfile());
      if (!triggers) fail("cannot create a scratch file for the trigger times");
    }
    const std::uint64_t head[] = {kovra::detail::make_identifier("KOVRA"), 0,
                                  kovra::detail::make_identifier("build"), 16, 0, 2,
                                  kovra::detail::make_identifier("photons"), 0};
    write(head, sizeof head);
  }

  ~PhotonFile_Output() {
    file.reset();
    if (!tempPath.empty()) std::remove(tempPath.c_str());
  }
  PhotonFile_Output(const PhotonFile_Output&) = delete;
  PhotonFile_Output& operator=(const PhotonFile_Output&) = delete;

  void add_photons(const Photon* photons, std::size_t count) {
    write(photons, count * sizeof(Photon));
    photonCount += count;
  }

  void add_trigger(long time) {
    if (!withTriggers) return;
    if (std::fwrite(&time, sizeof time, 1, triggers.get()) != 1) fail("cannot keep the trigger times");
    ++triggerCount;
  }

  /// Finishes the file and renames it over the target.
  void commit() {
    const std::uint64_t photonBytes = photonCount * sizeof(Photon);
    std::uint64_t fileBytes = 64 + photonBytes;
    if (withTriggers) {
      const std::uint64_t header[] = {kovra::detail::make_identifier("extTrigs"), triggerCount * 8};
      write(header, sizeof header);
      if (std::fflush(triggers.get()) != 0 || std::fseek(triggers.get(), 0, SEEK_SET) != 0) {
        fail("cannot read back the trigger times");
      }
      std::vector<char> copy(std::size_t{1} << 16);
      for (std::size_t n = 0; (n = std::fread(copy.data(), 1, copy.size(), triggers.get())) > 0;) write(copy.data(), n);
      fileBytes += 16 + triggerCount * 8;
    }
    const std::uint64_t sizes[] = {fileBytes - 16, photonBytes};
    if (std::fseek(file.get(), 8, SEEK_SET) != 0) fail("cannot patch the sizes");
    write(&sizes[0], 8);
    if (std::fseek(file.get(), 56, SEEK_SET) != 0) fail("cannot patch the sizes");
    write(&sizes[1], 8);
    if (std::fflush(file.get()) != 0 || ::fsync(::fileno(file.get())) != 0) fail("cannot write");
    if (std::fclose(file.release()) != 0) fail("cannot write");
    if (std::rename(tempPath.c_str(), target.c_str()) != 0) fail("cannot rename its temporary file into place");
    tempPath.clear();
    const auto directory = std::filesystem::path(target).parent_path();
    const int dirFd = ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
      ::fsync(dirFd);
      ::close(dirFd);
    }
  }

  std::uint64_t get_photonCount() const { return photonCount; }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw std::invalid_argument(target + ": " + what + (errno != 0 ? std::string(": ") + std::strerror(errno) : ""));
  }

  void write(const void* data, std::size_t bytes) {
    if (std::fwrite(data, 1, bytes, file.get()) != bytes) fail("cannot write");
  }

  struct Close_File {
    void operator()(std::FILE* f) const { std::fclose(f); }
  };

  const std::string target;
  const bool withTriggers;
  std::string tempPath;
  std::vector<char> buffer;
  std::unique_ptr<std::FILE, Close_File> file;
  std::unique_ptr<std::FILE, Close_File> triggers;
  std::uint64_t photonCount = 0;
  std::uint64_t triggerCount = 0;
};

}  // namespace kovra::import
