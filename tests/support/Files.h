#pragma once

// Files and commands as tests use them: a file's content, a fresh temporary file, a
// command's standard output.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace XRV::testing {

// The whole content of `path`; empty when it cannot be read.
inline std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// A new empty file in the test's temporary directory, a file of its own for every
// call: ctest runs tests side by side.
inline std::string temporaryFile(const std::string& stem) {
  std::string path = ::testing::TempDir() + stem + "-XXXXXX";
  const int fd = mkstemp(path.data());
  if (fd >= 0) {
    close(fd);
  }
  return path;
}

// What `command` (run by the shell) printed on standard output; its wait status in
// *status when asked for.
inline std::string commandOutput(const std::string& command, int* status = nullptr) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  char buffer[4096];
  size_t got;
  while (pipe != nullptr && (got = fread(buffer, 1, sizeof buffer, pipe)) > 0) {
    output.append(buffer, got);
  }
  const int ended = pipe == nullptr ? -1 : pclose(pipe);
  if (status != nullptr) {
    *status = ended;
  }
  return output;
}

}  // namespace XRV::testing
