#include "sources/process/ProcessFields.h"

#include <cstdio>
#include <cstring>

#include "definition/Metric.h"
#include "provider/ResultMetric.h"
#include "provider/UAClientClass.h"
#include "sources/process/ProcessRule.h"

const char* processStatusName(int status) {
  switch (status) {
    case PROCESS_DOWN:
      return "DOWN";
    case PROCESS_UP:
      return "UP";
    case PROCESS_TOO_FEW:
      return "TOO_FEW";
    case PROCESS_TOO_MANY:
      return "TOO_MANY";
    default:
      return "UNKNOWN";
  }
}

void ProcessRecord::add(const ps_info& entry, const ProcessSampler::Usage& use, int counted,
                        const ProcessSampler& sampler) {
  const bool older = process == nullptr || use.startSeconds < usage->startSeconds ||
                     (use.startSeconds == usage->startSeconds && entry.pid < process->pid);
  if (older) {
    process = &entry;
    usage = &use;
  }
  ++count;
  userPercent += use.userPercent;
  systemPercent += use.systemPercent;
  cpuSeconds += static_cast<double>(entry.userTime + entry.systemTime) /
                static_cast<double>(sampler.ticksPerSecond());
  const auto pageKb = static_cast<long long>(sampler.pageKilobytes());
  residentKb += entry.statusRead ? static_cast<long long>(entry.vmRSS) : entry.residentSet * pageKb;
  virtualKb += entry.statusRead ? static_cast<long long>(entry.vmSize)
                                : static_cast<long long>(entry.virtualSize / 1024);
  sharedKb += entry.statmShared * pageKb;
  dataKb += static_cast<long long>(entry.vmData);
  threads += entry.statusRead ? entry.threads : entry.threadCount;
  if (counted >= 0) {
    descriptors = (descriptors < 0 ? 0 : descriptors) + counted;
  }
  readBytes += static_cast<long long>(entry.io64.readBytes);
  writtenBytes += static_cast<long long>(entry.io64.writtenBytes);
  readChars += static_cast<long long>(entry.io64.readChars);
  writtenChars += static_cast<long long>(entry.io64.writtenChars);
  minorFaults += static_cast<long long>(entry.minorFaults);
  majorFaults += static_cast<long long>(entry.majorFaults);
}

namespace {

FieldValue number(long long value) {
  FieldValue field;
  field.number = value;
  return field;
}

FieldValue decimal(double value) {
  FieldValue field;
  field.decimal = value;
  field.isDecimal = true;
  field.number = static_cast<long long>(value);
  return field;
}

FieldValue text(std::string_view value) {
  FieldValue field;
  field.text = value;
  field.hasText = true;
  return field;
}

FieldValue time(int64_t seconds) {
  FieldValue field;
  field.number = seconds;
  field.isTime = true;
  return field;
}

// A value of the record's (oldest) process, or `none` without one.
template <typename Get>
FieldValue ofProcess(const ProcessRecord& record, FieldValue none, Get get) {
  return record.process == nullptr ? none : get(*record.process, *record.usage);
}

using P = const ps_info&;
using U = const ProcessSampler::Usage&;
using R = const ProcessRecord&;

const ProcessField kFields[] = {
    {"Rule",
     [](R r) {
       return text(r.rule == nullptr ? std::string_view() : std::string_view(r.rule->rule()));
     },
     false},
    {"Process_Count", [](R r) { return number(r.count); }, false},
    {"PID", [](R r) { return ofProcess(r, number(0), [](P p, U) { return number(p.pid); }); },
     false},
    {"Parent_PID",
     [](R r) { return ofProcess(r, number(0), [](P p, U) { return number(p.ppid); }); }, false},
    {"Process_Group",
     [](R r) { return ofProcess(r, number(0), [](P p, U) { return number(p.processGroup); }); },
     false},
    {"Session",
     [](R r) { return ofProcess(r, number(0), [](P p, U) { return number(p.session); }); }, false},
    {"Name",
     [](R r) { return ofProcess(r, text(""), [](P p, U) { return text(p.commandName); }); },
     false},
    {"Command_Line",
     [](R r) {
       return ofProcess(r, text(""), [](P p, U) { return text(ProcessRule::trimmedCmdline(p)); });
     },
     false},
    {"State",
     [](R r) {
       return ofProcess(r, text(""), [](P p, U) {
         return text(p.state == '\0' ? std::string_view() : std::string_view(&p.state, 1));
       });
     },
     false},
    {"User",
     [](R r) {
       return ofProcess(r, text(""), [](P p, U) {
         FieldValue user = text(p.userName[1]);
         user.number = p.uid[1];
         user.hasText = p.userName[1][0] != '\0';  // else the uid's digits
         return user;
       });
     },
     false},
    {"User_ID", [](R r) { return ofProcess(r, number(-1), [](P p, U) { return number(p.uid[1]); }); },
     false},
    {"Group_ID",
     [](R r) { return ofProcess(r, number(-1), [](P p, U) { return number(p.gid[1]); }); }, false},
    {"CPU_Percent", [](R r) { return decimal(r.userPercent + r.systemPercent); }, false},
    {"User_CPU_Percent", [](R r) { return decimal(r.userPercent); }, false},
    {"System_CPU_Percent", [](R r) { return decimal(r.systemPercent); }, false},
    {"CPU_Seconds", [](R r) { return decimal(r.cpuSeconds); }, false},
    {"Resident_KB", [](R r) { return number(r.residentKb); }, false},
    {"Virtual_KB", [](R r) { return number(r.virtualKb); }, false},
    {"Shared_KB", [](R r) { return number(r.sharedKb); }, false},
    {"Data_KB", [](R r) { return number(r.dataKb); }, false},
    {"Threads", [](R r) { return number(r.threads); }, false},
    {"Open_Descriptors", [](R r) { return number(r.descriptors); }, true},
    {"Read_Bytes", [](R r) { return number(r.readBytes); }, false},
    {"Write_Bytes", [](R r) { return number(r.writtenBytes); }, false},
    {"Read_Chars", [](R r) { return number(r.readChars); }, false},
    {"Write_Chars", [](R r) { return number(r.writtenChars); }, false},
    {"Minor_Faults", [](R r) { return number(r.minorFaults); }, false},
    {"Major_Faults", [](R r) { return number(r.majorFaults); }, false},
    {"Priority",
     [](R r) { return ofProcess(r, number(0), [](P p, U) { return number(p.priority); }); }, false},
    {"Nice", [](R r) { return ofProcess(r, number(0), [](P p, U) { return number(p.nice); }); },
     false},
    {"Processor",
     [](R r) { return ofProcess(r, number(-1), [](P p, U) { return number(p.processor); }); },
     false},
    {"Start_Time",
     [](R r) { return ofProcess(r, time(0), [](P, U u) { return time(u.startSeconds); }); }, false},
    {"Age_Seconds",
     [](R r) { return ofProcess(r, number(0), [](P, U u) { return number(u.ageSeconds); }); },
     false},
    {"Status",
     [](R r) {
       FieldValue status = text(processStatusName(r.status));
       status.number = r.status;
       return status;
     },
     false},
    {"Status_Since",
     [](R r) {
       if (r.statusSince != 0 || r.usage == nullptr) {
         return time(r.statusSince);
       }
       return time(r.usage->startSeconds);
     },
     false},
    {"Minimum_Instances", [](R r) { return number(r.rule == nullptr ? 0 : r.rule->minimum()); },
     false},
    {"Maximum_Instances", [](R r) { return number(r.rule == nullptr ? 0 : r.rule->maximum()); },
     false},
};

}  // namespace

const ProcessField* findProcessField(const char* name) {
  if (name == nullptr) {
    return nullptr;
  }
  for (const ProcessField& field : kFields) {
    if (strcmp(field.name, name) == 0) {
      return &field;
    }
  }
  return nullptr;
}

std::string processFieldNames() {
  std::string names;
  for (const ProcessField& field : kFields) {
    names += names.empty() ? "" : ", ";
    names += field.name;
  }
  return names;
}

ResultMetric* makeProcessValue(const Metric* metric, const ProcessField* field,
                               const ProcessRecord& record, std::string* scratch) {
  const FieldValue value = field == nullptr ? FieldValue{} : field->get(record);
  if (!metric->isStringType()) {
    if (value.isDecimal) {
      return new ResultMetric(metric, value.decimal);
    }
    return new ResultMetric(metric, value.number);
  }
  char digits[32];
  if (value.isTime) {
    if (value.number == 0) {
      scratch->clear();
    } else {
      UAClientClass::formatTimeStamp(static_cast<time_t>(value.number), digits, sizeof digits);
      scratch->assign(digits);
    }
  } else if (value.hasText || field == nullptr) {
    scratch->assign(value.text);
  } else if (value.isDecimal) {
    snprintf(digits, sizeof digits, "%.2f", value.decimal);
    scratch->assign(digits);
  } else {
    snprintf(digits, sizeof digits, "%lld", value.number);
    scratch->assign(digits);
  }
  return new ResultMetric(metric, scratch->c_str());
}

double processSortKey(const ProcessField* field, const ProcessRecord& record) {
  const FieldValue value = field->get(record);
  return value.isDecimal ? value.decimal : static_cast<double>(value.number);
}
