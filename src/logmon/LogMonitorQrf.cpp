// Format-file mode of the log monitor: at every reset the group's conf and format
// files are read into an OBVEmitter and a QRFConfig, whose MDL text the group then
// loads; their modification times are watched at every collection. The conf file
// also sets the process priority, the flood control, the duplicate-detection keys and
// the event server that OBV events are forwarded to.

#include <dirent.h>
#include <strings.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "definition/AgentSettings.h"
#include "definition/Metric.h"
#include "framework/Configuration.h"
#include "framework/Settings.h"
#include "framework/Trace.h"
#include "logmon/LogMonitorQrf.h"
#include "logmon/format/QRFText.h"

using XRV::forward::EventForwarderConfig;
using XRV::forward::EventForwarderStatus;

namespace {

// Taken while an OBVEmitter is made: emitters of several groups start their
// forwarders (and lock their spools) one at a time.
PthreadMutex& obvHandleLock() {
  static PthreadMutex* const lock = new PthreadMutex;
  return *lock;
}

// The conf files in use, and by which object: two objects on one conf file would
// watch the same logs and send every event twice.
struct ConfClaims {
  PthreadMutex lock;
  std::map<std::string, const LogMonitorQueryClass*> owners XRV_GUARDED_BY(lock);
};

ConfClaims& confClaims() {
  static ConfClaims* const claims = new ConfClaims;
  return *claims;
}

// The agent's nice value before a ProcessPriorityClass first changed it.
struct PriorityState {
  PthreadMutex lock;
  std::optional<int> original XRV_GUARDED_BY(lock);
};

PriorityState& priorityState() {
  static PriorityState* const state = new PriorityState;
  return *state;
}

// Nanoseconds since the epoch of `path`'s last modification; 0 when it cannot be read.
int64_t getLastModTime(const std::string& path) {
  struct stat status {};
  if (path.empty() || stat(path.c_str(), &status) != 0) {
    return 0;
  }
  return static_cast<int64_t>(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec;
}

std::string owned(char* text) {
  std::string out = text == nullptr ? "" : text;
  free(text);
  return out;
}

// Sets the nice value of every thread of the agent (on Linux a thread's priority is
// its own, and new threads take their creator's). False when one refused.
bool setAgentNice(int nice) {
  XRV_TRACE_FN();
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == nullptr) {
    XRV_TRACE_ERROR("Cannot list the agent's threads to set their priority: %s", strerror(errno));
    return false;
  }
  bool ok = true;
  for (dirent* entry = readdir(tasks); entry != nullptr; entry = readdir(tasks)) {
    const int tid = atoi(entry->d_name);
    if (tid > 0 && setpriority(PRIO_PROCESS, static_cast<id_t>(tid), nice) != 0 && errno != ESRCH) {
      XRV_TRACE_ERROR("Couldn't set the nice value of thread %d to %d: %s", tid, nice,
                      strerror(errno));
      ok = false;
    }
  }
  closedir(tasks);
  return ok;
}

}  // namespace

bool LogMonitorQueryClass::priorityClassNice(char letter, int* nice) {
  static const int kNice[] = {20, 10, 0, -5, -10, -20};
  const char upper = static_cast<char>(letter >= 'a' && letter <= 'z' ? letter - 'a' + 'A' : letter);
  if (upper < 'A' || upper > 'F') {
    return false;
  }
  *nice = kNice[upper - 'A'];
  return true;
}

std::shared_ptr<const LogMonitorQueryClass::QrfState> LogMonitorQueryClass::qrfState() const {
  PthreadMutexLock lock(qrfLock_);
  return qrf_;
}

void LogMonitorQueryClass::setQrfState(std::shared_ptr<QrfState> state) {
  std::shared_ptr<QrfState> old;
  {
    PthreadMutexLock lock(qrfLock_);
    old = std::move(qrf_);
    qrf_ = std::move(state);
    hasQrfState_.store(qrf_ != nullptr || useQrf_);
  }
  if (old != nullptr && old->emitter != nullptr) {
    old->emitter->stopForwarding();  // a record still holding `old` forwards no more
  }
}

void LogMonitorQueryClass::setSyslogPipeName(const char* pipe) {
  auto state = std::make_shared<QrfState>();
  state->syslogPipe = pipe == nullptr ? "" : pipe;
  setQrfState(std::move(state));
}

std::string LogMonitorQueryClass::getConfFile() {
  PthreadMutexLock init(initLock_);
  return confFile_;
}

std::string LogMonitorQueryClass::getFormatFile() {
  PthreadMutexLock init(initLock_);
  return formatFile_;
}

// The steps of a format-file reset: the files' names, their modification times, the
// emitter (conf file), the QRFConfig (format file and MDL text), the priority, the
// flood control and the flags; then forwarding and the duplicate-detection keys. The
// previous reset's state goes first, so that its forwarder frees the spool.
bool LogMonitorQueryClass::initQRF() {
  XRV_TRACE_FN();
  setQrfState(nullptr);
  checkQrfFiles_ = false;
  std::string conf;
  std::string format;
  if (!readQrfFileNames(&conf, &format)) {
    return false;
  }
  confFile_ = conf;
  formatFile_ = format;
  confModTime_ = getLastModTime(conf);
  formatModTime_ = getLastModTime(format);
  checkQrfFiles_ = true;

  auto state = std::make_shared<QrfState>();
  if (!createObvEmitter(conf, state.get())) {
    return false;
  }
  OBVEmitter& emitter = *state->emitter;
  const int catchUp = emitter.getConfInt("NumEventsToCatchUp", 0);
  QRFOptions options;
  options.applicationName = getApplicationName();
  options.instanceName = instanceName.c_str();
  state->config = std::make_unique<QRFConfig>(&emitter, conf.c_str(), format.c_str(),
                                              getAttributeGroup(), subnodeType(), catchUp, options);
  if (const int error = state->config->getError(); error != QRFConfig::QRF_OK) {
    XRV_TRACE_ERROR("QRFConfig initialization failed, no QRF log monitoring will be done");
    setPerfObjectStatus(PERF_OBJECT_INACTIVE);
    setPerfErrorCode(error == QRFConfig::QRF_CANNOT_OPEN_FORMAT_FILE ? CANNOT_OPEN_FORMAT_FILE
                                                                     : FORMAT_FILE_SYNTAX_ERROR);
    return false;
  }
  applyProcessPriority(emitter);
  readFloodControlKeys(emitter);
  logNameIsBasename_.store(envLogNameIsBasename_ || emitter.getConfFlag("LognameIsBasename"));
  includeObvEventAttr_.store(emitter.getConfFlag("IncludeOBVEventAttr"));
  XRV_TRACE_DETAIL("%s and %s parsed successfully.", conf.c_str(), format.c_str());

  mdlTemplate_ = state->config->mdlStream();
  const char* pipe = state->config->getSyslogPipeName();
  state->syslogPipe = pipe == nullptr ? "" : pipe;
  if (sendObvEvents_) {
    startObvForwarding(state.get());
  }
  initializeLogAgentDupDetection(emitter);
  setQrfState(std::move(state));
  return true;
}

bool LogMonitorQueryClass::readQrfFileNames(std::string* conf, std::string* format) {
  XRV_TRACE_FN();
  const std::string confKey = XRV::settingName(XRV::Setting::ApplicationConfFile, getApplicationName());
  const std::string formatKey =
      XRV::settingName(XRV::Setting::ApplicationFormatFile, getApplicationName());
  const char* key = getSubnodeKey();
  bool duplicate = false;
  if (key != nullptr) {
    *conf = owned(getSubnodeConfigurationProperty(confKey.c_str(), subnodeType(), key));
    *format = owned(getSubnodeConfigurationProperty(formatKey.c_str(), subnodeType(), key));
    if (!conf->empty() && *conf == owned(getConfigurationProperty(confKey.c_str()))) {
      XRV_TRACE_ERROR(
          "Detected conf file %s in subnode %s which is also configured in the top level node; "
          "disabling this subnode",
          conf->c_str(), key);
      setPerfObjectStatus(PERF_OBJECT_INACTIVE);
      setPerfErrorCode(DUPLICATE_CONF_FILE);
      conf->clear();
      duplicate = true;
    }
  } else {
    const XRV::SettingContext here = XRV_SETTING_HERE().forApplication(getApplicationName());
    *conf = XRV::settingText(XRV::Setting::ApplicationConfFile, here);
    *format = XRV::settingText(XRV::Setting::ApplicationFormatFile, here);
  }
  bool badName = false;
  if (!conf->empty() && format->empty()) {
    if (conf->size() > 4 && conf->compare(conf->size() - 5, 5, ".conf") == 0) {
      *format = conf->substr(0, conf->size() - 5) + ".fmt";
      XRV_TRACE_DETAIL("fmt file not specified for conf file %s, assuming %s", conf->c_str(),
                       format->c_str());
    } else {
      XRV_TRACE_ERROR("ERROR: subnode conf file %s does not end with .conf, can't determine fmt "
                      "file name",
                      conf->c_str());
      badName = true;
    }
  }
  if (conf->empty() || format->empty()) {
    if (key != nullptr) {
      XRV_TRACE_ERROR("use_qrf flag is set, but no QRF config data present, subnode \"%s\" "
                      "disabled.",
                      key);
    } else {
      XRV_TRACE_ERROR("use_qrf flag is set, but no QRF config data present, top level node "
                      "disabled.");
    }
    if (!duplicate) {
      setPerfObjectStatus(PERF_OBJECT_INACTIVE);
      setPerfErrorCode(badName ? CANNOT_OPEN_FORMAT_FILE : CONF_FILE_DOES_NOT_EXIST);
    }
    return false;
  }

  ConfClaims& claims = confClaims();
  PthreadMutexLock lock(claims.lock);
  const LogMonitorQueryClass*& owner = claims.owners[*conf];
  if (owner != nullptr && owner != this) {
    XRV_TRACE_ERROR("Conf file %s is already monitored by attribute group %s%s%s; disabling %s%s%s",
                    conf->c_str(), owner->getAttributeGroup(),
                    owner->getSubnodeKey() == nullptr ? "" : " subnode ",
                    owner->getSubnodeKey() == nullptr ? "" : owner->getSubnodeKey(),
                    getAttributeGroup(), key == nullptr ? "" : " subnode ", key == nullptr ? "" : key);
    setPerfObjectStatus(PERF_OBJECT_INACTIVE);
    setPerfErrorCode(DUPLICATE_CONF_FILE);
    return false;
  }
  owner = this;
  if (!claimedConf_.empty() && claimedConf_ != *conf) {
    claims.owners.erase(claimedConf_);
  }
  claimedConf_ = *conf;
  return true;
}

void LogMonitorQueryClass::releaseConfClaim() {
  XRV_TRACE_FN();
  PthreadMutexLock init(initLock_);
  ConfClaims& claims = confClaims();
  PthreadMutexLock lock(claims.lock);
  const auto claim = claims.owners.find(claimedConf_);
  if (claim != claims.owners.end() && claim->second == this) {
    claims.owners.erase(claim);
  }
  claimedConf_.clear();
}

bool LogMonitorQueryClass::createObvEmitter(const std::string& conf, QrfState* state) {
  XRV_TRACE_FN();
  PthreadMutexLock lock(obvHandleLock());
  auto emitter = std::make_unique<OBVEmitter>(conf.c_str());
  if (const int error = emitter->getError(); error != OBVEmitter::OBV_OK) {
    XRV_TRACE_ERROR("OBVEmitter initialization failed, no OBV events will be sent");
    setPerfObjectStatus(PERF_OBJECT_INACTIVE);
    setPerfErrorCode(OBVEmitter::perfErrorCode(error));
    return false;
  }
  state->emitter = std::move(emitter);
  return true;
}

// The stream is host:group, and :key for a subnode's copy.
void LogMonitorQueryClass::startObvForwarding(QrfState* state) {
  XRV_TRACE_FN();
  std::string stream = QRFConfig::localHostName() + ":" + getAttributeGroup();
  if (getSubnodeKey() != nullptr) {
    stream += std::string(":") + getSubnodeKey();
  }
  EventForwarderConfig config;
  if (!state->emitter->forwardingConfig(stream, &config)) {
    XRV_TRACE_DETAIL("Conf file %s names no EventServer: OBV events are not forwarded",
                     state->emitter->getConfFile().c_str());
    return;
  }
  PthreadMutexLock lock(obvHandleLock());
  state->emitter->startForwarding(config);
}

// Top level only: the priority class of the configuration property, or of the conf
// file when the property defers to it. Without one, a priority set by an earlier reset
// is taken back.
void LogMonitorQueryClass::applyProcessPriority(const OBVEmitter& emitter) {
  XRV_TRACE_FN();
  if (getSubnodeKey() != nullptr) {
    return;
  }
  const XRV::SettingRead property = XRV::readSetting(
      XRV::Setting::ApplicationProcessPriorityClass,
      XRV_SETTING_HERE().forApplication(getApplicationName()));
  std::string value = property.text;
  if (!property.set || strcasecmp(value.c_str(), "USE_CONF_FILE_VALUE") == 0) {
    const char* key = emitter.getConfValue("ProcessPriorityClass");
    value = key == nullptr ? "" : std::string(qrf::trimmed(key));
  }
  PriorityState& priority = priorityState();
  PthreadMutexLock lock(priority.lock);
  if (value.empty()) {
    if (priority.original.has_value()) {
      XRV_TRACE_DETAIL("No ProcessPriorityClass, setting the nice value back to %d",
                       *priority.original);
      setAgentNice(*priority.original);
      priority.original.reset();
    }
    return;
  }
  int nice = 0;
  if (!priorityClassNice(value[0], &nice)) {
    XRV_TRACE_ERROR("Invalides ProcessPriorityClass value %c.  Valid values are A-F.", value[0]);
    return;
  }
  if (!priority.original.has_value()) {
    errno = 0;
    const int current = getpriority(PRIO_PROCESS, 0);
    priority.original = errno == 0 ? current : 0;
  }
  XRV_TRACE_DETAIL("ProcessPriorityClass %c: setting the agent's nice value to %d", value[0], nice);
  setAgentNice(nice);
}

// Both keys together replace the definition's event_flood_threshold and
// event_summary_interval; a conf file with neither leaves them.
void LogMonitorQueryClass::readFloodControlKeys(const OBVEmitter& emitter) {
  XRV_TRACE_FN();
  const char* threshold = emitter.getConfValue("EventFloodThreshold");
  const char* interval = emitter.getConfValue("EventSummaryInterval");
  if (threshold == nullptr && interval == nullptr) {
    return;
  }
  configureFloodControl(threshold, emitter.getConfInt("EventSummaryInterval", 0));
}

void LogMonitorQueryClass::initializeLogAgentDupDetection(const OBVEmitter& emitter) {
  XRV_TRACE_FN();
  std::map<std::string, int> keys;
  if (const char* names = emitter.getConfValue("DupDetectionKeyAttributes")) {
    for (const std::string& name : qrf::splitList(names, ',', false)) {
      int index = 0;
      bool found = false;
      for (int i = 0; i < getMetricCount() && !found; ++i) {
        const Metric* metric = getMetric(i);
        if (metric->isDerived()) {
          continue;
        }
        if (name == metric->getMetricName()) {
          found = true;
        } else {
          ++index;
        }
      }
      if (found) {
        XRV_TRACE_DETAIL("Using metric %s as a dup detection key", name.c_str());
        keys[name] = index;
      } else {
        XRV_TRACE_ERROR("ERROR: Ignoring unknown metric: %s", name.c_str());
      }
    }
    if (keys.empty()) {
      XRV_TRACE_ERROR(
          "DupDetectionKeyAttributes contained no valid attribute names, defaulting to built-in "
          "keys");
    }
  }
  PthreadMutexLock lock(dupLock_);
  dupKeys_ = std::move(keys);
}

std::vector<std::string> LogMonitorQueryClass::getDupDetectionKeys() {
  PthreadMutexLock lock(dupLock_);
  std::vector<std::string> names;
  for (const auto& [name, index] : dupKeys_) {
    names.push_back(name);
  }
  return names;
}

bool LogMonitorQueryClass::qrfFilesChanged() {
  XRV_TRACE_FN();
  if (!checkQrfFiles_) {
    return false;
  }
  bool changed = false;
  if (const int64_t now = getLastModTime(confFile_); now != confModTime_) {
    XRV_TRACE_DETAIL("conf file %s has changed, updating", confFile_.c_str());
    confModTime_ = now;
    changed = true;
  }
  if (const int64_t now = getLastModTime(formatFile_); now != formatModTime_) {
    XRV_TRACE_DETAIL("fmt file %s has changed, updating", formatFile_.c_str());
    formatModTime_ = now;
    changed = true;
  }
  return changed;
}

std::string LogMonitorQueryClass::getCollectionDetail() {
  const std::shared_ptr<const QrfState> state = hasQrfState_.load() ? qrfState() : nullptr;
  EventForwarderStatus status;
  std::string server;
  if (state == nullptr || state->emitter == nullptr ||
      !state->emitter->forwardingStatus(&status, &server)) {
    return "";
  }
  std::string detail = "OBV events to " + server + ": ";
  if (status.connected) {
    detail += "connected";
  } else {
    detail += "not connected";
    if (!status.lastError.empty()) {
      detail += " (" + status.lastError + ")";
    }
  }
  return detail + "; submitted " + std::to_string(status.submitted) + ", acknowledged " +
         std::to_string(status.acknowledged) + ", pending " +
         std::to_string(status.pendingEvents) + ", dropped " + std::to_string(status.dropped);
}
