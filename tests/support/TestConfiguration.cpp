#include "support/TestConfiguration.h"

#include <unistd.h>

#include <fstream>
#include <stdexcept>

#include "framework/Configuration.h"

namespace XRV::testing {

std::string takeText(char* owned) {
  OwnedText text(owned);
  return text == nullptr ? "<null>" : std::string(text.get());
}

ConfigurationFile::ConfigurationFile() {
  char name[] = "/tmp/xrv-config-XXXXXX";
  int fd = mkstemp(name);
  if (fd < 0) {
    throw std::runtime_error("cannot create a temporary configuration file");
  }
  close(fd);
  path_ = name;
  setenv("XRV_CONFIG_FILE", path_.c_str(), 1);
}

ConfigurationFile::~ConfigurationFile() {
  unsetenv("XRV_CONFIG_FILE");
  resetConfigurationForTesting();
  unlink(path_.c_str());
}

bool ConfigurationFile::load(const std::string& text, std::string* error) {
  std::ofstream(path_, std::ios::trunc) << text;
  return loadAgentConfig(error);
}

}  // namespace XRV::testing
