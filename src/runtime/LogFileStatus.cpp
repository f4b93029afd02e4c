#include "runtime/LogFileStatus.h"

#include <cmath>
#include <string>
#include <vector>

#include "definition/AttributeGroupMeta.h"
#include "framework/Trace.h"
#include "logmon/LogMonitorQueryClass.h"
#include "provider/GroupMetrics.h"
#include "provider/ResultInstance.h"

namespace {

// Who runs an engine table: the log monitor group and subnode it belongs to.
struct TableOwner {
  std::string table;
  std::string group;
  std::string subnodeKey;

  explicit TableOwner(const char* name) : table(name == nullptr ? "" : name) {
    LogMonitorQueryClass::describeTable(name, &group, &subnodeKey);
  }
};

std::string textOf(const char* text) { return text == nullptr ? "" : text; }

// --- Log_File_Status ---

struct FileRecord {
  TableOwner owner;
  std::string file;
  std::string pattern;
  int state;
  long long size;
  long long position;
  long long lastModified;
  long long lines;
  long long records;
};

std::string stateName(const FileRecord& r) {
  switch (r.state) {
    case XPWP_FILE_WAITING:
      return "WAITING";
    case XPWP_FILE_FOLLOWING:
      return "FOLLOWING";
    case XPWP_FILE_STOPPED:
      return "STOPPED";
    case XPWP_FILE_ERROR:
      return "ERROR";
    default:
      return std::to_string(r.state);
  }
}

std::string modificationStamp(const FileRecord& r) {
  if (r.lastModified < 0) {
    return "";
  }
  char stamp[17];
  UAClientClass::formatTimeStamp(static_cast<time_t>(r.lastModified), stamp, sizeof stamp);
  return stamp;
}

const StatusField<FileRecord> kFileFields[] = {
    {"Table_Name", nullptr, [](const FileRecord& r) { return r.owner.table; }},
    {"Attribute_Group", nullptr, [](const FileRecord& r) { return r.owner.group; }},
    {"Subnode_Key", nullptr, [](const FileRecord& r) { return r.owner.subnodeKey; }},
    {"File_Name", nullptr, [](const FileRecord& r) { return r.file; }},
    {"RegEx_Pattern", nullptr, [](const FileRecord& r) { return r.pattern; }},
    {"File_Status", [](const FileRecord& r) -> long long { return r.state; }, stateName},
    {"File_Size", [](const FileRecord& r) { return r.size; }, nullptr},
    {"Current_Position", [](const FileRecord& r) { return r.position; }, nullptr},
    {"Last_Modification_Time", [](const FileRecord& r) { return r.lastModified; },
     modificationStamp},
    {"Lines_Read", [](const FileRecord& r) { return r.lines; }, nullptr},
    {"Records_Sent", [](const FileRecord& r) { return r.records; }, nullptr},
};

// --- Log_File_RegEx_Statistics ---

struct PatternRecord {
  TableOwner owner;
  std::string attribute;
  std::string pattern;
  long long matches;
  long long misses;
  long long limitHits;
  long long cpuMillis;
};

const StatusField<PatternRecord> kPatternFields[] = {
    {"Table_Name", nullptr, [](const PatternRecord& r) { return r.owner.table; }},
    {"Attribute_Group", nullptr, [](const PatternRecord& r) { return r.owner.group; }},
    {"Subnode_Key", nullptr, [](const PatternRecord& r) { return r.owner.subnodeKey; }},
    {"Attribute_Name", nullptr, [](const PatternRecord& r) { return r.attribute; }},
    {"RegEx_Pattern", nullptr, [](const PatternRecord& r) { return r.pattern; }},
    {"Matches", [](const PatternRecord& r) { return r.matches; }, nullptr},
    {"Misses", [](const PatternRecord& r) { return r.misses; }, nullptr},
    {"Limit_Hits", [](const PatternRecord& r) { return r.limitHits; }, nullptr},
    {"CPU_Time", [](const PatternRecord& r) { return r.cpuMillis; }, nullptr},
};

long long clamped(uint64_t value) {
  return value > static_cast<uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<long long>(value);
}

FileRecord fileRecord(const XPWP_MonitoredFileInfo_t& file) {
  return FileRecord{TableOwner(file.table),
                    textOf(file.file),
                    textOf(file.pattern),
                    file.state,
                    file.size,
                    file.position,
                    file.lastModified,
                    clamped(file.lines),
                    clamped(file.records)};
}

PatternRecord patternRecord(const XPWP_LogFileRegExStatistics_t& pattern) {
  return PatternRecord{TableOwner(pattern.table),
                       textOf(pattern.attribute),
                       textOf(pattern.pattern),
                       clamped(pattern.matches),
                       clamped(pattern.misses),
                       clamped(pattern.limitHits),
                       std::llround(pattern.cpuSeconds * 1000.0)};
}

// One row per entry of the engine's array: `get` fetches it, `release` frees it.
template <typename Info, typename Record, size_t N>
void collectRows(ResultsManager* provider, bool (*get)(int*, Info**), void (*release)(Info*, int),
                 Record (*convert)(const Info&), const StatusField<Record> (&fields)[N]) {
  int count = 0;
  Info* info = nullptr;
  if (!get(&count, &info)) {
    return;
  }
  std::vector<Record> records;
  for (int i = 0; i < count; ++i) {
    records.push_back(convert(info[i]));
  }
  release(info, count);
  for (const Record& record : records) {
    auto* row = new ResultInstance("", provider->getMetricCount());
    for (int i = 0; i < provider->getMetricCount(); ++i) {
      row->addMetric(statusFieldValue(provider->getMetric(i), record, fields));
    }
    provider->addResultInstance(row);
  }
}

}  // namespace

LogEngineStatusGroup::LogEngineStatusGroup(const char* applicationName, const char* attributeGroup,
                                           AttributeGroupMeta* meta)
    : BuiltInStatusProvider(applicationName, attributeGroup) {
  XRV_TRACE_FN();
  setAttributeGroupMeta(meta);
  addMetricsFromGroup(this, meta);
}

void LogEngineStatusGroup::printResults() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Instances and Values for %s class", getAttributeGroup());
  printResultInstances();
}

void LogFileStatus::internalCollectData(const char* /*subnode*/) {
  XRV_TRACE_FN();
  collectRows(this, LogMonitorQueryClass::getMonitoredFileStatus,
              LogMonitorQueryClass::freeMonitoredFileInfo, fileRecord, kFileFields);
}

void LogFileRegExStats::internalCollectData(const char* /*subnode*/) {
  XRV_TRACE_FN();
  collectRows(this, LogMonitorQueryClass::getLogFileRegExStats,
              LogMonitorQueryClass::freeLogFileRegexStatistics, patternRecord, kPatternFields);
}
