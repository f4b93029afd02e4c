#pragma once
// SourceScanner: which files a REGEX or REGEXSTRICT source names right now.
//
// REGEX: the pattern is cut at '/' (one inside [...] or after a backslash does not cut)
// and each component is matched on its own against the names in the directory reached
// so far. A component holding one of ^ $ * ? + [ ] ( ) { } | \ is an expression,
// searched in each name (anchor it with ^ and $ to match the whole name); any other
// component, dots included, is a literal name. "/var/log/^app[0-9]+$/^.*\.log$" lists
// /var/log, keeps the directories whose names match ^app[0-9]+$, and in each keeps the
// regular files matching ^.*\.log$. A pattern without '/' at its start is relative to
// the process's working directory, and so are the paths found.
//
// REGEXSTRICT: the whole path is one expression that must match the whole path. The
// walk starts in the directory named by the expression's literal beginning: the text
// before its first expression character (a leading ^ skipped, \. read as '.', a
// character followed by a quantifier left out), up to its last '/'. An expression that
// begins with an expression character, or that has a top-level '|', starts at '/'.
// From there at most kStrictDepth directory levels are walked, and only into
// directories whose path followed by '/' can still begin a match.
//
// Bounds, so that a wide pattern or a huge directory costs a known amount: of each
// directory listed, the first entriesPerDirectory entries (in the file system's order)
// are considered; at most `matches` files are found (the first in path order of the
// names considered), and at most that many directories are carried from one REGEX
// component to the next. limited() says when the last scan hit a bound.
//
// Only regular files are found (a symbolic link counts as what it points to). With a
// compare mode other than AllMatches, one of them is chosen:
//   LastUpdate:   the newest modification time;
//   Size:         the largest;
//   CreationTime: the newest birth time, where the file system records one (statx
//                 STATX_BTIME: ext4, xfs, btrfs, tmpfs on recent kernels); elsewhere
//                 the inode change time, which a write or chmod moves too.
// Equal values are decided by the smaller path, so the choice does not flicker. A
// SourceNaming::Path source scans to its one path, whether or not it exists now: the
// follower waits for a missing file itself.
//
// Not thread-safe: one scanner belongs to one thread.

#include "mdl/MdlDocument.h"

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

struct pcre2_real_code_8;
struct pcre2_real_match_data_8;

namespace xrvlog {

struct ScanCandidate;  // a file found, with what the compare modes look at

// A pattern that does not compile. offset() is the byte offset in the source's
// pattern text where compiling stopped.
class SourcePatternError : public std::runtime_error {
 public:
  SourcePatternError(const std::string& message, std::size_t offset)
      : std::runtime_error(message), offset_(offset) {}
  std::size_t offset() const { return offset_; }

 private:
  std::size_t offset_;
};

struct ScanLimits {
  std::size_t entriesPerDirectory = 4096;
  std::size_t matches = 1024;
  int strictDepth = 8;  // REGEXSTRICT: directory levels below the start directory
};

class SourceScanner {
 public:
  // Throws SourcePatternError when an expression does not compile.
  SourceScanner(SourceNaming naming, std::string pattern, CompareMode compare,
                ScanLimits limits = {});

  // The files to follow now: every match, sorted, for AllMatches; otherwise the one
  // chosen, or nothing.
  std::vector<std::string> scan();
  // The last scan skipped entries or matches because of a bound.
  bool limited() const { return limited_; }
  // REGEXSTRICT: the directory the walk starts in ("" is the working directory).
  const std::string& startDirectory() const { return start_; }

 private:
  struct Code;
  struct Component {
    std::string literal;         // a literal name, or the expression's text
    std::shared_ptr<Code> code;  // null for a literal
  };
  struct Entry {
    std::string name;
    unsigned char type;  // d_type: DT_UNKNOWN where the file system does not say
  };

  void compileComponents();
  // The entries of directory (sorted by name) that code finds, or all of them.
  std::vector<Entry> list(const std::string& directory, const Code* code);
  void walkStrict(const std::string& directory, int depth, std::vector<ScanCandidate>& found);
  bool matches(const Code& code, const std::string& subject, bool partial);
  std::vector<std::string> choose(std::vector<ScanCandidate> found) const;

  SourceNaming naming_;
  std::string pattern_;
  CompareMode compare_;
  ScanLimits limits_;
  std::vector<Component> components_;  // REGEX
  std::shared_ptr<Code> strict_;       // REGEXSTRICT
  std::string root_;                   // REGEX: "/" or "" (relative)
  std::string start_;                  // REGEXSTRICT
  std::unique_ptr<pcre2_real_match_data_8, void (*)(pcre2_real_match_data_8*)> data_;
  bool limited_ = false;
};

}  // namespace xrvlog
