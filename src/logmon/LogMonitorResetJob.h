#pragma once

// LogMonitorResetJob: completes the reset of one log monitor object on the worker
// pool, after the engine reported its table fully offline (or, at start, the first
// reset). A job whose object went away before it ran does nothing.

#include <memory>

#include "foundation/ThreadPoolJob.h"
#include "logmon/LogMonitorQueryClass.h"

class LogMonitorResetJob : public IThreadPoolJob {
 public:
  explicit LogMonitorResetJob(LogMonitorQueryClass* object);

  // completeReset on the object, when it still exists.
  void execute() override;

  // Hands a job for `object` to the worker pool, or, when no pool takes jobs, runs it
  // on a thread of its own.
  static void submit(LogMonitorQueryClass* object);

 private:
  std::shared_ptr<LogMonitorQueryClass::ResetTarget> target_;
};
