// The log monitor object's rows: records from the engine become rows, sent at once
// as events (pure-event groups) or kept per file as samples (sampled groups); and
// what the engine's file and table states do to the object.

#include <cstring>
#include <map>
#include <vector>

#include "definition/Metric.h"
#include "foundation/UTF8String.h"
#include "framework/FwClock.h"
#include "framework/Trace.h"
#include "logmon/LogMonitorQrf.h"
#include "logmon/LogMonitorQueryClass.h"
#include "logmon/LogMonitorResetJob.h"
#include "logmon/LogMonitorResultInstance.h"
#include "provider/NumericParser.h"
#include "provider/ResultMetric.h"

namespace {

const char* orEmpty(const char* text) { return text == nullptr ? "" : text; }

bool startsWith(const char* text, const std::string& prefix) {
  return !prefix.empty() && strncmp(text, prefix.c_str(), prefix.size()) == 0;
}

const std::string kNoPipe;

// Format-file mode fills these from the event's class and slots, not from pairs.
bool isQrfSpecial(const char* name) {
  const char* text = orEmpty(name);
  return strcmp(text, "msg") == 0 || strcmp(text, "Class") == 0 ||
         strncmp(text, "CustomSlot", 10) == 0 || strncmp(text, "CustomInteger", 13) == 0;
}

bool isTextType(RAW_METRIC_TYPE type) {
  return type == STRING_DATA || type == PREVIOUS_STRING_DATA || type == VALUE_CHANGED;
}

// The value of `metric` from the engine's text; a missing value is "" for a text
// and "0" for a number.
ResultMetric* makeValue(const Metric* metric, const char* text) {
  if (isTextType(metric->getRawMetricType())) {
    return new ResultMetric(metric, new UTF8String(orEmpty(text)));
  }
  return parseNumericString(metric, text == nullptr ? "0" : text);
}

}  // namespace

// --- Records ---

void LogMonitorQueryClass::setInstanceData(const XPWP_NameValue* pairs, int count,
                                           const char* source, const char* description) {
  XRV_TRACE_FN();
  if (deactivated_.load()) {
    XRV_TRACE_DETAIL(
        "This object has been de-activated (parent subnode was removed), ignoring new row");
    return;
  }
  const std::shared_ptr<const QrfState> qrf = hasQrfState_.load() ? qrfState() : nullptr;
  const std::string& syslogPipe = qrf == nullptr ? kNoPipe : qrf->syslogPipe;
  const bool qrfMode = useQrf_ && qrf != nullptr && qrf->config != nullptr;

  // The RemoteHost pair: in format-file mode it is taken out of the pairs.
  const char* remoteHost = nullptr;
  int remote = -1;
  for (int i = 0; i < count && pairs != nullptr; ++i) {
    if (pairs[i].name != nullptr && strcmp(pairs[i].name, "RemoteHost") == 0) {
      XRV_TRACE_DETAIL("Found %s value %s", pairs[i].name, orEmpty(pairs[i].value));
      remoteHost = pairs[i].value;
      remote = i;
      break;
    }
  }
  std::string eventText;
  std::map<std::string, std::string> qrfValues;
  std::vector<XPWP_NameValue> rest;
  if (qrfMode && count > 0) {
    if (!prepareQrfRecord(*qrf, pairs, count, source, remoteHost, &eventText, &qrfValues)) {
      return;  // *DISCARD*
    }
    for (int i = 0; i < count && pairs != nullptr; ++i) {
      if (i != remote && (pairs[i].name == nullptr || strcmp(pairs[i].name, "OBVEvent") != 0)) {
        rest.push_back(pairs[i]);
      }
    }
  }

  const bool sampled = !isPureEventBased();
  const std::string file = sampled ? orEmpty(source) : "";
  const int64_t now = sampled ? fwMonotonicMillis() : 0;
  if (sampled && count > 0) {
    PthreadMutexLock lock(mutex_);
    SourceSample& sample = samples_[file];
    if (isNewResultInstanceListComplete(sample, now)) {
      sample.filling.clear();
      sample.received = false;
      sample.changed = true;
      sample.lastRecordMillis = now;
    }
  }
  const int expected = expectedPairCount();
  const int delivered = qrfMode && remote >= 0 ? count - 1 : count;
  if (count == 0 && sampled) {
    XRV_TRACE_DETAIL(
        "UA reported zero attributes, assuming the end of a sample set.  Agent count=<%d>, UA "
        "count=<%d>.",
        expected, count);
    XRV_TRACE_DETAIL("deleting blank record %s--assume end of sample", file.c_str());
    PthreadMutexLock lock(mutex_);
    samples_[file].received = true;
    return;
  }
  if (delivered != expected) {
    XRV_TRACE_ERROR(
        "Attribute group expects <%d> attributes, UA returned <%d> for the row, possibly a short "
        "or truncated record",
        expected, delivered);
    setPerfErrorCode(ATTRIBUTE_COUNT_MISMATCH);
    if (count == 0) {
      return;
    }
  }
  LogMonitorResultInstance* row =
      qrfMode ? assembleRow(rest.data(), static_cast<int>(rest.size()), source, description,
                            syslogPipe, &qrfValues)
              : assembleRow(pairs, count, source, description, syslogPipe, nullptr);
  if (!sampled) {
    if (qrfMode) {
      submitObvEvent(*qrf, eventText);
    }
    if (!sendAsEvent_ || !sendEventData(row, STORE_INTERVAL_DATA)) {
      delete row;  // not kept by the pure-event cache
    }
    return;
  }
  PthreadMutexLock lock(mutex_);
  SourceSample& sample = samples_[file];
  sample.filling.append(row);
  sample.changed = true;
  sample.lastRecordMillis = now;
}

int LogMonitorQueryClass::expectedPairCount() const {
  int expected = 0;
  for (int i = 0; i < getMetricCount(); ++i) {
    const Metric* metric = getMetric(i);
    const char* name = metric->getMetricName();
    if (metric->isDerived() || sourceMapAttr_ == name || sourceDescMapAttr_ == name ||
        (useQrf_ && (isQrfSpecial(name) || strcmp(orEmpty(name), "OBVEvent") == 0))) {
      continue;
    }
    ++expected;
  }
  return expected;
}

const char* LogMonitorQueryClass::sourceAttributeValue(const char* source,
                                                       const std::string& syslogPipe) const {
  const char* file = orEmpty(source);
  if (startsWith(file, binaryLog_)) {
    XRV_TRACE_FN();
    XRV_TRACE_DETAIL("Found event from Varex errpt pipe, replacing filename with \"%s\"",
                     errptCommand_.c_str());
    return errptCommand_.c_str();
  }
  if (startsWith(file, syslogPipe)) {
    XRV_TRACE_FN();
    XRV_TRACE_DETAIL("Found event from syslog pipe, replacing filename with \"%s\"", "SysLogD");
    return "SysLogD";
  }
  if (logNameIsBasename_.load()) {
    const char* slash = strrchr(file, '/');
    return slash == nullptr ? file : slash + 1;
  }
  return file;
}

// Each attribute in definition order takes the source, the description or the next
// pair, whose name must be the attribute's; in format-file mode the special attributes
// and OBVEvent and RemoteHost take what the event text gave (`qrfValues`).
LogMonitorResultInstance* LogMonitorQueryClass::assembleRow(
    const XPWP_NameValue* pairs, int count, const char* source, const char* description,
    const std::string& syslogPipe, const std::map<std::string, std::string>* qrfValues) {
  XRV_TRACE_FN();
  int raw = 0;
  for (int i = 0; i < getMetricCount(); ++i) {
    raw += getMetric(i)->isDerived() ? 0 : 1;
  }
  auto* row = new LogMonitorResultInstance(source, raw);
  char stamp[17];
  formatTimeStampMillis(fwTimeMillis(), stamp, sizeof stamp);
  row->setTimestamp(stamp);
  int next = 0;
  for (int i = 0; i < getMetricCount(); ++i) {
    const Metric* metric = getMetric(i);
    if (metric->isDerived()) {
      continue;
    }
    const char* name = metric->getMetricName();
    if (!sourceMapAttr_.empty() && sourceMapAttr_ == name) {
      row->addMetric(makeValue(metric, sourceAttributeValue(source, syslogPipe)));
    } else if (!sourceDescMapAttr_.empty() && sourceDescMapAttr_ == name) {
      row->addMetric(makeValue(metric, orEmpty(description)));
    } else if (qrfValues != nullptr &&
               (isQrfSpecial(name) || strcmp(orEmpty(name), "OBVEvent") == 0 ||
                strcmp(orEmpty(name), "RemoteHost") == 0)) {
      const auto value = qrfValues->find(orEmpty(name));
      row->addMetric(makeValue(metric, value == qrfValues->end() ? nullptr : value->second.c_str()));
    } else if (next < count && pairs != nullptr) {
      const XPWP_NameValue& pair = pairs[next++];
      if (strcmp(orEmpty(pair.name), orEmpty(name)) != 0) {
        XRV_TRACE_ERROR(
            "agent metric name and UA metric name do no match!  Agent name=<%s>, UA name=<%s>",
            orEmpty(name), orEmpty(pair.name));
        setPerfErrorCode(ATTRIBUTE_NAME_MISMATCH);
      }
      row->addMetric(makeValue(metric, pair.value));
    } else {
      XRV_TRACE_ERROR("UA ran out of values for agent metric!  Agent name=<%s>", orEmpty(name));
      row->addMetric(makeValue(metric, nullptr));
    }
  }
  return row;
}

bool LogMonitorQueryClass::isNewResultInstanceListComplete(const SourceSample& sample,
                                                           int64_t now) const {
  return sample.lastRecordMillis >= 0 && now - sample.lastRecordMillis >= kSampleCompleteMillis;
}

// --- States ---

void LogMonitorQueryClass::statusChanged(const char* source, int status) {
  XRV_TRACE_FN();
  switch (status) {
    case XPWP_SOURCE_OFFLINE:
      {
        PthreadMutexLock lock(statusLock_);
        setPerfObjectStatus(PERF_OBJECT_INACTIVE);
        setPerfErrorCode(FILE_OFFLINE);
      }
      if (!isPureEventBased() && source != nullptr) {
        XRV_TRACE_DETAIL("clearing Log result set for offline sampled log %s", source);
        PthreadMutexLock lock(mutex_);
        SourceSample& sample = samples_[source];
        sample.filling.clear();
        sample.received = true;
        sample.changed = true;
      }
      return;
    case XPWP_SOURCE_FOUND:
      {
        PthreadMutexLock lock(statusLock_);
        setPerfObjectStatus(PERF_OBJECT_ACTIVE);
        setPerfErrorCode(OBJECT_ACTIVE);
      }
      if (source != nullptr) {
        PthreadMutexLock lock(mutex_);
        samples_[source];  // the file enters the map; its sample comes with its records
      }
      return;
    case XPWP_TABLE_ACTIVE: {
      PthreadMutexLock lock(statusLock_);
      setPerfObjectStatus(PERF_OBJECT_ACTIVE);
      setPerfErrorCode(OBJECT_ACTIVE);
      return;
    }
    case XPWP_TABLE_FULLY_OFFLINE:
      break;
    default:
      XRV_TRACE_ERROR("Unknown status %d from xpw for table %s", status, tableName_.c_str());
      return;
  }
  setPerfObjectStatus(PERF_OBJECT_INACTIVE);
  setPerfErrorCode(FILE_OFFLINE);
  bool complete = false;
  {
    PthreadMutexLock init(initLock_);
    if (resetPending_.load()) {
      XRV_TRACE_DETAIL("table %s is now fully offline, submitting reset completion to thread pool",
                       tableName_.c_str());
      complete = true;
    } else if (!deactivated_.load()) {
      XRV_TRACE_ERROR("WARNING: table %s is fully offline when not expecting reset",
                      tableName_.c_str());
    }
  }
  if (complete) {
    LogMonitorResetJob::submit(this);
  }
}

// --- Collection ---

void LogMonitorQueryClass::collectData(const char* subnode) {
  XRV_TRACE_FN();
  if (resetPending_.load()) {
    XRV_TRACE_DETAIL(
        "collectData() called while a reset is still pending completion for %s, "
        "doing nothing",
        getAttributeGroup());
    return;
  }
  if (useQrf_ && started_.load()) {
    bool changed = false;
    {
      PthreadMutexLock init(initLock_);
      changed = qrfFilesChanged();
    }
    if (changed) {
      reset();
      if (resetPending_.load()) {
        return;  // the reset completes when the engine has let go of the table
      }
    }
  }
  ResultsManager::collectData(subnode);
}

// A sampled group's table: the last complete sample of every file.
void LogMonitorQueryClass::internalCollectData(const char* /*subnode*/) {
  XRV_TRACE_FN();
  std::vector<ResultInstance*> rows;
  {
    PthreadMutexLock lock(mutex_);
    clearResultSetOfChangedSources();
    XRV_TRACE_DETAIL("Aggregate is off, moving results from updated sources.");
    for (auto& [file, sample] : samples_) {
      for (const ResultInstance* row = sample.published.head(); row != nullptr;
           row = ResultList::next(row)) {
        rows.push_back(static_cast<const LogMonitorResultInstance*>(row)->copy());
      }
    }
  }
  for (ResultInstance* row : rows) {
    addResultInstance(row);
  }
}

// Every file whose sample is complete and differs from what the table shows gets it
// shown: closed by the engine, or its last record 2 s old.
void LogMonitorQueryClass::clearResultSetOfChangedSources() {
  XRV_TRACE_FN();
  const int64_t now = fwMonotonicMillis();
  for (auto& [file, sample] : samples_) {
    if (!sample.received && !(sample.changed && isNewResultInstanceListComplete(sample, now))) {
      continue;
    }
    XRV_TRACE_DETAIL("source %s being updated in active data.", file.c_str());
    sample.published.clear();
    for (const ResultInstance* row = sample.filling.head(); row != nullptr;
         row = ResultList::next(row)) {
      sample.published.append(static_cast<const LogMonitorResultInstance*>(row)->copy());
    }
    sample.received = false;
    sample.changed = false;
  }
}

void LogMonitorQueryClass::clearSamples() {
  XRV_TRACE_FN();
  PthreadMutexLock lock(mutex_);
  samples_.clear();
}
