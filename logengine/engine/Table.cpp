#include "Table.h"

namespace xrvlog {

Table::Table(MdlDocument document, const Callbacks& callbacks, std::string stateDirectory) {
  auto rules = RecordRules::compile(document);
  context_ = std::make_shared<TableContext>(std::move(document), std::move(rules), callbacks,
                                            std::move(stateDirectory));
}

Table::~Table() { stop(); }

void Table::start() {
  const auto& sources = context_->document.sources;
  context_->awaitingFirstPass.store(static_cast<int>(sources.size()));
  for (const MdlSource& source : sources) {
    if (source.naming == SourceNaming::Path) {
      files_.push_back(std::make_unique<FileWorker>(
          context_, source, source.name, false,
          [context = context_.get()](bool following) { context->firstPassDone(following); }));
      files_.back()->start();
    } else {
      watchers_.push_back(std::make_unique<PatternWatcher>(context_, source));
      watchers_.back()->start();
    }
  }
}

void Table::stop() {
  // Ask all first, then wait: the threads wind down side by side.
  for (auto& file : files_) {
    file->stop();
  }
  for (auto& watcher : watchers_) {
    watcher->stop();
  }
  for (auto& file : files_) {
    file->join();
  }
  for (auto& watcher : watchers_) {
    watcher->join();
  }
}

void Table::wakeUp() {
  for (auto& file : files_) {
    file->wakeUp();
  }
  for (auto& watcher : watchers_) {
    watcher->wakeUp();
  }
}

void Table::files(std::vector<FileReport>& into) const {
  for (const auto& file : files_) {
    into.push_back(file->report());
  }
  for (const auto& watcher : watchers_) {
    watcher->reports(into);
  }
}

void Table::patterns(std::vector<PatternReport>& into) const {
  std::vector<PatternStats> sums;
  for (const auto& file : files_) {
    file->addStats(sums);
  }
  for (const auto& watcher : watchers_) {
    watcher->addStats(sums);
  }
  const auto& infos = context_->rules->patterns();
  for (std::size_t i = 0; i < infos.size(); ++i) {
    into.push_back({infos[i].attribute, infos[i].pattern, i < sums.size() ? sums[i] : PatternStats{}});
  }
}

}  // namespace xrvlog
