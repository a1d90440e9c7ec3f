#pragma once

// Builds container files byte by byte, independently of the library's writer, so that readers are not checked
// against themselves.

#include <cstdint>
#include <cstring>
#include <string>

class FileBytes {
 public:
  FileBytes& id(const char* name) {
    char bytes[8] = {};
    std::memcpy(bytes, name, std::strlen(name) < 8 ? std::strlen(name) : 8);
    data.append(bytes, 8);
    return *this;
  }
  FileBytes& u64(std::uint64_t v) { return little_endian(v, 8); }
  FileBytes& i64(std::int64_t v) { return little_endian(static_cast<std::uint64_t>(v), 8); }
  FileBytes& i32(std::int32_t v) { return little_endian(static_cast<std::uint32_t>(v), 4); }
  FileBytes& f64(double v) {
    std::uint64_t bits;
    std::memcpy(&bits, &v, 8);
    return little_endian(bits, 8);
  }
  FileBytes& raw(const std::string& bytes) {
    data += bytes;
    return *this;
  }
  /// A framed block: identifier, size of `content`, content.
  FileBytes& block(const char* name, const FileBytes& content) {
    return id(name).u64(content.data.size()).raw(content.data);
  }

  /// A whole file: "KOVRA" block around a build block (version, type) and `content`.
  static FileBytes file(std::uint64_t type, const FileBytes& content, std::uint64_t version = 0) {
    FileBytes inner;
    inner.block("build", FileBytes().u64(version).u64(type)).raw(content.data);
    return FileBytes().block("KOVRA", inner);
  }

  std::string data;

 private:
  FileBytes& little_endian(std::uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) data.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    return *this;
  }
};
