#pragma once

// An output file that appears at its path whole or not at all.
//
// Everything is written to a temporary file in the target's directory; only `commit` makes it durable (fsync)
// and moves it over the target in one rename, then makes the directory entry durable too. Until then an
// existing file at the target stays as it was. The temporary file has no name where the system allows it
// (O_TMPFILE), so the kernel discards it even when the process dies on an assertion or a signal; elsewhere it
// is a hidden name beside the target, removed when the object is destroyed without a commit.
//
// Writing goes through a seekable std::ostream with a large buffer, so block writers can write headers, stream
// records and go back to fill in sizes. A target that cannot be written (missing directory, no permission, a
// directory in its place) gives a stream that is bad from the start, exactly like a file stream that failed to
// open: writes do nothing and positions read as -1. `get_error` says why a stream went bad.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <ios>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

namespace kovra {

namespace detail {

/// A write buffer over a file descriptor that supports seeking. Large writes bypass the buffer.
class FileDescriptor_Buffer : public std::streambuf {
 public:
  static constexpr std::size_t buffer_bytes = std::size_t{1} << 20;

  explicit FileDescriptor_Buffer(int fd_) : fd(fd_), buffer(fd_ >= 0 ? buffer_bytes : 0) {
    if (fd >= 0) setp(buffer.data(), buffer.data() + buffer.size());
  }
  FileDescriptor_Buffer(const FileDescriptor_Buffer&) = delete;
  FileDescriptor_Buffer& operator=(const FileDescriptor_Buffer&) = delete;

  /// Whether every byte handed over so far reached the file.
  bool good() const { return fd >= 0 && !failed; }

  /// The system's error number of the write that failed, 0 while none has.
  int get_error() const { return error; }

  /// From now on, asks the kernel after every write to start writing those bytes back to the disk (see
  /// write_all).
  void start_writeBackAsWritten() { writeBackAsWritten = true; }

 protected:
  int_type overflow(int_type c) override {
    if (!flush_buffer()) return traits_type::eof();
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
      *pptr() = traits_type::to_char_type(c);
      pbump(1);
    }
    return traits_type::not_eof(c);
  }

  std::streamsize xsputn(const char* data, std::streamsize count) override {
    if (fd < 0 || failed) return 0;
    const auto n = static_cast<std::size_t>(count);
    if (n <= static_cast<std::size_t>(epptr() - pptr())) {
      std::memcpy(pptr(), data, n);
      pbump(static_cast<int>(n));
      return count;
    }
    if (!flush_buffer()) return 0;
    if (n < buffer.size() / 2) {
      std::memcpy(pptr(), data, n);
      pbump(static_cast<int>(n));
      return count;
    }
    return write_all(data, n) ? count : 0;
  }

  int sync() override { return flush_buffer() ? 0 : -1; }

  pos_type seekoff(off_type offset, std::ios_base::seekdir direction, std::ios_base::openmode) override {
    if (!flush_buffer()) return pos_type(off_type(-1));
    const int whence = direction == std::ios_base::beg   ? SEEK_SET
                       : direction == std::ios_base::cur ? SEEK_CUR
                                                         : SEEK_END;
    const off_t at = lseek(fd, static_cast<off_t>(offset), whence);
    return at < 0 ? pos_type(off_type(-1)) : pos_type(off_type(at));
  }

  pos_type seekpos(pos_type position, std::ios_base::openmode mode) override {
    return seekoff(off_type(position), std::ios_base::beg, mode);
  }

 private:
  bool flush_buffer() {
    if (fd < 0 || failed) return false;
    const auto n = static_cast<std::size_t>(pptr() - pbase());
    setp(buffer.data(), buffer.data() + buffer.size());
    return n == 0 || write_all(buffer.data(), n);
  }

  /// Writes all bytes; with writeBackAsWritten, then asks the kernel to start writing them back to the disk (a
  /// hint; it does not wait for the disk), so that the fsync of commit() is left with the last bytes only. That
  /// fsync is the one step that waits for the device and cannot overlap the work of a parallel run: for 33 MB of
  /// events it took 9-12 ms without the hint, 0.1-0.3 ms with it. A run on one thread writes without it: there the
  /// hints cost the thread itself more than the fsync they save (the full chain on dense data, processor time,
  /// fastest of 5: 0.59 s with them, 0.52 s without).
  bool write_all(const char* data, std::size_t n) {
    const off_t at = writeBackAsWritten ? lseek(fd, 0, SEEK_CUR) : -1;
    const std::size_t bytes = n;
    while (n > 0) {
      const ssize_t done = ::write(fd, data, n);
      if (done < 0 && errno == EINTR) continue;
      if (done <= 0) {
        failed = true;
        error = done < 0 ? errno : ENOSPC;
        return false;
      }
      data += done;
      n -= static_cast<std::size_t>(done);
    }
    if (writeBackAsWritten && at >= 0) sync_file_range(fd, at, static_cast<off_t>(bytes), SYNC_FILE_RANGE_WRITE);
    return true;
  }

  int fd;
  bool writeBackAsWritten = false;
  bool failed = false;
  int error = 0;
  std::vector<char> buffer;
};

}  // namespace detail

/// A file written in full under a temporary identity and moved into place by `commit`.
class OutputFile_Atomic {
 public:
  explicit OutputFile_Atomic(std::string path_)
      : path(std::move(path_)), fd(open_temporary()), buffer(fd), out(&buffer) {
    if (fd < 0) out.setstate(std::ios::badbit);
  }

  OutputFile_Atomic(const OutputFile_Atomic&) = delete;
  OutputFile_Atomic& operator=(const OutputFile_Atomic&) = delete;

  ~OutputFile_Atomic() {
    if (fd >= 0) ::close(fd);
    if (!committed && !temporaryName.empty()) ::unlink(temporaryName.c_str());
  }

  /// The stream to write to; bad from the start when the target cannot be written.
  std::ostream& stream() { return out; }

  /// Asks the kernel to start writing back what is written from now on as soon as it is written (for a writer
  /// that has a thread of its own: see detail::FileDescriptor_Buffer::write_all).
  void start_writeBackAsWritten() { buffer.start_writeBackAsWritten(); }

  const std::string& get_path() const { return path; }

  /// Why the stream went bad, as a system error number (EISDIR for a directory at the target, EINVAL for another
  /// file that is not a regular one); 0 while it is good.
  int get_error() const { return openError != 0 ? openError : buffer.get_error(); }

  /// Flushes, makes the content durable and moves it over the target. Throws std::runtime_error when any step
  /// fails; the target is then unchanged.
  void commit() {
    if (committed) return;
    out.flush();
    if (fd < 0 || !out || !buffer.good()) {
      if (const int error = get_error()) errno = error;  // the failed write's reason, not that of a later call
      fail("cannot write");
    }
    if (::fsync(fd) != 0) fail("cannot flush");
    if (temporaryName.empty()) {
      // Give the unnamed file a name beside the target first; a link never replaces, the rename does.
      temporaryName = unique_sibling_name();
      const std::string self = "/proc/self/fd/" + std::to_string(fd);
      if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, temporaryName.c_str(), AT_SYMLINK_FOLLOW) != 0) {
        temporaryName.clear();
        fail("cannot link");
      }
    }
    if (::rename(temporaryName.c_str(), path.c_str()) != 0) {
      const int error = errno;
      ::unlink(temporaryName.c_str());
      temporaryName.clear();
      errno = error;
      fail("cannot move into place");
    }
    committed = true;
    temporaryName.clear();
    ::close(fd);
    fd = -1;
    sync_directory();
  }

 private:
  std::string directory() const {
    const std::string parent = std::filesystem::path(path).parent_path().string();
    return parent.empty() ? "." : parent;
  }

  /// A hidden name beside the target: "<directory>/.<file name><suffix>".
  std::string hidden_sibling(const std::string& suffix) const {
    std::string name = ".";
    name += std::filesystem::path(path).filename().string();
    name += suffix;
    return (std::filesystem::path(directory()) / name).string();
  }

  std::string unique_sibling_name() const {
    return hidden_sibling(".tmp" + std::to_string(::getpid()) + "_" + std::to_string(fd));
  }

  /// A writable temporary file in the target's directory, or -1 where a plain file stream could not have opened
  /// the target for writing either.
  int open_temporary() {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) {
      if (!S_ISREG(status.st_mode)) {
        openError = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return -1;
      }
      if (::access(path.c_str(), W_OK) != 0) {
        openError = errno;
        return -1;
      }
    }
    const std::string dir = directory();
#if defined(O_TMPFILE)
    const int unnamed = ::open(dir.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
    if (unnamed >= 0) return unnamed;
#endif
    std::string pattern = hidden_sibling(".XXXXXX");
    const int named = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (named < 0) {
      openError = errno;
      return -1;
    }
    // mkostemp creates the file readable by its owner only; give it the mode a plain file stream would.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(named, 0666 & ~mask);
    temporaryName = pattern;
    return named;
  }

  void sync_directory() const {
    const int dirFd = ::open(directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd < 0) return;
    ::fsync(dirFd);
    ::close(dirFd);
  }

  [[noreturn]] void fail(const char* what) const {
    throw std::runtime_error(std::string(what) + " \"" + path + "\": " + std::strerror(errno));
  }

  std::string path;
  std::string temporaryName;  // the temporary's name while it has one
  int openError = 0;          // set by open_temporary, so declared before fd
  int fd;
  detail::FileDescriptor_Buffer buffer;
  std::ostream out;
  bool committed = false;
};

}  // namespace kovra
