#pragma once
// A directory under /tmp made for one test and removed with everything in it.

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace xrvlog::test {

class TempDir {
public:
  explicit TempDir(const std::string& prefix) {
    std::string pattern = "/tmp/" + prefix + "-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }

private:
  std::filesystem::path path_;
};

} // namespace xrvlog::test
