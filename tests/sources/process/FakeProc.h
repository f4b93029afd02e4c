#pragma once

// A /proc tree of a test's own: uptime and one directory per process with the files
// the kernel gives (stat, statm, status, io, cmdline, fd/), written in the kernel's
// formats from a few values per process.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "support/TempDirectory.h"

namespace XRV::testing {

struct FakeProcess {
  int pid = 100;
  std::string name = "proc";  // the command name, as stat and status show it
  char state = 'S';
  int ppid = 1;
  unsigned long flags = 0x400000;
  unsigned long userTime = 0;    // ticks
  unsigned long systemTime = 0;  // ticks
  long nice = 0;
  long threads = 1;
  unsigned long startTime = 0;  // ticks after boot
  unsigned long residentPages = 100;
  unsigned long virtualKb = 10000;
  int uid = 0;
  int gid = 0;
  bool kernelThread = false;   // no Vm lines in status, empty cmdline
  std::string cmdline{};       // arguments separated by '\0'; "" for none
  unsigned long long readChars = 0;
  unsigned long long writtenChars = 0;
  unsigned long long readBytes = 0;
  unsigned long long writtenBytes = 0;
  int descriptors = 3;  // entries of fd/
};

class FakeProc {
 public:
  explicit FakeProc(double uptime = 10000.25) : dir_("/tmp/xrv-proc-") {
    chmod(dir_.path().c_str(), 0755);
    setUptime(uptime);
  }

  const std::string& root() const { return dir_.path(); }
  std::string path(const std::string& relative) const { return dir_.file(relative); }

  void setUptime(double seconds) {
    char text[64];
    snprintf(text, sizeof text, "%.2f %.2f\n", seconds, seconds * 1.5);
    write("uptime", text);
  }

  // Writes `text` as the file `relative` (made with its directories).
  void write(const std::string& relative, const std::string& text) const {
    const std::filesystem::path file = dir_.file(relative);
    std::filesystem::create_directories(file.parent_path());
    FILE* out = fopen(file.c_str(), "w");
    if (out != nullptr) {
      fwrite(text.data(), 1, text.size(), out);
      fclose(out);
    }
  }

  // The process's directory with every file, replacing an earlier one.
  void add(const FakeProcess& p) const {
    const std::string dir = std::to_string(p.pid);
    std::filesystem::remove_all(dir_.file(dir));
    write(dir + "/stat", statLine(p));
    write(dir + "/statm", std::to_string(p.virtualKb / 4) + " " + std::to_string(p.residentPages) +
                              " 50 10 0 80 0\n");
    write(dir + "/status", status(p));
    write(dir + "/io", io(p));
    write(dir + "/cmdline", p.kernelThread ? "" : p.cmdline);
    std::filesystem::create_directories(dir_.file(dir + "/fd"));
    for (int fd = 0; fd < p.descriptors; ++fd) {
      write(dir + "/fd/" + std::to_string(fd), "");
    }
  }

  void remove(int pid) const { std::filesystem::remove_all(dir_.file(std::to_string(pid))); }

  // The stat line the kernel writes for `p` (52 fields).
  static std::string statLine(const FakeProcess& p) {
    char line[1024];
    snprintf(line, sizeof line,
             "%d (%s) %c %d %d %d 0 -1 %lu 500 0 3 0 %lu %lu 0 0 20 %ld %ld 0 %lu %lu %lu "
             "18446744073709551615 4194304 4238000 140736000000000 0 0 0 0 0 0 0 0 0 17 1 0 0 "
             "7 0 0 4300000 4310000 4320000 140736000100000 140736000200000 140736000300000 "
             "140736000400000 0\n",
             p.pid, p.name.c_str(), p.state, p.ppid, p.pid, p.pid, p.flags, p.userTime,
             p.systemTime, p.nice, p.threads, p.startTime, p.virtualKb * 1024, p.residentPages);
    return line;
  }

  static std::string status(const FakeProcess& p) {
    std::string text = "Name:\t" + p.name + "\nUmask:\t0022\nState:\t" + std::string(1, p.state) +
                       " (sleeping)\nTgid:\t" + std::to_string(p.pid) + "\nNgid:\t0\nPid:\t" +
                       std::to_string(p.pid) + "\nPPid:\t" + std::to_string(p.ppid) +
                       "\nTracerPid:\t0\n";
    const std::string uid = std::to_string(p.uid);
    const std::string gid = std::to_string(p.gid);
    text += "Uid:\t" + uid + "\t" + uid + "\t" + uid + "\t" + uid + "\n";
    text += "Gid:\t" + gid + "\t" + gid + "\t" + gid + "\t" + gid + "\n";
    text += "FDSize:\t64\nGroups:\t\n";
    if (!p.kernelThread) {
      const std::string rss = std::to_string(p.residentPages * 4);
      text += "VmPeak:\t" + std::to_string(p.virtualKb + 100) + " kB\nVmSize:\t" +
              std::to_string(p.virtualKb) + " kB\nVmLck:\t       0 kB\nVmPin:\t       0 kB\n" +
              "VmHWM:\t" + rss + " kB\nVmRSS:\t" + rss + " kB\nRssAnon:\t 100 kB\n" +
              "VmData:\t     300 kB\nVmStk:\t     132 kB\nVmExe:\t      40 kB\n" +
              "VmLib:\t    2000 kB\nVmPTE:\t      48 kB\nVmSwap:\t       0 kB\n";
    }
    text += "Threads:\t" + std::to_string(p.threads) + "\nSigQ:\t0/62811\n";
    text += "Cpus_allowed:\t3\nCpus_allowed_list:\t0-1\nvoluntary_ctxt_switches:\t10\n";
    return text;
  }

  static std::string io(const FakeProcess& p) {
    return "rchar: " + std::to_string(p.readChars) + "\nwchar: " + std::to_string(p.writtenChars) +
           "\nsyscr: 11\nsyscw: 12\nread_bytes: " + std::to_string(p.readBytes) +
           "\nwrite_bytes: " + std::to_string(p.writtenBytes) + "\ncancelled_write_bytes: 99\n";
  }

 private:
  TempDirectory dir_;
};

}  // namespace XRV::testing
