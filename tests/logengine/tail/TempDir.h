#pragma once
// A directory under /tmp made for one test and removed with everything in it.

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace xrvlog::test {

class TempDir {
 public:
  explicit TempDir(const std::string& prefix) : path_(make("/tmp/" + prefix + "-XXXXXX")) {}
  ~TempDir() { std::filesystem::remove_all(path_, ignored_); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  static std::string make(std::string pattern) {
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    return pattern;
  }
  std::filesystem::path path_;
  std::error_code ignored_;
};

}  // namespace xrvlog::test
