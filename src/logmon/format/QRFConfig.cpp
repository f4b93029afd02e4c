// QRFConfig: the conf keys, the code page and the parse of the format file. The
// filters are generated in QRFFilters.cpp, the whole MDL text in QRFMdl.cpp, the
// syslog pipe in QRFSyslog.cpp and the DEFAULT slot values in QRFDefaults.cpp.

#include "logmon/format/QRFConfig.h"

#include <pthread.h>
#include <strings.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "framework/FwLocale.h"
#include "framework/ReadFile.h"
#include "framework/Settings.h"
#include "logmon/format/OBVEmitter.h"
#include "logmon/format/QRFParser.h"
#include "logmon/format/QRFReport.h"

namespace {

// The parser runs on a thread of its own with a stack of this size.
constexpr size_t kParserStack = 10 * 1024 * 1024;

struct ParseJob {
  const std::string* text;
  const QRFParseSettings* settings;
  QRFParseResult result;
};

void* runParse(void* argument) {
  auto* job = static_cast<ParseJob*>(argument);
  job->result = parseFormatText(*job->text, *job->settings);
  return nullptr;
}

bool allDigits(const char* text) {
  if (*text == '\0') {
    return false;
  }
  for (; *text != '\0'; ++text) {
    if (isdigit(static_cast<unsigned char>(*text)) == 0) {
      return false;
    }
  }
  return true;
}

}  // namespace

QRFConfig::QRFConfig(OBVEmitter* emitter, const char* confPath, const char* formatPath,
                     const char* attributeGroup, const char* subnodeType, int eventsToCatchUp,
                     const QRFOptions& options)
    : emitter_(emitter),
      confPath_(confPath == nullptr ? "" : confPath),
      formatPath_(formatPath == nullptr ? "" : formatPath),
      tableName_(attributeGroup == nullptr ? "" : attributeGroup),
      subnodeType_(subnodeType == nullptr ? "" : subnodeType),
      eventsToCatchUp_(eventsToCatchUp),
      options_(options) {
  XRV_TRACE_FN();
  readConfKeys();
  if (!setupSyslogPipe()) {
    syslogPipe_.clear();
  }
  parseFormat();
  if (error_ == QRF_OK) {
    generateMdlFilters();
  }
  options_.formatText = nullptr;
}

QRFConfig::~QRFConfig() = default;

void QRFConfig::addDiagnostic(bool error, const std::string& file, int line,
                              const std::string& text) {
  diagnostics_.push_back({error, file, line, text});
}

bool QRFConfig::confValue(const char* key, std::string* value) const {
  const char* raw = emitter_ == nullptr ? nullptr : emitter_->getConfValue(key);
  if (raw == nullptr) {
    return false;
  }
  *value = configFilesAreUTF8_ ? std::string(raw) : qrf::toUTF8(raw);
  return true;
}

void QRFConfig::readConfKeys() {
  XRV_TRACE_FN();
  std::string value;
  if (confValue("ENFORCE_STRICT_WSK_COMPATIBILITY", &value) &&
      (value[0] == 'y' || value[0] == 'Y')) {
    strict_ = true;
    XRV_TRACE_DETAIL(
        "QRF enforcing strict WSK compatibility-- TABs will be treated as spaces.  Note "
        "performance penalty");
  }
  static const char* const kTagKeys[8] = {"QRF_START_NAME", "QRF_START_VAL", "QRF_END_VAL",
                                          "QRF_END_NAME",   "QRF_QUOTE",     "QRF_LIST_SEPARATOR",
                                          "QRF_START_LIST", "QRF_END_LIST"};
  for (int i = 0; i < 8; ++i) {
    if (confValue(kTagKeys[i], &value) && !value.empty()) {
      tags_[i] = value[0];
    }
  }
  pollInterval_ = emitter_ == nullptr ? 5 : emitter_->getConfInt("PollInterval", 5);
  pollInterval_ = pollInterval_ < 0 ? 0 : pollInterval_ > 86400 ? 86400 : pollInterval_;
  XRV_TRACE_DETAIL("Using poll interval of %d", pollInterval_);

  const XRV::SettingContext here = XRV_SETTING_HERE();
  const XRV::SettingRead cpu = XRV::readSetting(XRV::Setting::ProcessMaxCpuPct, here);
  cpuLimit_ = cpu.set ? static_cast<int>(cpu.number)
              : emitter_ == nullptr ? 0
                                    : emitter_->getConfInt("ProcessMaxCpuPct", 0);
  if (cpuLimit_ < 0) {
    cpuLimit_ = 0;
  } else if (cpuLimit_ > 0 && cpuLimit_ < 5) {
    XRV_TRACE_DETAIL("CPU throttling percent below the minimum value, using 5");
    cpuLimit_ = 5;
  } else if (cpuLimit_ > 100) {
    XRV_TRACE_DETAIL("CPU throttling percent %d above the maximum value, using 100", cpuLimit_);
    cpuLimit_ = 100;
  }
  readCodePage();
  configFilesAreUTF8_ = emitter_ != nullptr && emitter_->getConfFlag("ConfigFilesAreUTF8");
}

void QRFConfig::readCodePage() {
  XRV_TRACE_FN();
  std::string value;
  if (confValue("codepage", &value)) {
    const int id = allDigits(value.c_str()) ? atoi(value.c_str()) : fwCodePageId(value.c_str());
    char name[64];
    if (id > 0 && fwCodePageName(id, name, sizeof name)) {
      codePageId_ = id;
      codePageName_ = name;
      XRV_TRACE_DETAIL("Using code page %s (%d) for the log files", name, id);
      return;
    }
    QRF_WARN(confPath_, 0, "Error: invalid codepage id: %d from: %s.  Defaulting to native encoding.",
             id, value.c_str());
  } else if (confValue("NO_UTF8_CONVERSION", &value) && strcasecmp(value.c_str(), "YES") == 0) {
    codePageId_ = 1208;
    codePageName_ = "UTF-8";
    return;
  }
  int problem = 0;
  const FwLocale* locale = fwGetProcessLocale(&problem);
  if (locale == nullptr || problem != 0) {
    XRV_TRACE_DETAIL("Couldn't determine native locale, leaving native code page unset in MDL");
    codePageId_ = 0;
    codePageName_.clear();
    return;
  }
  codePageId_ = locale->codePageId;
  codePageName_ = locale->codePage;
  char name[64];
  if (codePageId_ == 943 && fwCodePageName(932, name, sizeof name)) {
    XRV_TRACE_DETAIL(
        "Detected codepage CP943, using CP932 instead to map backslash to U+005C, not U+00A5 (Yen "
        "symbol)");
    codePageId_ = 932;
    codePageName_ = name;
  }
}

void QRFConfig::parseFormat() {
  XRV_TRACE_FN();
  std::string text;
  if (options_.formatText != nullptr) {
    text = *options_.formatText;
  } else {
    std::string problem;
    if (!readWholeFile(formatPath_.c_str(), maxReadFileBytes(), &text, &problem)) {
      QRF_FAULT(formatPath_, 0, "Could not open format file %s", formatPath_.c_str());
      XRV_TRACE_ERROR("%s", problem.c_str());
      error_ = QRF_CANNOT_OPEN_FORMAT_FILE;
      errorFile_ = formatPath_;
      return;
    }
  }
  if (!configFilesAreUTF8_) {
    text = qrf::toUTF8(text);
  }
  QRFParseSettings settings;
  settings.strict = strict_;
  settings.defaultValue = [this](const std::string& name, int line, std::string* value) {
    return defaultSlotValue(name, line, value);
  };
  ParseJob job{&text, &settings, {}};

  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  size_t stack = 0;
  pthread_attr_getstacksize(&attributes, &stack);
  XRV_TRACE_DETAIL("default thread stack size = %d, setting to 10MB for yacc parser",
                   static_cast<int>(stack));
  pthread_attr_setstacksize(&attributes, kParserStack);
  pthread_t parser;
  int rc = pthread_create(&parser, &attributes, runParse, &job);
  pthread_attr_destroy(&attributes);
  if (rc != 0) {
    QRF_FAULT(formatPath_, 0,
              "Couldn't launch a thread to parse format file; parsing failed with error %d", rc);
  } else if ((rc = pthread_join(parser, nullptr)) != 0) {
    // The parser may still use `job`: nothing can be done but stop here for good.
    QRF_FAULT(formatPath_, 0, "Couldn't join parser thread, error = %d", rc);
    abort();
  }
  if (rc == 0 && !job.result.ok) {
    QRF_FAULT(formatPath_, job.result.errorLine,
              "Format file parse error in file %s at line %d: \"%s\" error is: \"%s\"",
              formatPath_.c_str(), job.result.errorLine, job.result.errorToken.c_str(),
              job.result.errorMessage.c_str());
  }
  if (rc != 0 || !job.result.ok) {
    XRV_TRACE_ERROR("Parsing of format file %s failed", formatPath_.c_str());
    error_ = QRF_FORMAT_FILE_SYNTAX_ERROR;
    errorFile_ = formatPath_;
    return;
  }
  formats_ = std::move(job.result.formats);
  XRV_TRACE_DETAIL("Format file %s has %d formats", formatPath_.c_str(), getFormatCount());
}

QRFFormatNode* QRFConfig::getFormat(int index) const {
  if (index < 0 || index >= getFormatCount()) {
    return nullptr;
  }
  return formats_[static_cast<size_t>(index)].get();
}

QRFFormatNode* QRFConfig::getFormat(const char* wskClass) const {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Searching for format for class %s", wskClass);
  for (const auto& format : formats_) {
    if (format->getWskClass() == wskClass) {
      return format.get();
    }
  }
  XRV_TRACE_DETAIL("Could not find format for class %s", wskClass);
  return nullptr;
}
