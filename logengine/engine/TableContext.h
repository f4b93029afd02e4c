#pragma once
// What the file threads of one table share: the table's MDL, its compiled record
// rules, where positions are kept, the agent's callbacks, and the count of threads
// that have not yet made their first pass (readiness).

#include <atomic>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "engine/xpwp.h"
#include "mdl/MdlDocument.h"
#include "record/RecordBuilder.h"

namespace xrvlog {

// The two callbacks the agent registers. They may be (re-)registered while file
// threads run, so each is read once per call.
class Callbacks {
 public:
  explicit Callbacks(void* context) : context_(context) {}
  void setData(XPWP_DataCallback callback) { data_.store(callback); }
  void setStatus(XPWP_StatusCallback callback) { status_.store(callback); }

  void record(const char* table, const char* source, const char* description,
              std::span<const NameValue> pairs) const;
  void status(const char* table, const char* source, int status) const;

 private:
  void* context_;
  std::atomic<XPWP_DataCallback> data_{nullptr};
  std::atomic<XPWP_StatusCallback> status_{nullptr};
};

// Adds per-pattern figures element by element, growing `into` as needed.
void addPatternStats(std::vector<PatternStats>& into, const std::vector<PatternStats>& from);

struct TableContext {
  TableContext(MdlDocument mdl, std::shared_ptr<const RecordRules> compiled,
               const Callbacks& agent, std::string stateDir)
      : document(std::move(mdl)),
        rules(std::move(compiled)),
        callbacks(agent),
        stateDirectory(std::move(stateDir)) {}

  // Called once by each file thread after its first pass; the last one to come tells
  // the agent the table is active, provided some file of it is being read.
  void firstPassDone(bool following);

  const MdlDocument document;
  const std::shared_ptr<const RecordRules> rules;
  const Callbacks& callbacks;
  const std::string stateDirectory;  // empty: positions are not kept
  std::atomic<int> awaitingFirstPass{0};
  std::atomic<bool> anyFollowing{false};
};

}  // namespace xrvlog
