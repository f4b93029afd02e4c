#pragma once
// One loaded MDL text: the table's compiled rules and the threads that follow its
// files, one per plain path and one per file pattern (which starts a thread per file
// it chooses).

#include <memory>
#include <string>
#include <vector>

#include "engine/FileWorker.h"
#include "engine/PatternWatcher.h"
#include "engine/TableContext.h"

namespace xrvlog {

struct PatternReport {
  std::string attribute;
  std::string pattern;
  PatternStats stats;
};

class Table {
 public:
  // Throws RecordRuleError when a pattern of the text does not compile.
  Table(MdlDocument document, const Callbacks& callbacks, std::string stateDirectory);
  ~Table();
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  const std::string& name() const { return context_->document.table; }
  void start();
  // Stops every thread and waits for them: when it returns no callback of this table
  // runs any more.
  void stop();
  bool ready() const { return context_->awaitingFirstPass.load() <= 0; }
  void wakeUp();
  void files(std::vector<FileReport>& into) const;
  void patterns(std::vector<PatternReport>& into) const;

 private:
  std::shared_ptr<TableContext> context_;
  std::vector<std::unique_ptr<FileWorker>> files_;
  std::vector<std::unique_ptr<PatternWatcher>> watchers_;
};

}  // namespace xrvlog
