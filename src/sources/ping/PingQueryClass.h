#pragma once

// PingQueryClass: the ping data source. Each collection pings every target of the
// group once (up to `attempts` times while unanswered) in one asynchronous run of its
// own ICMP echo engine, and reports one row per target:
//
//   Host              the target as configured
//   Address           the address pinged; "" when the name did not resolve
//   State             answered, timed out, unresolved, unreachable (numbers 0 to 3)
//   Response_Time     milliseconds from the answered request to its reply; -1
//   Attempts          requests sent to it in this collection
//   Loss_Percent      collections without an answer among the last `history`
//   Min_/Avg_/Max_Response_Time   over the answered ones of the last `history`; -1
//   Samples           collections counted in the two above
//   List_File         the device-list file the target came from; "" for the definition's
//
// Targets come from the definition (`target` elements, several hosts each) and from
// device-list files (`device_list` elements: a file or a pattern of files). `${NAME}`
// references in both are expanded from the configuration at every collection, for a
// subnode's copy from its own section first: a group with a subnode type pings, per
// subnode, the list file its section names. A host listed twice is one row; two hosts
// with one address are pinged once and both answered or not.
//
// Error codes, the first that applies: ICMP_SOCKETS_FAILED (no socket for a family a
// target needs), PING_DEVICE_LIST_FILE_MISSING (a list-file name expands to nothing),
// PING_FILE_DOES_NOT_EXIST (a named file is missing or unreadable),
// NO_PING_DEVICE_FILES (no targets and no lists at all, or a pattern that matches no
// file), NO_INSTANCES_RETURNED (the lists are empty), OBJECT_ACTIVE. The other
// targets are pinged all the same; the group is inactive only when it has no row.
// getCollectionDetail says which kind of socket each family uses, or what to do when
// none opens, and what is wrong with the lists.
//
// Thread-safety: collections of one provider are serialised by the base class; the
// status and the detail may be read beside a collection.

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "foundation/Locks.h"
#include "provider/ResultsManager.h"
#include "sources/ping/Ping.h"
#include "sources/ping/PingDeviceList.h"

class AttributeGroupMeta;
class Metric;

class PingQueryClass : public ResultsManager {
 public:
  enum TargetState { ANSWERED = 0, TIMED_OUT = 1, UNRESOLVED = 2, UNREACHABLE = 3 };

  struct Options {
    int timeoutMillis = 1000;        // 10 to 60000
    int attempts = 1;                // 1 to 10
    int burstSize = 0;               // 0: no bursts
    int burstDelayMillis = 0;        // 0 to 10000
    int history = 10;                // 1 to 1000 collections
    int resolveTimeoutMillis = 2000; // 10 to 60000
    // Out-of-range values are clamped to the limits above.
    void clamp();
  };

  PingQueryClass(const char* applicationName, const char* attributeGroup, const char* name,
                 const Options& options);
  // The copy for the subnode `subnodeKey`: the same sources and options, no history.
  PingQueryClass(const PingQueryClass* other, const char* subnodeKey);
  ~PingQueryClass() override;

  // Hosts separated by blanks or commas (may hold `${NAME}` references).
  void addTargets(const char* hosts);
  // A list file or a pattern of files (may hold `${NAME}` references).
  void addDeviceList(const char* file);
  bool hasSources() const { return !sources_.empty(); }
  const Options& getOptions() const { return options_; }
  // Without metrics of its own the provider takes one per attribute of `group`.
  void addMetricsFromGroup(const AttributeGroupMeta* group);

  void start() override;
  void internalCollectData(const char* subnode) override;
  UAClientClass* subnodeCopy(const char* subnodeKey, UAClientClassList* list) override;
  // Stops a run in progress from waiting for replies.
  void shutdownExternalProcesses() override;
  void printResults() override;

  const char* getPerfObjectName() override;
  int getPerfObjectStatus() override;
  int getPerfErrorCode() override;
  std::string getCollectionDetail() override;

  static const char* stateName(int state);
  // The engine, for tests.
  Ping& engine() { return engine_; }
  int listFileReads() const { return lists_.readCount(); }

 private:
  struct Source {
    bool file;
    std::string text;
  };
  struct Record;
  struct Gathered;

  // The hosts of this collection, in order, each once.
  void gather(Gathered* gathered);
  void readList(const std::string& path, const std::string& listed, Gathered* gathered);
  void resolve(const std::vector<Record*>& records);
  // Opens the sockets the records need; false when a family has none.
  bool openSockets(const std::vector<Record*>& records, std::string* problem);
  void runPings(const std::vector<Record*>& records);
  void settle(const std::vector<Record*>& records);
  ResultMetric* valueOf(const Metric* metric, const Record& record) const;
  std::string socketDescription() const;
  void setOutcome(int status, int error, const std::string& detail);

  std::string name_;
  Options options_;
  std::vector<Source> sources_;
  Ping engine_;
  XRV::ping::PingDeviceLists lists_;  // collecting thread only
  std::vector<std::unique_ptr<Record>> records_;  // collecting thread only

  std::atomic<int> status_{PERF_OBJECT_ACTIVE};
  std::atomic<int> errorCode_{OBJECT_ACTIVE};
  PthreadMutex detailLock_;
  std::string detail_ XRV_GUARDED_BY(detailLock_);
};
