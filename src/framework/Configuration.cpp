#include "framework/Configuration.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "framework/ConfigFile.h"
#include "framework/Mutex.h"
#include "framework/ReadFile.h"
#include "framework/Settings.h"
#include "framework/Trace.h"

namespace {

struct ConfigurationStore {
  XRV::SharedMutex mutex;
  XRV::ConfigFile file XRV_GUARDED_BY(mutex);
  std::map<std::string, std::string, std::less<>> runtime XRV_GUARDED_BY(mutex);
};

ConfigurationStore& store() {
  static ConfigurationStore* const s = new ConfigurationStore;
  return *s;
}

char* copyOf(const std::string& text) { return strdup(text.c_str()); }

char* agentLookupLocked(ConfigurationStore& s, const char* name) XRV_REQUIRES_SHARED(s.mutex) {
  auto runtime = s.runtime.find(name);
  if (runtime != s.runtime.end()) {
    return copyOf(runtime->second);
  }
  if (const char* value = getenv(name)) {
    return strdup(value);
  }
  if (const std::string* value = s.file.agent().find(name)) {
    return copyOf(*value);
  }
  return nullptr;
}

}  // namespace

bool loadAgentConfig(std::string* error) {
  XRV_TRACE_FN();
  const XRV::SettingRead file = XRV::readSetting(XRV::Setting::ConfigFile, XRV_SETTING_HERE());
  if (!file.set) {
    return true;
  }
  const char* path = file.text.c_str();
  std::string problem;
  std::string text;
  XRV::ConfigFile parsed;
  if (!readWholeFile(path, maxReadFileBytes(), &text, &problem)) {
    problem = "cannot read the configuration file: " + problem;
  } else {
    parsed.parse(text, path, &problem);
  }
  if (!problem.empty()) {
    XRV_TRACE_ERROR("%s", problem.c_str());
    if (error != nullptr) {
      *error = problem;
    }
    return false;
  }
  XRV_TRACE_DETAIL("Read configuration file %s: %zu subnode sections", path,
                   parsed.subnodes().size());
  ConfigurationStore& s = store();
  XRV::WriterLock lock(s.mutex);
  s.file = std::move(parsed);
  return true;
}

char* getConfigurationProperty(const char* name) {
  XRV_TRACE_FN();
  if (name == nullptr) {
    return nullptr;
  }
  ConfigurationStore& s = store();
  XRV::ReaderLock lock(s.mutex);
  return agentLookupLocked(s, name);
}

void setConfigurationProperty(const char* name, const char* value) {
  XRV_TRACE_FN();
  if (name == nullptr) {
    return;
  }
  ConfigurationStore& s = store();
  XRV::WriterLock lock(s.mutex);
  if (value == nullptr) {
    auto entry = s.runtime.find(name);
    if (entry != s.runtime.end()) {
      s.runtime.erase(entry);
    }
  } else {
    s.runtime[name] = value;
  }
}

char* getSubnodeConfigurationProperty(const char* name, const char* subnodeType,
                                      const char* subnodeKey) {
  XRV_TRACE_FN();
  if (name == nullptr) {
    return nullptr;
  }
  ConfigurationStore& s = store();
  XRV::ReaderLock lock(s.mutex);
  if (subnodeType != nullptr && subnodeKey != nullptr) {
    if (const XRV::ConfigSection* section = s.file.findSubnode(subnodeType, subnodeKey)) {
      if (const std::string* value = section->find(name)) {
        return copyOf(*value);
      }
    }
  }
  return agentLookupLocked(s, name);
}

char* fwGetEnv(const char* name, const char* defaultValue) {
  XRV_TRACE_FN();
  char* value = getConfigurationProperty(name);
  if (value == nullptr && defaultValue != nullptr) {
    value = strdup(defaultValue);
  }
  return value;
}

bool getSubnodeSection(const char* subnodeType, const char* subnodeKey,
                       std::vector<std::pair<std::string, std::string>>* values) {
  XRV_TRACE_FN();
  if (subnodeType == nullptr || subnodeKey == nullptr) {
    return false;
  }
  ConfigurationStore& s = store();
  XRV::ReaderLock lock(s.mutex);
  const XRV::ConfigSection* section = s.file.findSubnode(subnodeType, subnodeKey);
  if (section == nullptr) {
    return false;
  }
  if (values != nullptr) {
    *values = section->values;
  }
  return true;
}

std::vector<XRV::SubnodeSectionName> listSubnodeSections() {
  XRV_TRACE_FN();
  ConfigurationStore& s = store();
  XRV::ReaderLock lock(s.mutex);
  std::vector<XRV::SubnodeSectionName> names;
  for (const XRV::ConfigSection& section : s.file.subnodes()) {
    names.push_back({section.type, section.key});
  }
  return names;
}

void resetConfigurationForTesting() {
  XRV_TRACE_FN();
  ConfigurationStore& s = store();
  XRV::WriterLock lock(s.mutex);
  s.file = XRV::ConfigFile();
  s.runtime.clear();
}
