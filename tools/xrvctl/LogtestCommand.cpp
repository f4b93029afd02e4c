#include "LogtestCommand.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iomanip>
#include <ostream>

#include <nlohmann/json.hpp>

#include "MdlCommand.h"
#include "logmon/format/QRFEventText.h"
#include "mdl/MdlReader.h"
#include "record/RecordBuilder.h"
#include "tail/LineAssembler.h"

namespace {

using nlohmann::ordered_json;
using xrvlog::RecordBuilder;
using xrvlog::RecordRules;

// What the follower of the log engine reads at once, and the longest line it holds.
constexpr std::size_t kReadBlock = 256 * 1024;
constexpr std::size_t kMaxLine = 64 * 1024;

struct Counts {
  std::uint64_t lines = 0;
  std::uint64_t records = 0;
  std::uint64_t kept = 0;
};

// Values may hold control characters (the format-file mode frames names and values
// with them) and the line ends of a multi-line record: shown escaped, '\' doubled, so
// that every value stays on its line. A pattern is shown as written but for control
// characters.
std::string printable(std::string_view text, bool doubleBackslash = true) {
  std::string shown;
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\' && doubleBackslash) {
      shown += "\\\\";
    } else if (c == '\n') {
      shown += "\\n";
    } else if (c == '\t') {
      shown += "\\t";
    } else if (c == '\r') {
      shown += "\\r";
    } else if (byte < 0x20 || byte == 0x7f) {
      static const char kHex[] = "0123456789abcdef";
      shown += "\\x";
      shown += kHex[byte >> 4];
      shown += kHex[byte & 0xf];
    } else {
      shown += c;
    }
  }
  return shown;
}

std::string dump(const ordered_json& value) {
  // Log text need not be UTF-8: such bytes are replaced.
  return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

// Whose pattern it is, for the operator: the two without an attribute are named by
// their MDL line.
std::vector<std::string> patternOwners(const RecordRules& rules) {
  std::vector<std::string> owners;
  const xrvlog::MdlDocument& document = rules.document();
  if (document.recordSet) {
    owners.emplace_back("//RECORDSET");
  }
  if (document.split == xrvlog::FieldSplit::Regex) {
    owners.emplace_back("//ATTRIBUTES");
  }
  for (std::size_t i = owners.size(); i < rules.patterns().size(); ++i) {
    owners.push_back(rules.patterns()[i].attribute);
  }
  return owners;
}

void printStatistics(const RecordRules& rules, const RecordBuilder& builder, const Counts& counts,
                     bool json, std::ostream& out) {
  std::vector<xrvlog::PatternStats> stats;
  builder.addStats(stats);
  stats.resize(rules.patterns().size());
  const std::uint64_t unmatched = counts.records - counts.kept;
  if (json) {
    ordered_json patterns = ordered_json::array();
    for (std::size_t i = 0; i < stats.size(); ++i) {
      patterns.push_back({{"attribute", rules.patterns()[i].attribute},
                          {"pattern", rules.patterns()[i].pattern},
                          {"matches", stats[i].matches},
                          {"misses", stats[i].misses},
                          {"limit_hits", stats[i].limit_hits}});
    }
    out << dump({{"statistics",
                  {{"lines", counts.lines},
                   {"records", counts.records},
                   {"kept", counts.kept},
                   {"unmatched", unmatched},
                   {"oversized", builder.oversizedRecords()},
                   {"patterns", patterns}}}})
        << "\n";
    return;
  }
  const std::vector<std::string> owners = patternOwners(rules);
  std::size_t width = 9;
  for (const std::string& owner : owners) {
    width = std::max(width, owner.size());
  }
  out << (counts.kept == 0 ? "" : "\n") << std::left << std::setw(static_cast<int>(width))
      << "ATTRIBUTE" << std::right << "    MATCHES     MISSES  LIMIT HITS  PATTERN\n";
  for (std::size_t i = 0; i < stats.size(); ++i) {
    out << std::left << std::setw(static_cast<int>(width)) << owners[i] << std::right
        << std::setw(11) << stats[i].matches << std::setw(11) << stats[i].misses << std::setw(12)
        << stats[i].limit_hits << "  " << printable(rules.patterns()[i].pattern, false) << "\n";
  }
  out << "\nlines " << counts.lines << ", records " << counts.records << ", kept " << counts.kept
      << ", unmatched " << unmatched << ", oversized " << builder.oversizedRecords() << "\n";
}

// The whole file; false with errno set when it cannot be read.
bool readFile(const std::string& path, std::string& text) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  char buffer[64 * 1024];
  ssize_t n = 0;
  while ((n = ::read(fd, buffer, sizeof buffer)) != 0) {
    if (n < 0 && errno != EINTR) {
      const int error = errno;
      ::close(fd);
      errno = error;
      return false;
    }
    if (n > 0) {
      text.append(buffer, static_cast<std::size_t>(n));
    }
  }
  ::close(fd);
  return true;
}

// The MDL text of `options` into *text, named *name in messages; for a conf file also
// its configuration into *format. False (said on `err`) when there is none.
bool loadMdl(const LogtestOptions& options, std::string* name, std::string* text,
             FormatMdl* format, std::ostream& err) {
  const std::vector<std::string>& files = options.files;
  const bool conf = !files.empty() && files[0].size() > 5 &&
                    files[0].compare(files[0].size() - 5, 5, ".conf") == 0;
  if (files.size() != 2 && !(conf && files.size() == 3)) {
    err << "logtest: expected MDL_FILE LOG_FILE or CONF_FILE [FORMAT_FILE] LOG_FILE\n";
    return false;
  }
  *name = files[0];
  if (!conf) {
    if (!readFile(files[0], *text)) {
      err << files[0] << ": cannot be read: " << std::strerror(errno) << "\n";
      return false;
    }
    return true;
  }
  MdlOptions mdl;
  mdl.conf = files[0];
  mdl.format = files.size() == 3 ? files[1] : "";
  if (!generateFormatMdl(mdl, format, err)) {
    return false;
  }
  *text = format->mdl;
  return true;
}

// `value` with the tokens the agent fills in per event replaced as it would for the
// local file `log`.
std::string withTokens(std::string value, const std::string& log, const QRFFormatNode* node) {
  const std::pair<const char*, std::string> tokens[] = {
      {"%XRV_FILENAME%", log},
      {"%XRV_REGEX%", node == nullptr ? "" : node->getExpressionString()},
      {"%XRV_REMHOST%", ""}};
  for (const auto& [token, replacement] : tokens) {
    for (size_t at = value.find(token); at != std::string::npos;
         at = value.find(token, at + replacement.size())) {
      value.replace(at, strlen(token), replacement);
    }
  }
  return value;
}

// The event class and slots of a format-file record, from its OBVEvent value; false
// when `pair` is not such a value.
bool addEvent(const QRFConfig& config, const std::string& log, const xrvlog::NameValue& pair,
              ordered_json* json, std::ostream* out) {
  QRFEventText event;
  if (pair.name != std::string_view("OBVEvent") || !decodeEventText(pair.value, config, &event)) {
    return false;
  }
  const QRFFormatNode* node = config.getFormat(event.formatIndex);
  const std::string wskClass = node == nullptr ? "" : node->getWskClass();
  ordered_json slots = ordered_json::object();
  if (out != nullptr) {
    *out << "  class " << printable(wskClass) << "\n";
  }
  for (const QRFEventSlot& slot : event.slots) {
    std::string value;
    for (size_t i = 0; i < slot.values.size(); ++i) {
      value += (i == 0 ? "" : ",") + slot.values[i];
    }
    value = withTokens(slot.list ? "[" + value + "]" : value, log, node);
    slots[slot.name] = value;
    if (out != nullptr) {
      *out << "  " << slot.name << " = " << printable(value) << "\n";
    }
  }
  if (json != nullptr) {
    (*json)["class"] = wskClass;
    (*json)["slots"] = slots;
  }
  return true;
}

}  // namespace

int runLogtest(const LogtestOptions& options, std::ostream& out, std::ostream& err) {
  std::string name;
  std::string text;
  FormatMdl format;
  if (!loadMdl(options, &name, &text, &format, err)) {
    return 2;
  }
  const std::string& log = options.files.back();
  xrvlog::MdlReadResult read = xrvlog::MdlReader::read(text);
  if (!read.ok()) {
    err << name << ":" << read.error().line << ":" << read.error().column << ": "
        << read.error().message << "\n";
    return 2;
  }
  std::shared_ptr<const RecordRules> rules;
  try {
    rules = RecordRules::compile(read.document());
  } catch (const xrvlog::RecordRuleError& error) {
    err << name << ":" << error.line() << ":" << error.column() << ": " << error.what()
        << "\n";
    return 2;
  }
  const int fd = ::open(log.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    err << log << ": cannot be read: " << std::strerror(errno) << "\n";
    return 2;
  }

  RecordBuilder builder(rules);
  Counts counts;
  const xrvlog::RecordHandler onRecord = [&](std::string_view record) {
    ++counts.records;
    if (!builder.build(record, "")) {
      return;
    }
    ++counts.kept;
    if (options.json) {
      ordered_json attributes = ordered_json::object();
      ordered_json kept = {{"record", counts.records}, {"line", builder.recordLine()}};
      for (const xrvlog::NameValue& pair : builder.pairs()) {
        attributes[pair.name] = pair.value;
        if (format.config != nullptr) {
          addEvent(*format.config, log, pair, &kept, nullptr);
        }
      }
      kept["attributes"] = attributes;
      out << dump(kept) << "\n";
      return;
    }
    out << "record " << counts.records << " (line " << builder.recordLine() << ")\n";
    for (const xrvlog::NameValue& pair : builder.pairs()) {
      if (format.config == nullptr || !addEvent(*format.config, log, pair, nullptr, &out)) {
        out << "  " << pair.name << " = " << printable(pair.value) << "\n";
      }
    }
  };
  const xrvlog::LineHandler onLine = [&](std::string_view line, unsigned flags) {
    if ((flags & xrvlog::kLineCut) == 0) {
      ++counts.lines;
    }
    builder.addLine(line, flags, onRecord);
  };

  xrvlog::LineAssembler lines(kReadBlock, kMaxLine);
  while (true) {
    const std::span<char> space = lines.writable();
    const ssize_t n = ::read(fd, space.data(), space.size());
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      err << log << ": cannot be read: " << std::strerror(errno) << "\n";
      ::close(fd);
      return 2;
    }
    if (n == 0) {
      break;
    }
    lines.commit(static_cast<std::size_t>(n), onLine);
  }
  ::close(fd);
  lines.flushPartial(onLine);
  builder.flushPending(onRecord);
  printStatistics(*rules, builder, counts, options.json, out);
  return 0;
}
