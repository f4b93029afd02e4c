#pragma once

// Device-list files of the ping data source: one host per line, the first word of the
// line (the rest is a description), `#` starting a comment, blank lines skipped.
//
// PingDeviceLists keeps the hosts of every file it read and reads a file again only
// when it changed (another file in its place, another size, modification or change
// time), so that an edited list is picked up at the next collection at the cost of
// one stat per file otherwise. Not thread-safe: one provider's collections use it.

#include <sys/stat.h>

#include <map>
#include <string>
#include <vector>

namespace XRV::ping {

// The hosts of a list file's text, in order.
std::vector<std::string> parseDeviceList(const std::string& text);
// True when `pattern` has a wildcard (`*`, `?` or `[`) and names many files.
bool isFilePattern(const std::string& pattern);
// The files `pattern` matches, sorted; none when it matches nothing.
std::vector<std::string> expandFilePattern(const std::string& pattern);

class PingDeviceLists {
 public:
  // The hosts of the file `path`; null when it does not exist or cannot be read.
  // The pointer stays valid until the next call for the same path.
  const std::vector<std::string>* hosts(const std::string& path);
  // Files actually read (not served from what was kept), for tests.
  int readCount() const { return reads_; }
  // Forgets files not asked for since the last call (lists that left the definition).
  void forgetUnused();

 private:
  struct Kept {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};
    std::vector<std::string> hosts;
    bool used = false;
  };
  std::map<std::string, Kept> files_;
  int reads_ = 0;
};

}  // namespace XRV::ping
