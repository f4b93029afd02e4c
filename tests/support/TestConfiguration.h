#pragma once

// Helpers for tests of code that reads configuration properties.

#include <cstdlib>
#include <memory>
#include <string>

namespace XRV::testing {

struct FreeText {
  void operator()(char* text) const { free(text); }
};
// Owns a malloc'd text returned by the code under test.
using OwnedText = std::unique_ptr<char, FreeText>;

// The text, or "<null>" for null; frees it.
std::string takeText(char* owned);

// A configuration file in /tmp named by XRV_CONFIG_FILE while the object lives.
// Destruction unsets XRV_CONFIG_FILE, forgets every loaded and run-time value
// (resetConfigurationForTesting) and removes the file.
class ConfigurationFile {
 public:
  ConfigurationFile();
  ~ConfigurationFile();
  ConfigurationFile(const ConfigurationFile&) = delete;
  ConfigurationFile& operator=(const ConfigurationFile&) = delete;

  // Writes `text` to the file and loads it (loadAgentConfig). False, with the
  // reader's message in *error, when the reader refuses it.
  bool load(const std::string& text, std::string* error = nullptr);
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace XRV::testing
