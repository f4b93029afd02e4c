#pragma once

// ProcessQueryClass: the process data sources, over successive snapshots of the
// process table (ProcessSampler). One class serves three definition elements, by
// the rows it makes:
//   - process (EACH_MATCH): one row per process that a rule takes (a process taken
//     by two rules has two rows); with rows="rule" (EACH_RULE), one row per rule
//     with its processes summed;
//   - process_list (EACH_PROCESS): every process, or the top N by one value;
//   - app_ping_list (EACH_RULE, object type UA_AVAILABILITY_LIST): one row per
//     expected application: whether it runs, how many instances, and since when.
// Each attribute takes the value its metric name names (ProcessFields.h); a rule row
// also says its Status against the rule's expected counts, and since when that
// status holds (Status_Since: the oldest process's start when the rule came up, the
// time a change was seen otherwise).
//
// Error codes: OBJECT_ACTIVE with rows; NO_INSTANCES_RETURNED without (no process
// matched); OBJECT_CURRENTLY_UNAVAILABLE, inactive, when the process table cannot be
// read; DISABLED, inactive, when the group's collection is disabled.
//
// Thread-safety: collections are serialised by the base class; the status getters
// read atomics.

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "provider/ResultsManager.h"
#include "sources/process/ProcessFields.h"
#include "sources/process/ProcessSampler.h"

class AttributeGroupMeta;
class ProcessRule;

class ProcessQueryClass : public ResultsManager {
 public:
  enum RowKind { EACH_MATCH, EACH_RULE, EACH_PROCESS };

  // `objectType` is UA_PROCESS or UA_AVAILABILITY_LIST.
  ProcessQueryClass(const char* applicationName, const char* attributeGroup, int objectType,
                    RowKind rows);
  // The copy for the subnode `subnodeKey`: same rules and settings, no rows.
  ProcessQueryClass(const ProcessQueryClass* other, const char* subnodeKey);
  ~ProcessQueryClass() override;

  // --- Set up by the definition (before start) ---
  void addRule(std::shared_ptr<ProcessRule> rule);
  // process_list: only the `count` processes with the highest `sortField` (0: all).
  void setTop(int count, const char* sortField);
  void setKernelThreads(bool included) { kernelThreads_ = included; }
  // Reads the process table under `procRoot` instead of /proc (tests).
  void setProcRoot(const char* procRoot);
  // One metric per attribute of `meta`, when the definition gave none: the rule and
  // the process id are the row's key.
  void addMetricsFromGroup(const AttributeGroupMeta* meta);

  void start() override;
  void internalCollectData(const char* subnode) override;
  UAClientClass* subnodeCopy(const char* subnodeKey, UAClientClassList* list) override;

  const char* getPerfObjectName() override { return getAttributeGroup(); }
  int getPerfObjectStatus() override {
    return isCollectionDisabled() ? PERF_OBJECT_INACTIVE : status_.load();
  }
  int getPerfErrorCode() override {
    return isCollectionDisabled() ? static_cast<int>(DISABLED) : errorCode_.load();
  }
  void printResults() override;

  RowKind rowKind() const { return rows_; }
  const std::vector<std::shared_ptr<ProcessRule>>& rules() const { return rules_; }
  int top() const { return top_; }
  const std::string& sortField() const { return sortField_; }
  bool kernelThreads() const { return kernelThreads_; }

 private:
  // Per rule of a rule-row group: the status last reported and since when.
  struct RuleState {
    int status = -1;  // none reported yet
    int64_t sinceSeconds = 0;
  };

  void bindFields();
  int descriptorsOf(const ps_info& entry);
  void addRow(const ProcessRecord& record);
  int collectMatches();
  int collectRules(int64_t nowSeconds);
  int collectProcesses();

  RowKind rows_;
  std::vector<std::shared_ptr<ProcessRule>> rules_;
  int top_ = 0;
  std::string sortField_ = "CPU_Percent";
  bool kernelThreads_ = true;
  std::unique_ptr<ProcessSampler> sampler_;  // collecting thread only
  std::string procRoot_ = "/proc";
  // The field of each metric (null for derived metrics and unknown names).
  std::vector<const ProcessField*> fields_;
  bool needsDescriptors_ = false;
  int rawMetricCount_ = 0;
  std::vector<RuleState> ruleStates_;
  std::vector<ProcessRecord> records_;  // reused from one collection to the next
  std::vector<int> order_;
  std::string scratch_;
  std::atomic<int> status_{PERF_OBJECT_ACTIVE};
  std::atomic<int> errorCode_{OBJECT_ACTIVE};
};
