#pragma once
// The engine behind one handle of the C interface: the loaded tables by name, the
// agent's callbacks, and the thread that announces tables that went fully offline.
//
// Every member may be called from any thread, the callbacks' own included, except
// that a callback must not load, flush or shut down (each of those waits for file
// threads, possibly for the one that runs the callback).

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "engine/Table.h"
#include "engine/TableContext.h"

namespace xrvlog {

class Engine {
 public:
  // stateDirectory: where read positions are kept across restarts. Empty: in a
  // private directory that goes with the engine, so that a flush and reload resume
  // where the table stopped but a restart of the process does not.
  // The callbacks' context is the engine's address, which is also its handle.
  explicit Engine(std::string stateDirectory);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  void setDataCallback(XPWP_DataCallback callback) { callbacks_.setData(callback); }
  void setStatusCallback(XPWP_StatusCallback callback) { callbacks_.setStatus(callback); }

  // Reads, compiles and starts one MDL text; a table of the same name is flushed
  // first. CDP_Metafile_Error with the reason in the diagnostics when the text is wrong.
  int load(std::string_view text);
  // nullptr: every table. Returns when their threads have stopped; the agent hears
  // XPWP_TABLE_FULLY_OFFLINE for each a moment later, from another thread.
  int flush(const char* table);
  int ready(const char* table) const;
  int wakeUp(const char* table);
  // Each entry with its table's name.
  std::vector<std::pair<std::string, FileReport>> files() const;
  std::vector<std::pair<std::string, PatternReport>> patterns() const;
  // Stops everything; called once, before destruction, by XPWP_StopCommonProvider.
  void shutdown();

 private:
  std::vector<std::shared_ptr<Table>> snapshot(const char* table) const;
  void announce();

  Callbacks callbacks_;
  std::string stateDirectory_;
  bool ownStateDirectory_ = false;

  mutable std::mutex lock_;  // guards tables_
  std::map<std::string, std::shared_ptr<Table>, std::less<>> tables_;
  // Serialises loads and flushes, so that a load never starts a table while a flush
  // of the same name is still stopping the old one.
  std::mutex changeLock_;

  std::mutex offlineLock_;  // guards offline_ and stopping_
  std::condition_variable offlineReady_;
  std::deque<std::string> offline_;
  bool stopping_ = false;
  std::thread announcer_;
};

}  // namespace xrvlog
