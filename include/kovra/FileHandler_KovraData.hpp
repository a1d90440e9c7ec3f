#pragma once

// Container files: a flat sequence of blocks, each an 8-byte identifier, an unsigned 64-bit content size and
// the content, all little-endian. One "KOVRA" block wraps the whole file; its first inner block is "build"
// (format version 0, file type: 2 photons, 3 events); the content blocks of the file type follow.
// docs/file-format.md describes the layout byte by byte.

#include <cassert>
#include <cstdint>
#include <fstream>
#include <ios>
#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kovra/ContainerFile_Reader.hpp"
#include "kovra/OutputFile_Atomic.hpp"
#include "kovra/detail/RecordIO.hpp"

namespace kovra {

/// Reader and writer of one container file type; `ReadOutput_Type` is the data set a file of that type holds.
/// Stateless: one handler may serve any number of files.
template <std::uint64_t file_type_index_, typename ReadOutput_Type>
class FileHandler_KovraData {
 public:
  static constexpr std::uint64_t file_version_index = 0;
  static constexpr std::uint64_t file_type_index = file_type_index_;

  virtual ~FileHandler_KovraData() = default;

  /// One framed block: header (identifier, size) and content whose size is fixed before anything is written.
  class IO_Block {
   public:
    explicit IO_Block(std::uint64_t size_content_) : size_content(size_content_) {}
    virtual ~IO_Block() = default;

    virtual std::uint64_t get_identifier() const = 0;

    virtual void write_header(std::ostream& stream) const {
      detail::write_u64(stream, get_identifier());
      detail::write_u64(stream, size_content);
    }

    virtual void write_content(std::ostream& stream) const = 0;

    /// Writes header and content; a content that is not exactly `size_content` bytes is a programming fault.
    void write(std::ostream& stream) const {
      write_header(stream);
      const auto begin_content = static_cast<std::uint64_t>(static_cast<std::streamoff>(stream.tellp()));
      write_content(stream);
      const auto end_content = static_cast<std::uint64_t>(static_cast<std::streamoff>(stream.tellp()));
      assert(end_content - begin_content == size_content);
    }

    /// Reads a block header and checks that its content fits before `end`; returns (identifier, size) and
    /// leaves the stream at the start of the content. The fit is tested as signed 64-bit positions, so a size
    /// of 2^63 or more reads as negative and passes here; the caller's next check then decides.
    static std::pair<std::uint64_t, std::uint64_t> read_header(std::istream& stream, std::streampos end) {
      const std::uint64_t identifier = detail::read_u64(stream);
      const std::uint64_t size = detail::read_u64(stream);
      const auto position = static_cast<std::int64_t>(static_cast<std::streamoff>(stream.tellg()));
      const auto last = static_cast<std::int64_t>(static_cast<std::uint64_t>(position) + size);
      const auto fileEnd = static_cast<std::int64_t>(static_cast<std::streamoff>(end));
      if (fileEnd < last) {
        throw std::invalid_argument("Block size is indicated as " + std::to_string(size) + " but only " +
                                    std::to_string(fileEnd - position) + " bytes are left in the file!");
      }
      return {identifier, size};
    }

    const std::uint64_t size_content;
  };

  /// A block whose content is a sequence of sub-blocks, which it owns and writes in order.
  class IO_Block_Combined : public IO_Block {
   public:
    explicit IO_Block_Combined(std::vector<std::unique_ptr<IO_Block>> blocks_)
        : IO_Block(total_size(blocks_)), blocks(std::move(blocks_)) {}

    void write_content(std::ostream& stream) const override {
      for (const auto& block : blocks) block->write(stream);
    }

    const std::vector<std::unique_ptr<IO_Block>> blocks;

   private:
    static std::uint64_t total_size(const std::vector<std::unique_ptr<IO_Block>>& blocks) {
      std::uint64_t size = 0;
      for (const auto& block : blocks) size += 16 + block->size_content;
      return size;
    }
  };

  /// The outermost block of every file.
  class IO_File : public IO_Block_Combined {
   public:
    static constexpr std::uint64_t identifier = detail::make_identifier("KOVRA");
    using IO_Block_Combined::IO_Block_Combined;
    std::uint64_t get_identifier() const override { return identifier; }
  };

  /// Format version and file type; always the first block inside the file block.
  class IO_BuildInfo : public IO_Block {
   public:
    static constexpr std::uint64_t identifier = detail::make_identifier("build");
    IO_BuildInfo() : IO_Block(16) {}
    std::uint64_t get_identifier() const override { return identifier; }
    void write_content(std::ostream& stream) const override {
      detail::write_u64(stream, file_version_index);
      detail::write_u64(stream, file_type_index);
    }
  };

  /// A block of raw fixed-width records. Refers to the list without owning it: the list must outlive the
  /// block and keep its size until the block is written.
  template <detail::RawRecord Record_Type, std::uint64_t identifier_>
  class IO_Records : public IO_Block {
   public:
    static constexpr std::uint64_t identifier = identifier_;
    explicit IO_Records(const std::vector<Record_Type>& records_)
        : IO_Block(sizeof(Record_Type) * records_.size()), records(records_) {}
    std::uint64_t get_identifier() const override { return identifier; }
    void write_content(std::ostream& stream) const override { detail::write_records(stream, records); }

   private:
    const std::vector<Record_Type>& records;
  };

  /// Reads a whole file of this handler's type. Every failure throws std::invalid_argument; nothing partial is
  /// returned.
  ReadOutput_Type load_file(const std::string& file_name) const {
    Opened_File opened = open_file(file_name);
    return read_implementationSpecific(opened.stream, opened.end);
  }

  /// A file whose header and build block have been checked, with the stream at the first content block.
  struct Opened_File {
    std::ifstream stream;
    std::streampos end;
  };

  /// Opens a file of this handler's type and checks its header and build block.
  static Opened_File open_file(const std::string& file_name) {
    Opened_File opened{std::ifstream(file_name, std::ios::binary), {}};
    std::ifstream& stream = opened.stream;
    if (!stream.is_open()) throw std::invalid_argument("file \"" + file_name + "\" could not be opened!");
    stream.seekg(0, std::ios::end);
    const std::streampos end = stream.tellg();
    opened.end = end;
    stream.seekg(0, std::ios::beg);

    const auto [file_id, file_size] = IO_Block::read_header(stream, end);
    if (file_id != IO_File::identifier) throw std::invalid_argument("Not a valid KOVRA file!");
    if (static_cast<std::uint64_t>(static_cast<std::streamoff>(stream.tellg())) + file_size !=
        static_cast<std::uint64_t>(static_cast<std::streamoff>(end))) {
      throw std::invalid_argument("File size mismatch!");
    }

    const auto [build_id, build_size] = IO_Block::read_header(stream, end);
    if (build_id != IO_BuildInfo::identifier) throw std::invalid_argument("File is missing build information!");
    if (build_size != 16) throw std::invalid_argument("Build info size missmatch! File corrupted?");
    const std::uint64_t version = detail::read_u64(stream);
    const std::uint64_t type = detail::read_u64(stream);
    if (version != file_version_index) throw std::invalid_argument("File has wrong version!");
    if (type != file_type_index) throw std::invalid_argument("File has wrong type!");
    return opened;
  }

  /// Walks the content blocks behind the build block up to `end`.
  virtual ReadOutput_Type read_implementationSpecific(std::istream& stream, std::streampos end) const = 0;

  /// Writes a file: the build block, then the content blocks in their order, in one forward pass, into a
  /// temporary file that replaces `file_name` only once it is complete. Like every writer of this format it does
  /// not check that the file opened; a stream that failed stops on the size assertion.
  static void write_file(const std::string& file_name, std::vector<std::unique_ptr<IO_Block>> content_blocks) {
    std::vector<std::unique_ptr<IO_Block>> blocks;
    blocks.reserve(content_blocks.size() + 1);
    blocks.push_back(std::make_unique<IO_BuildInfo>());
    for (auto& block : content_blocks) blocks.push_back(std::move(block));
    const IO_File file(std::move(blocks));

    OutputFile_Atomic output(file_name);
    file.write(output.stream());
    output.commit();
  }

 protected:
  static constexpr std::uint64_t extTrigs_identifier = detail::make_identifier("extTrigs");

  /// Block walk shared by the file types: blocks in any order, an unknown identifier or a partial record
  /// rejected, a later block of a kind replacing an earlier one. Only the headers are read; each content is
  /// stepped over and its place kept. A list too long for any vector fails as reserving room for it would.
  template <typename Record_Type, typename Time_Type>
  static File_Layout read_layout(std::istream& stream, std::streampos end, std::uint64_t records_identifier,
                                 const char* partial_records_message, const char* missing_records_message) {
    std::optional<Block_Location> records;
    std::optional<Block_Location> extTriggers;
    const auto step_over = [&stream](std::optional<Block_Location>& where, std::uint64_t size, std::uint64_t width,
                                     std::size_t max_count) {
      if (size / width > max_count) throw std::length_error("vector::reserve");
      where = Block_Location{static_cast<std::uint64_t>(static_cast<std::streamoff>(stream.tellg())), size / width};
      stream.seekg(static_cast<std::streamoff>(size), std::ios::cur);
    };
    while (stream.tellg() != end) {
      const auto [identifier, size] = IO_Block::read_header(stream, end);
      if (identifier == extTrigs_identifier) {
        if (size % sizeof(Time_Type) != 0) {
          throw std::invalid_argument("File contains partial external triggers!");
        }
        step_over(extTriggers, size, sizeof(Time_Type), std::vector<Time_Type>().max_size());
        continue;
      }
      if (identifier != records_identifier) throw std::invalid_argument("Block identifier not recognized!");
      if (size % sizeof(Record_Type) != 0) throw std::invalid_argument(partial_records_message);
      step_over(records, size, sizeof(Record_Type), std::vector<Record_Type>().max_size());
    }
    if (!records) throw std::invalid_argument(missing_records_message);
    return File_Layout{*records, extTriggers};
  }

  /// The lists of a file as its layout gives them, read in full.
  template <typename Record_Type, typename Time_Type>
  static std::pair<std::vector<Record_Type>, std::optional<std::vector<Time_Type>>> read_lists(
      std::istream& stream, const File_Layout& layout) {
    std::vector<Record_Type> records;
    RecordCursor<Record_Type>(stream, layout.records).read_all(records);
    std::optional<std::vector<Time_Type>> extTriggers;
    if (layout.extTriggers) RecordCursor<Time_Type>(stream, *layout.extTriggers).read_all(extTriggers.emplace());
    return {std::move(records), std::move(extTriggers)};
  }

  /// Writes a file of one list block and, only when the trigger list is present (even empty), a trigger block.
  template <typename Records_Block, typename Record_Type, typename Time_Type>
  static void save_content(const std::string& file_name, const std::vector<Record_Type>& records,
                           const std::optional<std::vector<Time_Type>>& extTriggers) {
    std::vector<std::unique_ptr<IO_Block>> blocks;
    blocks.push_back(std::make_unique<Records_Block>(records));
    if (extTriggers) blocks.push_back(std::make_unique<IO_Records<Time_Type, extTrigs_identifier>>(*extTriggers));
    write_file(file_name, std::move(blocks));
  }
};

}  // namespace kovra
