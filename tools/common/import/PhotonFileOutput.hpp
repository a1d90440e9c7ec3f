#pragma once

// A photon file written as a stream through the library's container writer: photons are appended to an open
// "photons" block as they come, trigger times wait in an anonymous scratch file (so memory stays bounded
// however many there are) and become the "extTrigs" block at the end. The file appears whole at `commit`, or
// not at all: an existing file at the target stays as it was when the run fails. With a charge file, the
// photons' charges go beside it (ChargeSidecar.hpp), committed just before it.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/PhotonFlashes.hpp"
#include "common/import/ChargeSidecar.hpp"
#include "kovra/ContainerFile_Writer.hpp"
#include "kovra/detail/RecordIO.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::import {

/// One photon file being written. Throws Output_Failure when it cannot be written (at the latest at `commit`,
/// as soon as a write fails before).
class PhotonFile_Output {
 public:
  using Photon = kovra::tpx3spidr::PhotonEvent;

  /// `chargePath`: where the photons' charges go; none when empty.
  PhotonFile_Output(const std::string& target_, bool withTriggers_, const std::string& chargePath = "")
      : target(target_), writer((check_writable(target_), target_)), withTriggers(withTriggers_) {
    if (!chargePath.empty()) charges.emplace(chargePath);
    if (withTriggers) {
      triggers.reset(std::tmpfile());
      if (!triggers) throw_systemError("cannot create a scratch file for the trigger times");
    }
    writer.begin_block(kovra::detail::make_identifier("photons"));
  }

  void add_photons(const Photon* photons, std::size_t count) {
    writer.append(std::span<const Photon>(photons, count));
    if (charges) fingerprint.add(std::span<const Photon>(photons, count));
    if (!writer.good()) throw_writeError();
  }

  void add_charges(const Photon_Charge* photonCharges, std::size_t count) {
    if (charges) charges->add(std::span<const Photon_Charge>(photonCharges, count));
  }

  void add_trigger(long time) {
    if (withTriggers && std::fwrite(&time, sizeof time, 1, triggers.get()) != 1) {
      throw_systemError("cannot keep the trigger times in a scratch file");
    }
  }

  /// Ends the photons, writes the triggers and moves the file into place.
  void commit() {
    end_checkedBlock();
    if (withTriggers) {
      writer.begin_block(kovra::detail::make_identifier("extTrigs"));
      if (std::fflush(triggers.get()) != 0 || std::fseek(triggers.get(), 0, SEEK_SET) != 0) {
        throw_systemError("cannot read back the trigger times");
      }
      std::vector<char> copy(std::size_t{1} << 16);
      for (std::size_t n = 0; (n = std::fread(copy.data(), 1, copy.size(), triggers.get())) > 0;) {
        writer.append_bytes(copy.data(), n);
      }
      if (std::ferror(triggers.get()) != 0) throw_systemError("cannot read back the trigger times");
      end_checkedBlock();
    }
    if (charges) charges->commit(fingerprint.value());
    try {
      writer.commit();
    } catch (const std::runtime_error& e) {
      throw Output_Failure(e.what());
    }
  }

 private:
  /// The container writer stops on an assertion when its file cannot be written; say so plainly first.
  static void check_writable(const std::string& target) {
    struct stat status {};
    const auto parent = std::filesystem::path(target).parent_path();
    const std::string directory = parent.empty() ? "." : parent.string();
    if (::stat(target.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
      throw Output_Failure("cannot write \"" + target + "\": not a regular file");
    }
    errno = 0;
    if ((::stat(target.c_str(), &status) == 0 && ::access(target.c_str(), W_OK) != 0) ||
        ::access(directory.c_str(), W_OK) != 0) {
      throw Output_Failure("cannot write \"" + target + "\": " + std::strerror(errno != 0 ? errno : EACCES));
    }
  }

  /// Ends the open block once every byte of it reached the file (a full disk or a file-size limit fails a write).
  void end_checkedBlock() {
    writer.flush();
    if (!writer.good()) throw_writeError();
    writer.end_block();
  }

  [[noreturn]] void throw_writeError() const {
    const int error = writer.get_error();
    throw Output_Failure("cannot write \"" + target + "\": " + std::strerror(error != 0 ? error : EIO));
  }
  [[noreturn]] static void throw_systemError(const std::string& what) {
    throw Output_Failure(what + ": " + std::strerror(errno != 0 ? errno : EIO));
  }

  struct Close_File {
    void operator()(std::FILE* f) const { std::fclose(f); }
  };

  std::string target;
  kovra::ContainerFile_Writer<2> writer;
  const bool withTriggers;
  std::optional<Charge_Writer> charges;
  kovra::tools::Photon_Fingerprint fingerprint;  ///< of the photons written, for the charge file
  std::unique_ptr<std::FILE, Close_File> triggers;
};

}  // namespace kovra::import
