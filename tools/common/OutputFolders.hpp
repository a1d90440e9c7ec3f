#pragma once

// The folders of an output, made the way kovra_brantel makes those of its event file: every companion tool makes
// the folders of its output paths that do not exist yet, once its command line has been checked and before it
// starts the work, so a run that fails later may leave them behind (empty). Each tool says in its own words which
// output it cannot write; the reason comes from here.

#include <filesystem>
#include <string>
#include <system_error>

namespace kovra::tools {

/// Makes `folder` and every folder above it that is missing (nothing for an empty path). Returns the system's
/// reason when one cannot be made, such as a file in the way (ENOTDIR) or no permission; an empty code otherwise.
[[nodiscard]] inline std::error_code create_folders(const std::filesystem::path& folder) {
  std::error_code error;
  if (!folder.empty()) std::filesystem::create_directories(folder, error);
  return error;
}

/// The same for the folder that the output file `path` goes into (none for a bare file name).
[[nodiscard]] inline std::error_code create_outputFolders(const std::string& path) {
  return create_folders(std::filesystem::path(path).parent_path());
}

}  // namespace kovra::tools
