// The whole MDL text of a format-file group: header, log sources, the syslog pipe,
// the record set of multi-line formats and the one attribute that carries the events.

#include <strings.h>

#include <cstring>

#include "framework/Settings.h"
#include "logmon/format/OBVEmitter.h"
#include "logmon/format/QRFConfig.h"
#include "logmon/format/QRFReport.h"

namespace {

constexpr int kDefaultEventSize = 2048;
constexpr int kMinEventSize = 1024;
constexpr int kMaxEventSize = 100000;
constexpr int kDefaultNewFilePoll = 30;
constexpr int kMaxNewFilePoll = 32767;

// A value between single quotes in the MDL: a quote inside is written twice.
std::string quoted(const std::string& value) {
  std::string out;
  for (char c : value) {
    out += c;
    if (c == '\'') {
      out += '\'';
    }
  }
  return out;
}

std::string joined(const std::vector<std::string>& pieces, const char* separator) {
  std::string out;
  for (const std::string& piece : pieces) {
    out += (out.empty() ? "" : separator) + piece;
  }
  return out;
}

}  // namespace

std::string QRFConfig::generateFilenameRegex(const std::string& path) {
  XRV_TRACE_FN();
  // The characters that make a piece of a REGEX source an expression for the engine.
  static const char kPatternCharacters[] = "^$*?+[](){}|\\";
  static const char kEscaped[] = "+[(){}^$|\\./";
  std::string out;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    end = end == std::string::npos ? path.size() : end;
    const std::string component = path.substr(start, end - start);
    if (component.find_first_of(kPatternCharacters) == std::string::npos) {
      out += component;
    } else {
      out += '^';
      for (char c : component) {
        if (c == '?') {
          out += '.';
        } else if (c == '*') {
          out += ".*";
        } else {
          out += strchr(kEscaped, c) != nullptr ? std::string("\\") + c : std::string(1, c);
        }
      }
      out += '$';
    }
    if (end < path.size()) {
      out += '/';
    }
    start = end + 1;
  }
  return out;
}

std::string QRFConfig::addSshParam(const char* property, const char* confKey) {
  XRV_TRACE_FN();
  static const struct {
    const char* name;
    XRV::Setting setting;
  } kProperties[] = {{"SSH_PORT", XRV::Setting::SshPort},
                     {"SSH_USERID", XRV::Setting::SshUserid},
                     {"SSH_PASSWORD", XRV::Setting::SshPassword},
                     {"SSH_AUTH_TYPE", XRV::Setting::SshAuthType},
                     {"SSH_PUB_KEYFILE", XRV::Setting::SshPubKeyfile},
                     {"SSH_PRIV_KEYFILE", XRV::Setting::SshPrivKeyfile}};
  std::string value;
  bool set = false;
  for (const auto& known : kProperties) {
    if (strcmp(known.name, property) == 0) {
      const XRV::SettingRead read = XRV::readSetting(known.setting);
      set = read.set;
      value = read.text;
    }
  }
  if (!set && !confValue(confKey, &value)) {
    return "";
  }
  return std::string(" ") + property + "='" + quoted(value) + "'";
}

std::string QRFConfig::sourceOptions(bool tail) {
  XRV_TRACE_FN();
  std::string options = tail ? " TAIL" : "";
  std::string value;
  if (confValue("RestartFrom", &value)) {
    if (strcasecmp(value.c_str(), "top") == 0) {
      options += " RESTARTFROMTOP";
    } else if (strcasecmp(value.c_str(), "end") == 0) {
      options += " RESTARTFROMEND";
    } else {
      QRF_WARN(confPath_, 0, "WARNING: RestartFrom '%s' is neither top nor end, ignoring it",
               value.c_str());
    }
  }
  if (emitter_ != nullptr && emitter_->getConfFlag("EraseRestart")) {
    options += " EraseRestart=Y";
  }
  std::string unmatched;
  confValue("UnmatchLog", &unmatched);
  options += " UNMATCHLOG='" + quoted(unmatched) + "'";
  static const char* const kModes[] = {"CompareByLastUpdate", "CompareByAllMatches",
                                       "CompareBySize", "CompareByCreationTime"};
  const char* mode = "CompareByAllMatches";
  if (confValue("FileComparisonMode", &value)) {
    bool known = false;
    for (const char* candidate : kModes) {
      if (strcasecmp(candidate, value.c_str()) == 0) {
        mode = candidate;
        known = true;
      }
    }
    if (!known) {
      QRF_WARN(confPath_, 0, "WARNING: unknown FileComparisonMode '%s', using CompareByAllMatches",
               value.c_str());
    }
  }
  int newFilePoll = emitter_ == nullptr ? kDefaultNewFilePoll
                                        : emitter_->getConfInt("NewFilePollInterval",
                                                               kDefaultNewFilePoll);
  newFilePoll = newFilePoll < kDefaultNewFilePoll ? kDefaultNewFilePoll
                : newFilePoll > kMaxNewFilePoll   ? kMaxNewFilePoll
                                                  : newFilePoll;
  options += std::string(" ") + mode + " codepage=" + codePageName_ +
             " FileMonitorFrequency=" + std::to_string(pollInterval_) +
             " FileExistTimeToWait=" + std::to_string(newFilePoll);
  return options;
}

std::string QRFConfig::processLogSources() {
  XRV_TRACE_FN();
  struct Source {
    const char* kind;  // how the MDL names it: "'" for a path
    std::string text;
  };
  std::vector<Source> sources;
  std::string value;
  if (confValue("LogSources", &value)) {
    for (const std::string& path : qrf::splitList(value, ',', false)) {
      if (path.find_first_of("?*") != std::string::npos) {
        XRV_TRACE_DETAIL("Filename '%s' contains wildcard, converting to REGEX", path.c_str());
        sources.push_back({"REGEX='", generateFilenameRegex(path)});
      } else {
        sources.push_back({"'", path});
      }
    }
  }
  if (confValue("RegexLogSources", &value)) {
    for (const std::string& pattern : qrf::splitList(value, ',', true)) {
      sources.push_back({"REGEX='", pattern});
    }
  }
  if (confValue("StrictRegexLogSources", &value)) {
    for (const std::string& pattern : qrf::splitList(value, ',', true)) {
      sources.push_back({"REGEXSTRICT='", pattern});
    }
  }
  if (eventsToCatchUp_ > 0) {
    XRV_TRACE_DETAIL(
        "NumEventsToCatchUp of %d: the engine cannot go back a number of records, reading "
        "new records only",
        eventsToCatchUp_);
  }
  const std::string options = sourceOptions(eventsToCatchUp_ >= 0);
  std::vector<std::string> hosts{""};
  if (confValue("SshHostList", &value)) {
    hosts = qrf::splitList(value, ',', false);
  }
  std::string lines;
  for (const std::string& host : hosts) {
    std::string remote;
    if (!host.empty() && strcasecmp(host.c_str(), "localhost") != 0) {
      remote = " RemoteLog=Y SSH_HOSTNAME='" + quoted(host) + "'" + addSshParam("SSH_PORT", "SshPort") +
               addSshParam("SSH_USERID", "SshUserid") + addSshParam("SSH_PASSWORD", "SshPassword") +
               addSshParam("SSH_AUTH_TYPE", "SshAuthType") +
               addSshParam("SSH_PUB_KEYFILE", "SshPubKeyfile") +
               addSshParam("SSH_PRIV_KEYFILE", "SshPrivKeyfile");
    }
    for (const Source& source : sources) {
      lines += std::string("//SOURCE FILE ") + source.kind + quoted(source.text) + "'" + options +
               remote + "\n";
    }
  }
  return lines;
}

void QRFConfig::generateMdlFilters() {
  XRV_TRACE_FN();
  int eventSize = emitter_ == nullptr ? kDefaultEventSize
                                      : emitter_->getConfInt("EventMaxSize", kDefaultEventSize);
  if (eventSize < kMinEventSize) {
    XRV_TRACE_DETAIL("EventMaxSize of %d is too small, resetting to minimum value of 1024",
                     eventSize);
    eventSize = kMinEventSize;
  } else if (eventSize > kMaxEventSize) {
    XRV_TRACE_DETAIL("EventMaxSize of %d exceeds maximum, resetting to 100000", eventSize);
    eventSize = kMaxEventSize;
  }
  const std::string size = std::to_string(eventSize);
  std::string mdl = "//APPL " + options_.applicationName + "_" +
                    (subnodeType_.empty() ? std::string("none") : subnodeType_);
  if (cpuLimit_ > 0) {
    mdl += " ProcessMax=" + std::to_string(cpuLimit_);
  }
  mdl += "\n//NAME " + tableName_ + " E MaximumAttributeSize=" + size + "\n";
  const std::string sources = processLogSources();
  mdl += sources;
  if (!syslogPipe_.empty()) {
    std::string unmatched;
    confValue("UnmatchLog", &unmatched);
    mdl += "//SOURCE FILE '" + quoted(syslogPipe_) + "' UNMATCHLOG='" + quoted(unmatched) +
           "' codepage=" + codePageName_ + " CompareByAllMatches" +
           " FileMonitorFrequency=" + std::to_string(pollInterval_) + "\n";
  } else {
    XRV_TRACE_DETAIL("No syslog pipe configured, not adding to MDL");
  }
  if (sources.empty() && syslogPipe_.empty()) {
    QRF_WARN(confPath_, 0,
             "No LogSources found in conf file %s, and syslog not configured, nothing to monitor",
             confPath_.c_str());
  }
  // The last format is tried first: formats are written from the general to the
  // particular, a subclass after its superclass.
  std::vector<std::string> filters;
  std::vector<std::string> firstLines;
  for (int index = getFormatCount() - 1; index >= 0; --index) {
    int lines = 1;
    std::string filter = generateMdlFilter(index, &lines);
    if (filter.empty()) {
      continue;
    }
    filters.push_back(filter);
    if (lines > 1) {
      std::string first = firstLinePattern(*getFormat(index));
      if (!first.empty()) {
        firstLines.push_back(first);
      }
    }
  }
  if (!firstLines.empty()) {
    XRV_TRACE_DETAIL("Found %d formats containing newlines, adding RECORDSET",
                     static_cast<int>(firstLines.size()));
    mdl += "//RECORDSET  END(0,regex,(?m)" + joined(firstLines, "|") + "\\r?\\n)\n";
  }
  if (filters.empty()) {
    QRF_WARN(formatPath_, 0,
             "WARNING: no format of %s gives a filter; the log engine will not load this MDL",
             formatPath_.c_str());
  }
  mdl += "//ATTRIBUTES NEWLINE\n";
  mdl += "OBVEvent Z " + size + " +FILTER={" + joined(filters, " OR ") + "} @Generated WSK Event\n";
  mdl += "RemoteHost H 64 @Name of host where event originated, if not local\n";
  mdlStream_ = mdl;
}
