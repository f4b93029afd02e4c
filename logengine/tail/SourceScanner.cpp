#include "tail/SourceScanner.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <tuple>

namespace xrvlog {

struct SourceScanner::Code {
  explicit Code(pcre2_code* compiled) : code(compiled) {}
  ~Code() { pcre2_code_free(code); }
  Code(const Code&) = delete;
  Code& operator=(const Code&) = delete;
  pcre2_code* code;
};

struct ScanCandidate {
  std::string path;
  std::uint64_t size = 0;
  std::tuple<std::int64_t, std::uint32_t> modified{0, 0};
  std::tuple<std::int64_t, std::uint32_t> born{0, 0};  // birth time, else inode change time
};

namespace {

// Characters that make a REGEX component an expression. A dot alone does not: file
// names with dots are too common to read every one as a pattern.
constexpr std::string_view kExpressionChars = "^$*?+[](){}|\\";

struct Piece {
  std::string text;
  std::size_t offset;  // in the whole pattern
};

// Cuts a REGEX pattern at each '/' that is neither escaped nor inside [...].
std::vector<Piece> splitComponents(const std::string& pattern) {
  std::vector<Piece> pieces;
  std::size_t start = 0;
  bool inClass = false;
  for (std::size_t i = 0; i <= pattern.size(); ++i) {
    if (i == pattern.size() || (pattern[i] == '/' && !inClass)) {
      if (i > start) {
        pieces.push_back({pattern.substr(start, i - start), start});
      }
      start = i + 1;
    } else if (pattern[i] == '\\') {
      i += i + 1 < pattern.size() ? 1 : 0;
    } else if (pattern[i] == '[' && !inClass) {
      inClass = true;
      // A ']' first in the class (after an optional '^') is a literal.
      std::size_t next = i + 1;
      next += next < pattern.size() && pattern[next] == '^' ? 1 : 0;
      if (next < pattern.size() && pattern[next] == ']') {
        i = next;
      }
    } else if (pattern[i] == ']') {
      inClass = false;
    }
  }
  return pieces;
}

// True when the expression has a '|' outside every group and class: its alternatives
// may then begin anywhere.
bool hasTopLevelAlternative(std::string_view pattern) {
  int depth = 0;
  bool inClass = false;
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    const char c = pattern[i];
    if (c == '\\') {
      ++i;
    } else if (inClass) {
      inClass = c != ']';
    } else if (c == '[') {
      inClass = true;
    } else if (c == '(') {
      ++depth;
    } else if (c == ')') {
      depth -= depth > 0 ? 1 : 0;
    } else if (c == '|' && depth == 0) {
      return true;
    }
  }
  return false;
}

// The directory a REGEXSTRICT walk starts in (see the header): ends with '/', or is
// empty for the working directory.
std::string literalDirectory(std::string_view pattern) {
  if (hasTopLevelAlternative(pattern)) {
    return "/";
  }
  std::size_t i = !pattern.empty() && pattern[0] == '^' ? 1 : 0;
  std::string literal;
  while (i < pattern.size()) {
    const char c = pattern[i];
    if (c == '\\') {
      if (i + 1 >= pattern.size() || std::isalnum(static_cast<unsigned char>(pattern[i + 1]))) {
        break;  // \d, \w, \Q...: a class or a quoting, not one literal character
      }
      literal += pattern[i + 1];
      i += 2;
      continue;
    }
    if (c == '*' || c == '?' || c == '+' || c == '{') {
      if (!literal.empty()) {
        literal.pop_back();  // the quantified character may be absent or repeated
      }
      break;
    }
    if (std::strchr(".^$[]()|", c) != nullptr) {
      break;
    }
    literal += c;
    ++i;
  }
  if (literal.empty()) {
    return "/";
  }
  const std::size_t slash = literal.rfind('/');
  return slash == std::string::npos ? std::string() : literal.substr(0, slash + 1);
}

std::string join(const std::string& directory, const std::string& name) {
  if (directory.empty()) {
    return name;
  }
  return directory.back() == '/' ? directory + name : directory + '/' + name;
}

std::string compileMessage(int code) {
  PCRE2_UCHAR buffer[256];
  const int length = pcre2_get_error_message(code, buffer, sizeof buffer);
  return length < 0 ? "error " + std::to_string(code)
                    : std::string(reinterpret_cast<const char*>(buffer), length);
}

enum class Kind { Missing, File, Directory, Other };

// What path is, following symbolic links; fills `file` for a regular file.
Kind inspect(const std::string& path, ScanCandidate& file) {
  struct statx sx {};
  const unsigned mask = STATX_TYPE | STATX_SIZE | STATX_MTIME | STATX_CTIME | STATX_BTIME;
  if (::statx(AT_FDCWD, path.c_str(), 0, mask, &sx) != 0) {
    return Kind::Missing;
  }
  if (S_ISDIR(sx.stx_mode)) {
    return Kind::Directory;
  }
  if (!S_ISREG(sx.stx_mode)) {
    return Kind::Other;
  }
  file.size = sx.stx_size;
  file.modified = {sx.stx_mtime.tv_sec, sx.stx_mtime.tv_nsec};
  const statx_timestamp& created = (sx.stx_mask & STATX_BTIME) != 0 ? sx.stx_btime : sx.stx_ctime;
  file.born = {created.tv_sec, created.tv_nsec};
  return Kind::File;
}

}  // namespace

SourceScanner::SourceScanner(SourceNaming naming, std::string pattern, CompareMode compare,
                             ScanLimits limits)
    : naming_(naming),
      pattern_(std::move(pattern)),
      compare_(compare),
      limits_(limits),
      data_(pcre2_match_data_create(1, nullptr), pcre2_match_data_free) {
  if (data_ == nullptr) {
    throw std::bad_alloc();
  }
  if (naming_ == SourceNaming::Path) {
    return;
  }
  if (pattern_.empty()) {
    throw SourcePatternError("an empty pattern names no file", 0);
  }
  if (naming_ == SourceNaming::Regex) {
    compileComponents();
    return;
  }
  int error = 0;
  PCRE2_SIZE offset = 0;
  pcre2_code* code =
      pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern_.data()), pattern_.size(),
                    PCRE2_UTF | PCRE2_MATCH_INVALID_UTF | PCRE2_ANCHORED, &error, &offset, nullptr);
  if (code == nullptr) {
    throw SourcePatternError("REGEXSTRICT pattern '" + pattern_ + "' does not compile at offset " +
                                 std::to_string(offset) + ": " + compileMessage(error),
                             offset);
  }
  strict_ = std::make_shared<Code>(code);
  start_ = literalDirectory(pattern_);
}

void SourceScanner::compileComponents() {
  root_ = pattern_[0] == '/' ? "/" : "";
  for (Piece& piece : splitComponents(pattern_)) {
    Component component;
    if (piece.text.find_first_of(kExpressionChars) != std::string::npos) {
      int error = 0;
      PCRE2_SIZE offset = 0;
      pcre2_code* code =
          pcre2_compile(reinterpret_cast<PCRE2_SPTR>(piece.text.data()), piece.text.size(),
                        PCRE2_UTF | PCRE2_MATCH_INVALID_UTF, &error, &offset, nullptr);
      if (code == nullptr) {
        const std::size_t at = piece.offset + offset;
        throw SourcePatternError("REGEX pattern '" + pattern_ + "' does not compile at offset " +
                                     std::to_string(at) + " (in '" + piece.text +
                                     "'): " + compileMessage(error),
                                 at);
      }
      component.code = std::make_shared<Code>(code);
    }
    component.literal = std::move(piece.text);
    components_.push_back(std::move(component));
  }
}

bool SourceScanner::matches(const Code& code, const std::string& subject, bool partial) {
  // REGEXSTRICT: a whole path must match, and a directory may lead to a match when its
  // path is the beginning of one (PCRE2 takes no end anchor with partial matching).
  const uint32_t options = &code != strict_.get() ? 0
                           : partial              ? PCRE2_PARTIAL_HARD
                                                  : PCRE2_ENDANCHORED;
  const int rc = pcre2_match(code.code, reinterpret_cast<PCRE2_SPTR>(subject.data()),
                             subject.size(), 0, options, data_.get(), nullptr);
  // 0: matched, with more groups than the match data holds.
  return rc >= 0 || (partial && rc == PCRE2_ERROR_PARTIAL);
}

std::vector<SourceScanner::Entry> SourceScanner::list(const std::string& directory,
                                                      const Code* code) {
  std::vector<Entry> entries;
  DIR* dir = ::opendir(directory.empty() ? "." : directory.c_str());
  if (dir == nullptr) {
    return entries;
  }
  std::size_t seen = 0;
  while (const dirent* entry = ::readdir(dir)) {
    const char* name = entry->d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) {
      continue;
    }
    if (seen++ == limits_.entriesPerDirectory) {
      limited_ = true;
      break;
    }
    std::string text(name);
    if (code == nullptr || matches(*code, text, false)) {
      entries.push_back({std::move(text), entry->d_type});
    }
  }
  ::closedir(dir);
  std::sort(entries.begin(), entries.end(),
            [](const Entry& a, const Entry& b) { return a.name < b.name; });
  return entries;
}

std::vector<std::string> SourceScanner::scan() {
  limited_ = false;
  if (naming_ == SourceNaming::Path) {
    return {pattern_};
  }
  std::vector<ScanCandidate> found;
  if (naming_ == SourceNaming::RegexStrict) {
    walkStrict(start_, 0, found);
    return choose(std::move(found));
  }

  // REGEX: the paths reached after each component; the last component's are files.
  std::vector<std::string> reached{root_};
  for (std::size_t level = 0; level < components_.size() && !reached.empty(); ++level) {
    const Component& component = components_[level];
    const bool last = level + 1 == components_.size();
    std::vector<std::string> next;
    bool full = false;
    for (std::size_t i = 0; i < reached.size() && !full; ++i) {
      const std::string& directory = reached[i];
      if (component.code == nullptr) {
        next.push_back(join(directory, component.literal));
        continue;
      }
      for (Entry& entry : list(directory, component.code.get())) {
        // Only directories lead further; what the last component reaches is checked below.
        if (!last && entry.type != DT_DIR && entry.type != DT_LNK && entry.type != DT_UNKNOWN) {
          continue;
        }
        if (next.size() == limits_.matches) {
          limited_ = full = true;
          break;
        }
        next.push_back(join(directory, entry.name));
      }
    }
    reached = std::move(next);
  }
  for (std::string& path : reached) {
    ScanCandidate candidate;
    if (inspect(path, candidate) == Kind::File) {
      candidate.path = std::move(path);
      found.push_back(std::move(candidate));
    }
  }
  return choose(std::move(found));
}

void SourceScanner::walkStrict(const std::string& directory, int depth,
                               std::vector<ScanCandidate>& found) {
  for (Entry& entry : list(directory, nullptr)) {
    std::string path = join(directory, entry.name);
    ScanCandidate candidate;
    // The entry's type from the listing where it is given: most entries of a wide walk
    // match nothing and are never looked at.
    const Kind kind = entry.type == DT_DIR   ? Kind::Directory
                      : entry.type == DT_REG ? Kind::File
                                             : inspect(path, candidate);
    if (kind == Kind::File) {
      if (!matches(*strict_, path, false)) {
        continue;
      }
      if (found.size() == limits_.matches) {
        limited_ = true;
        return;
      }
      if (entry.type == DT_REG && inspect(path, candidate) != Kind::File) {
        continue;  // gone or replaced since the listing
      }
      candidate.path = std::move(path);
      found.push_back(std::move(candidate));
    } else if (kind == Kind::Directory && depth < limits_.strictDepth &&
               matches(*strict_, path + '/', true)) {
      walkStrict(path + '/', depth + 1, found);
    }
  }
}

std::vector<std::string> SourceScanner::choose(std::vector<ScanCandidate> found) const {
  std::sort(found.begin(), found.end(),
            [](const ScanCandidate& a, const ScanCandidate& b) { return a.path < b.path; });
  std::vector<std::string> paths;
  if (compare_ == CompareMode::AllMatches) {
    paths.reserve(found.size());
    for (ScanCandidate& candidate : found) {
      paths.push_back(std::move(candidate.path));
    }
    return paths;
  }
  if (found.empty()) {
    return paths;
  }
  // Strictly greater only: of equal ones the first, the smallest path, stays.
  const auto greater = [this](const ScanCandidate& a, const ScanCandidate& b) {
    switch (compare_) {
      case CompareMode::Size:
        return a.size > b.size;
      case CompareMode::CreationTime:
        return a.born > b.born;
      default:
        return a.modified > b.modified;
    }
  };
  const ScanCandidate* best = &found.front();
  for (const ScanCandidate& candidate : found) {
    if (greater(candidate, *best)) {
      best = &candidate;
    }
  }
  paths.push_back(best->path);
  return paths;
}

}  // namespace xrvlog
