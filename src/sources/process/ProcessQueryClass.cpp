#include "sources/process/ProcessQueryClass.h"

#include <algorithm>
#include <cstring>

#include "definition/AttributeGroupMeta.h"
#include "definition/Metric.h"
#include "framework/FwClock.h"
#include "framework/Trace.h"
#include "provider/GroupMetrics.h"
#include "provider/ResultInstance.h"
#include "provider/UAClientClassList.h"
#include "sources/process/ProcessRule.h"

ProcessQueryClass::ProcessQueryClass(const char* applicationName, const char* attributeGroup,
                                     int objectType, RowKind rows)
    : ResultsManager(applicationName, attributeGroup, objectType), rows_(rows) {
  XRV_TRACE_FN();
  setInputIsUTF8(true);  // names and command lines are taken as the kernel gives them
}

ProcessQueryClass::ProcessQueryClass(const ProcessQueryClass* other, const char* subnodeKey)
    : ResultsManager(other, subnodeKey),
      rows_(other->rows_),
      rules_(other->rules_),
      top_(other->top_),
      sortField_(other->sortField_),
      kernelThreads_(other->kernelThreads_),
      procRoot_(other->procRoot_) {
  XRV_TRACE_FN();
  setInputIsUTF8(true);
}

ProcessQueryClass::~ProcessQueryClass() = default;

void ProcessQueryClass::addRule(std::shared_ptr<ProcessRule> rule) {
  rules_.push_back(std::move(rule));
}

void ProcessQueryClass::setTop(int count, const char* sortField) {
  top_ = count < 0 ? 0 : count;
  if (sortField != nullptr && *sortField != '\0') {
    sortField_ = sortField;
  }
}

void ProcessQueryClass::setProcRoot(const char* procRoot) {
  procRoot_ = procRoot == nullptr ? "/proc" : procRoot;
  sampler_.reset();
}

UAClientClass* ProcessQueryClass::subnodeCopy(const char* subnodeKey, UAClientClassList* list) {
  XRV_TRACE_FN();
  auto* copy = new ProcessQueryClass(this, subnodeKey);
  if (list != nullptr) {
    list->addClientClass(copy);
  }
  return copy;
}

void ProcessQueryClass::addMetricsFromGroup(const AttributeGroupMeta* meta) {
  XRV_TRACE_FN();
  if (meta == nullptr || getMetricCount() > 0) {
    return;
  }
  ::addMetricsFromGroup(this, meta);
  for (int i = 0; i < getMetricCount(); ++i) {
    Metric* metric = getMetric(i);
    const char* name = metric->getMetricName();
    metric->setIsKey(strcmp(name, "Rule") == 0 ||
                     (rows_ != EACH_RULE && strcmp(name, "PID") == 0));
  }
}

void ProcessQueryClass::start() {
  XRV_TRACE_FN();
  addMetricsFromGroup(getAttributeGroupMeta());
  bindFields();
  ResultsManager::start();
}

void ProcessQueryClass::bindFields() {
  XRV_TRACE_FN();
  fields_.assign(static_cast<size_t>(getMetricCount()), nullptr);
  needsDescriptors_ = false;
  rawMetricCount_ = 0;
  for (int i = 0; i < getMetricCount(); ++i) {
    const Metric* metric = getMetric(i);
    if (metric->isDerived()) {
      continue;
    }
    ++rawMetricCount_;
    const ProcessField* field = findProcessField(metric->getMetricName());
    if (field == nullptr) {
      XRV_TRACE_ERROR("Attribute group %s: %s is no process value, it stays empty",
                      getAttributeGroup(), metric->getMetricName());
    }
    fields_[static_cast<size_t>(i)] = field;
    needsDescriptors_ = needsDescriptors_ || (field != nullptr && field->needsDescriptors);
  }
  const ProcessField* sort = findProcessField(sortField_.c_str());
  needsDescriptors_ = needsDescriptors_ || (rows_ == EACH_PROCESS && top_ > 0 && sort != nullptr &&
                                            sort->needsDescriptors);
}

// --- Collection ---

void ProcessQueryClass::internalCollectData(const char* /*subnode*/) {
  XRV_TRACE_FN();
  if (fields_.size() != static_cast<size_t>(getMetricCount())) {
    bindFields();  // not started through start()
  }
  if (sampler_ == nullptr) {
    sampler_ = std::make_unique<ProcessSampler>(procRoot_);
  }
  const int64_t now = fwTimeMillis();
  if (!sampler_->sample(now, fwMonotonicMillis())) {
    XRV_TRACE_ERROR("Attribute group %s: the process table under %s cannot be read",
                    getAttributeGroup(), procRoot_.c_str());
    status_ = PERF_OBJECT_INACTIVE;
    errorCode_ = OBJECT_CURRENTLY_UNAVAILABLE;
    return;
  }
  int rows = 0;
  switch (rows_) {
    case EACH_MATCH:
      rows = collectMatches();
      break;
    case EACH_RULE:
      rows = collectRules(now / 1000);
      break;
    case EACH_PROCESS:
      rows = collectProcesses();
      break;
  }
  XRV_TRACE_DETAIL("Attribute group %s: %d rows from %d processes", getAttributeGroup(), rows,
                   sampler_->count());
  status_ = PERF_OBJECT_ACTIVE;
  errorCode_ = rows > 0 ? OBJECT_ACTIVE : NO_INSTANCES_RETURNED;
}

int ProcessQueryClass::descriptorsOf(const ps_info& entry) {
  return needsDescriptors_ ? sampler_->countDescriptors(entry.pid) : -1;
}

void ProcessQueryClass::addRow(const ProcessRecord& record) {
  auto* row = new ResultInstance("", rawMetricCount_);
  for (int i = 0; i < getMetricCount(); ++i) {
    const Metric* metric = getMetric(i);
    if (!metric->isDerived()) {
      row->addMetric(makeProcessValue(metric, fields_[static_cast<size_t>(i)], record, &scratch_));
    }
  }
  addResultInstance(row);
}

int ProcessQueryClass::collectMatches() {
  XRV_TRACE_FN();
  int rows = 0;
  for (const std::shared_ptr<ProcessRule>& rule : rules_) {
    for (int i = 0; i < sampler_->count(); ++i) {
      const ps_info& entry = sampler_->entry(i);
      if (!rule->matches(entry)) {
        continue;
      }
      ProcessRecord record;
      record.rule = rule.get();
      record.add(entry, sampler_->usage(i), descriptorsOf(entry), *sampler_);
      addRow(record);
      ++rows;
    }
  }
  return rows;
}

int ProcessQueryClass::collectRules(int64_t nowSeconds) {
  XRV_TRACE_FN();
  ruleStates_.resize(rules_.size());
  for (size_t r = 0; r < rules_.size(); ++r) {
    const ProcessRule& rule = *rules_[r];
    ProcessRecord record;
    record.rule = &rule;
    for (int i = 0; i < sampler_->count(); ++i) {
      const ps_info& entry = sampler_->entry(i);
      if (rule.matches(entry)) {
        record.add(entry, sampler_->usage(i), descriptorsOf(entry), *sampler_);
      }
    }
    record.status = record.count == 0                                       ? PROCESS_DOWN
                    : record.count < rule.minimum()                         ? PROCESS_TOO_FEW
                    : rule.maximum() > 0 && record.count > rule.maximum() ? PROCESS_TOO_MANY
                                                                            : PROCESS_UP;
    RuleState& state = ruleStates_[r];
    if (record.status != state.status) {
      // Coming up: since its oldest process started. Any other change: since now.
      const bool cameUp = record.status != PROCESS_DOWN &&
                          (state.status == -1 || state.status == PROCESS_DOWN);
      state.sinceSeconds = cameUp ? record.usage->startSeconds : nowSeconds;
      if (state.status != -1) {
        XRV_TRACE_DETAIL("Attribute group %s: rule %s went from %s to %s", getAttributeGroup(),
                         rule.rule().c_str(), processStatusName(state.status),
                         processStatusName(record.status));
      }
      state.status = record.status;
    }
    record.statusSince = state.sinceSeconds;
    addRow(record);
  }
  return static_cast<int>(rules_.size());
}

int ProcessQueryClass::collectProcesses() {
  XRV_TRACE_FN();
  records_.clear();
  for (int i = 0; i < sampler_->count(); ++i) {
    const ps_info& entry = sampler_->entry(i);
    if (!kernelThreads_ && ProcessSampler::isKernelThread(entry)) {
      continue;
    }
    records_.emplace_back();
    records_.back().add(entry, sampler_->usage(i), descriptorsOf(entry), *sampler_);
  }
  order_.resize(records_.size());
  for (size_t i = 0; i < order_.size(); ++i) {
    order_[i] = static_cast<int>(i);
  }
  const ProcessField* sort = findProcessField(sortField_.c_str());
  if (top_ > 0 && sort != nullptr) {
    const size_t count = std::min(order_.size(), static_cast<size_t>(top_));
    std::partial_sort(order_.begin(), order_.begin() + static_cast<long>(count), order_.end(),
                      [&](int a, int b) {
                        const double left = processSortKey(sort, records_[static_cast<size_t>(a)]);
                        const double right = processSortKey(sort, records_[static_cast<size_t>(b)]);
                        if (left != right) {
                          return left > right;
                        }
                        return records_[static_cast<size_t>(a)].process->pid <
                               records_[static_cast<size_t>(b)].process->pid;
                      });
    order_.resize(count);
  }
  for (int index : order_) {
    addRow(records_[static_cast<size_t>(index)]);
  }
  return static_cast<int>(order_.size());
}

void ProcessQueryClass::printResults() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Process provider %s: %zu rules, error code %s", getAttributeGroup(),
                   rules_.size(), perfObjectErrorCodeName(errorCode_));
  printResultInstances();
}
