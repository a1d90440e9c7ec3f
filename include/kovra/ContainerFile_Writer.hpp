#pragma once

// Writing a container file as a stream: blocks whose sizes are not known when they begin (records appended as
// they are produced) are framed with a provisional size that is filled in when the block ends; the file block's
// size is filled in at the end. The file goes through OutputFile_Atomic, so it appears at its path only when it
// is complete, and the bytes are those of a file written with every size known in advance.
//
// Every block, the build block included, ends with the same check as the whole-file block writer: the bytes
// that reached the file equal the bytes handed over ("end_content - begin_content == size_content"). On a
// stream that failed (a target that cannot be written, a full disk) the positions stop advancing and the check
// stops the program, as a whole-file write does. A caller that ends a failed write with a message of its own
// calls flush() and asks good() before each end_block().

#include <cassert>
#include <cstdint>
#include <ios>
#include <ostream>
#include <span>
#include <string>
#include <utility>

#include "kovra/OutputFile_Atomic.hpp"
#include "kovra/detail/RecordIO.hpp"

namespace kovra {

/// A container file of type `file_type_index` written front to back, one open block at a time.
template <std::uint64_t file_type_index>
class ContainerFile_Writer {
 public:
  static constexpr std::uint64_t file_version_index = 0;

  /// Opens the temporary file and writes the file header and the build block.
  explicit ContainerFile_Writer(std::string path) : file(std::move(path)), stream(file.stream()) {
    detail::write_u64(stream, detail::make_identifier("KOVRA"));
    detail::write_u64(stream, 0);  // filled in by commit()
    fileContentBegin = position();
    begin_block(detail::make_identifier("build"));
    const std::uint64_t build[2] = {file_version_index, file_type_index};
    append_bytes(build, sizeof build);
    end_block();
  }

  /// Whether every byte so far reached the file: false from the start when the target cannot be written, and
  /// after a failed write (a full disk). Bytes still in the buffer have not been tried yet: a caller that wants its
  /// own message calls flush() and then asks this before end_block(), whose size check would stop the program.
  bool good() const { return stream.good(); }

  /// Hands every byte appended so far to the file, so that good() then says whether all of them reached it.
  void flush() { stream.flush(); }

  /// Why it is not good, as a system error number (see OutputFile_Atomic::get_error); 0 while it is.
  int get_error() const { return file.get_error(); }

  /// See OutputFile_Atomic::start_writeBackAsWritten.
  void start_writeBackAsWritten() { file.start_writeBackAsWritten(); }

  /// Starts a block; its size is filled in by end_block().
  void begin_block(std::uint64_t identifier) {
    assert(!blockOpen);
    blockOpen = true;
    detail::write_u64(stream, identifier);
    sizeField = position();
    detail::write_u64(stream, 0);
    begin_content = position();
    size_content = 0;
  }

  void append_bytes(const void* data, std::uint64_t bytes) {
    assert(blockOpen);
    stream.write(static_cast<const char*>(data), static_cast<std::streamsize>(bytes));
    size_content += bytes;
  }

  template <detail::RawRecord Record_Type>
  void append(std::span<const Record_Type> records) {
    append_bytes(records.data(), records.size_bytes());
  }

  /// Ends the open block: checks that all its bytes reached the file and fills in its size.
  void end_block() {
    assert(blockOpen);
    blockOpen = false;
    const std::uint64_t end_content = position();
    assert(end_content - begin_content == size_content);
    patch_u64(sizeField, size_content);
  }

  /// Fills in the file block's size and moves the finished file into place.
  void commit() {
    assert(!blockOpen);
    patch_u64(fileContentBegin - 8, position() - fileContentBegin);
    file.commit();
  }

 private:
  std::uint64_t position() { return static_cast<std::uint64_t>(static_cast<std::streamoff>(stream.tellp())); }

  void patch_u64(std::uint64_t at, std::uint64_t value) {
    const std::uint64_t back = position();
    stream.seekp(static_cast<std::streamoff>(at));
    detail::write_u64(stream, value);
    stream.seekp(static_cast<std::streamoff>(back));
  }

  OutputFile_Atomic file;
  std::ostream& stream;
  std::uint64_t fileContentBegin = 0;
  std::uint64_t sizeField = 0;
  std::uint64_t begin_content = 0;
  std::uint64_t size_content = 0;
  bool blockOpen = false;
};

}  // namespace kovra
