#pragma once

// Runs a built program the way a user would, from a shell in a test's directory, and captures what it said.

#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "TempDir.hpp"

/// How a run ended: the exit status (128 + the signal when one ended it) and both output streams.
struct Program_Outcome {
  int status;
  std::string out, err;
};

/// Runs `program arguments` in `dir` (the arguments are shell words, quoted by the caller where needed); the
/// streams are captured in dir's stdout.txt and stderr.txt.
inline Program_Outcome run_program(const TempDir& dir, const std::string& program, const std::string& arguments) {
  const std::string out = dir.file("stdout.txt"), err = dir.file("stderr.txt");
  const std::string command =
      "cd '" + dir.path().string() + "' && '" + program + "' " + arguments + " >'" + out + "' 2>'" + err + "'";
  const int raw = std::system(command.c_str());
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), read_bytes(out), read_bytes(err)};
}
