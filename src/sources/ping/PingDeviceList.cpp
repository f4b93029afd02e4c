#include "sources/ping/PingDeviceList.h"

#include <glob.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include "framework/Trace.h"

namespace XRV::ping {
namespace {

bool sameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

std::vector<std::string> parseDeviceList(const std::string& text) {
  std::vector<std::string> hosts;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    const size_t comment = line.find('#');
    if (comment != std::string::npos) {
      line.resize(comment);
    }
    const size_t begin = line.find_first_not_of(" \t\r");
    if (begin == std::string::npos) {
      continue;
    }
    const size_t end = line.find_first_of(" \t\r", begin);
    hosts.push_back(line.substr(begin, end == std::string::npos ? end : end - begin));
  }
  return hosts;
}

bool isFilePattern(const std::string& pattern) {
  return pattern.find_first_of("*?[") != std::string::npos;
}

std::vector<std::string> expandFilePattern(const std::string& pattern) {
  std::vector<std::string> files;
  glob_t found{};
  if (glob(pattern.c_str(), GLOB_NOSORT, nullptr, &found) == 0) {
    for (size_t i = 0; i < found.gl_pathc; ++i) {
      files.emplace_back(found.gl_pathv[i]);
    }
  }
  globfree(&found);
  std::sort(files.begin(), files.end());
  return files;
}

const std::vector<std::string>* PingDeviceLists::hosts(const std::string& path) {
  XRV_TRACE_FN();
  struct stat status;
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    files_.erase(path);
    return nullptr;
  }
  auto kept = files_.find(path);
  if (kept != files_.end() && kept->second.device == status.st_dev &&
      kept->second.inode == status.st_ino && kept->second.size == status.st_size &&
      sameTime(kept->second.modified, status.st_mtim) &&
      sameTime(kept->second.changed, status.st_ctim)) {
    kept->second.used = true;
    return &kept->second.hosts;
  }
  std::ifstream in(path);
  if (!in) {
    files_.erase(path);
    return nullptr;
  }
  std::stringstream text;
  text << in.rdbuf();
  ++reads_;
  Kept& file = files_[path];
  file.device = status.st_dev;
  file.inode = status.st_ino;
  file.size = status.st_size;
  file.modified = status.st_mtim;
  file.changed = status.st_ctim;
  file.hosts = parseDeviceList(text.str());
  file.used = true;
  XRV_TRACE_DETAIL("Read %d hosts from the device list %s", static_cast<int>(file.hosts.size()),
                   path.c_str());
  return &file.hosts;
}

void PingDeviceLists::forgetUnused() {
  for (auto file = files_.begin(); file != files_.end();) {
    if (!file->second.used) {
      file = files_.erase(file);
    } else {
      file->second.used = false;
      ++file;
    }
  }
}

}  // namespace XRV::ping
