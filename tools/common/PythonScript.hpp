#pragma once

// Running a Python script installed beside the program (the plotting scripts of the tools): with the interpreter
// named by KOVRA_PYTHON, else Debian's /usr/bin/python3, which has matplotlib from python3-matplotlib.

#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace kovra::tools {

/// Runs `script` (a file name beside this program) with `arguments` and waits for it; throws std::runtime_error
/// when the interpreter cannot be started or the script does not end with status 0.
inline void run_pythonScript(const std::string& script, const std::vector<std::string>& arguments) {
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  const std::string path = (self.parent_path() / script).string();
  const char* python = std::getenv("KOVRA_PYTHON");
  const std::string interpreter = python && *python ? python : "/usr/bin/python3";
  std::vector<std::string> args = {interpreter, path};
  args.insert(args.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawn(&pid, interpreter.c_str(), nullptr, nullptr, argv.data(), environ) != 0) {
    throw std::runtime_error("cannot run '" + interpreter + "' for the plots");
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error("the plotting script '" + path + "' failed");
  }
}

}  // namespace kovra::tools
