#pragma once

// The values the process data sources give their attributes: a table of fields, each
// found by the attribute's metric name, over a ProcessRecord (one process, or the
// processes one rule took together). docs/processes.md lists them.
//
// For a rule's row, amounts (processor use, memory, threads, descriptors, I/O, page
// faults) are summed over its processes; identity and time (PID, Name, Command_Line,
// User, Start_Time, Age_Seconds, ...) are those of its oldest process, so that the
// row of a server shows its master. Without processes they are 0 or empty.

#include <cstdint>
#include <string>
#include <string_view>

#include "sources/process/ProcessSampler.h"

class Metric;
class ProcessRule;
class ResultMetric;

// A rule's state, by its process count against its expected minimum and maximum.
enum PROCESS_STATUS {
  PROCESS_DOWN = 0,      // none runs
  PROCESS_UP = 1,        // within the expected counts
  PROCESS_TOO_FEW = 2,   // some, fewer than the minimum
  PROCESS_TOO_MANY = 3,  // more than the maximum
};
const char* processStatusName(int status);

struct ProcessRecord {
  const ps_info* process = nullptr;  // the process, or the rule's oldest; null for none
  const ProcessSampler::Usage* usage = nullptr;
  const ProcessRule* rule = nullptr;
  int count = 0;
  double userPercent = 0;
  double systemPercent = 0;
  double cpuSeconds = 0;
  long long residentKb = 0;
  long long virtualKb = 0;
  long long sharedKb = 0;
  long long dataKb = 0;
  long long threads = 0;
  long long descriptors = -1;  // -1: none could be counted
  long long readBytes = 0;
  long long writtenBytes = 0;
  long long readChars = 0;
  long long writtenChars = 0;
  long long minorFaults = 0;
  long long majorFaults = 0;
  int status = PROCESS_UP;
  int64_t statusSince = 0;  // seconds since the epoch; 0: the oldest process's start

  // Adds one process (`descriptors` -1 when not counted).
  void add(const ps_info& entry, const ProcessSampler::Usage& use, int descriptors,
           const ProcessSampler& sampler);
};

// One field's value: a number (or decimal), a text, or a time; a text field read by
// a numeric attribute gives `number`, a number read by a text attribute its digits.
struct FieldValue {
  long long number = 0;
  double decimal = 0;
  bool isDecimal = false;
  bool isTime = false;   // `number` is seconds since the epoch
  bool hasText = false;
  std::string_view text;
};

struct ProcessField {
  const char* name;
  FieldValue (*get)(const ProcessRecord& record);
  bool needsDescriptors;
};

// The field named `name`, or null.
const ProcessField* findProcessField(const char* name);
// Every field's name, in the table's order.
std::string processFieldNames();
// The value of `field` for `record` as `metric` takes it (text or number by its
// type; a time as CYYMMDDHHMMSSmmm text or seconds). `scratch` is reused for texts.
ResultMetric* makeProcessValue(const Metric* metric, const ProcessField* field,
                               const ProcessRecord& record, std::string* scratch);
// The field's value as a number, for ordering rows.
double processSortKey(const ProcessField* field, const ProcessRecord& record);
