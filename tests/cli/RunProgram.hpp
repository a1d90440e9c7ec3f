#pragma once

// Runs a program as a user would: in a given working directory, with its standard output and standard error
// captured separately, and reports how it ended.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

struct RunResult {
  bool exited = false;  ///< ended through exit(); then `status` holds the status
  int status = -1;
  int signal = 0;  ///< the signal that ended it otherwise
  std::string out;
  std::string err;
};

/// Runs `program` with `args` in `workDir`; the captured streams pass through files in `captureDir`. The
/// environment is inherited, with TZ replaced by `tz` and POSIXLY_CORRECT removed.
inline RunResult run_program(const std::string& program, const std::vector<std::string>& args,
                             const std::string& workDir, const std::string& captureDir, const std::string& tz) {
  std::vector<std::string> argStrings{program};
  argStrings.insert(argStrings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& arg : argStrings) argv.push_back(arg.data());
  argv.push_back(nullptr);

  std::vector<std::string> envStrings{"TZ=" + tz};
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    if (entry.rfind("TZ=", 0) != 0 && entry.rfind("POSIXLY_CORRECT=", 0) != 0) envStrings.push_back(entry);
  }
  std::vector<char*> envp;
  for (auto& entry : envStrings) envp.push_back(entry.data());
  envp.push_back(nullptr);

  const std::string outFile = captureDir + "/stdout", errFile = captureDir + "/stderr";
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    const int out = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || err < 0 || chdir(workDir.c_str()) != 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(125);
    execve(program.c_str(), argv.data(), envp.data());
    _exit(126);
  }
  int wstatus = 0;
  if (waitpid(pid, &wstatus, 0) != pid) throw std::runtime_error("waitpid failed");

  const auto slurp = [](const std::string& name) {
    std::ostringstream text;
    text << std::ifstream(name, std::ios::binary).rdbuf();
    return text.str();
  };
  RunResult result;
  result.exited = WIFEXITED(wstatus);
  if (result.exited) result.status = WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) result.signal = WTERMSIG(wstatus);
  result.out = slurp(outFile);
  result.err = slurp(errFile);
  return result;
}
