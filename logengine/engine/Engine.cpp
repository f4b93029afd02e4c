#include "Engine.h"

#include <stdlib.h>

#include <filesystem>

#include "engine/Diagnostics.h"
#include "mdl/MdlReader.h"

namespace xrvlog {

Engine::Engine(std::string stateDirectory)
    : callbacks_(this), stateDirectory_(std::move(stateDirectory)) {
  if (stateDirectory_.empty()) {
    std::string pattern = std::filesystem::temp_directory_path().string() + "/xrvlog-positions-XXXXXX";
    if (::mkdtemp(pattern.data()) != nullptr) {
      stateDirectory_ = pattern;
      ownStateDirectory_ = true;
    } else {
      diagnose("no directory for read positions (" + pattern +
               "): a reloaded table reads its files again from where TAIL or the top says");
    }
  }
  announcer_ = std::thread([this] { announce(); });
}

Engine::~Engine() { shutdown(); }

void Engine::shutdown() {
  flush(nullptr);
  {
    std::lock_guard<std::mutex> hold(offlineLock_);
    stopping_ = true;
    offlineReady_.notify_all();
  }
  if (announcer_.joinable()) {
    announcer_.join();
  }
  if (ownStateDirectory_) {
    std::error_code ignored;
    std::filesystem::remove_all(stateDirectory_, ignored);
    ownStateDirectory_ = false;
  }
}

int Engine::load(std::string_view text) {
  MdlReadResult read = MdlReader::read(text);
  if (!read.ok()) {
    diagnose("the MDL text was not loaded: " + read.error().toString());
    return CDP_Metafile_Error;
  }
  std::shared_ptr<Table> table;
  try {
    table = std::make_shared<Table>(std::move(read.document()), callbacks_, stateDirectory_);
  } catch (const RecordRuleError& e) {
    diagnose("the MDL text was not loaded: line " + std::to_string(e.line()) + ", column " +
             std::to_string(e.column()) + ": " + e.what());
    return CDP_Metafile_Error;
  }
  std::lock_guard<std::mutex> change(changeLock_);
  std::shared_ptr<Table> old;
  {
    std::lock_guard<std::mutex> hold(lock_);
    if (auto it = tables_.find(table->name()); it != tables_.end()) {
      old = std::move(it->second);
      tables_.erase(it);
    }
  }
  if (old) {
    // A reload replaces the table: its positions are saved before the new threads
    // read them.
    old->stop();
  }
  table->start();
  std::lock_guard<std::mutex> hold(lock_);
  tables_[table->name()] = std::move(table);
  return CDP_Success;
}

int Engine::flush(const char* name) {
  std::lock_guard<std::mutex> change(changeLock_);
  std::vector<std::shared_ptr<Table>> stopping;
  {
    std::lock_guard<std::mutex> hold(lock_);
    if (name == nullptr) {
      for (auto& [key, table] : tables_) {
        stopping.push_back(std::move(table));
      }
      tables_.clear();
    } else if (auto it = tables_.find(std::string_view(name)); it != tables_.end()) {
      stopping.push_back(std::move(it->second));
      tables_.erase(it);
    } else {
      return CDP_Table_Not_Found;
    }
  }
  for (auto& table : stopping) {
    table->stop();
  }
  std::lock_guard<std::mutex> hold(offlineLock_);
  for (auto& table : stopping) {
    offline_.push_back(table->name());
  }
  offlineReady_.notify_all();
  return CDP_Success;
}

// The agent completes a reset when it hears that the table is fully offline, and
// may then load again: it hears it from this thread, never from inside its own flush.
void Engine::announce() {
  std::unique_lock<std::mutex> hold(offlineLock_);
  for (;;) {
    offlineReady_.wait(hold, [this] { return stopping_ || !offline_.empty(); });
    if (offline_.empty()) {
      return;
    }
    const std::string table = std::move(offline_.front());
    offline_.pop_front();
    hold.unlock();
    callbacks_.status(table.c_str(), nullptr, XPWP_TABLE_FULLY_OFFLINE);
    hold.lock();
  }
}

std::vector<std::shared_ptr<Table>> Engine::snapshot(const char* name) const {
  std::vector<std::shared_ptr<Table>> tables;
  std::lock_guard<std::mutex> hold(lock_);
  if (name == nullptr) {
    for (const auto& [key, table] : tables_) {
      tables.push_back(table);
    }
  } else if (auto it = tables_.find(std::string_view(name)); it != tables_.end()) {
    tables.push_back(it->second);
  }
  return tables;
}

int Engine::ready(const char* name) const {
  const auto tables = snapshot(name);
  if (name != nullptr && tables.empty()) {
    return CDP_Table_Not_Found;
  }
  for (const auto& table : tables) {
    if (!table->ready()) {
      return CDP_File_Threads_Starting;
    }
  }
  return CDP_All_File_Threads_Started;
}

int Engine::wakeUp(const char* name) {
  const auto tables = snapshot(name);
  if (name != nullptr && tables.empty()) {
    return CDP_Table_Not_Found;
  }
  for (const auto& table : tables) {
    table->wakeUp();
  }
  return CDP_Success;
}

std::vector<std::pair<std::string, FileReport>> Engine::files() const {
  std::vector<std::pair<std::string, FileReport>> all;
  for (const auto& table : snapshot(nullptr)) {
    std::vector<FileReport> files;
    table->files(files);
    for (auto& file : files) {
      all.emplace_back(table->name(), std::move(file));
    }
  }
  return all;
}

std::vector<std::pair<std::string, PatternReport>> Engine::patterns() const {
  std::vector<std::pair<std::string, PatternReport>> all;
  for (const auto& table : snapshot(nullptr)) {
    std::vector<PatternReport> patterns;
    table->patterns(patterns);
    for (auto& pattern : patterns) {
      all.emplace_back(table->name(), std::move(pattern));
    }
  }
  return all;
}

}  // namespace xrvlog
