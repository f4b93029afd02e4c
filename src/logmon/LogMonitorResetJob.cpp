#include "logmon/LogMonitorResetJob.h"

#include <system_error>
#include <thread>

#include "framework/Trace.h"

LogMonitorResetJob::LogMonitorResetJob(LogMonitorQueryClass* object)
    : target_(object->resetTarget()) {}

void LogMonitorResetJob::execute() {
  XRV_TRACE_FN();
  std::lock_guard<std::mutex> lock(target_->lock);
  if (target_->object == nullptr) {
    XRV_TRACE_DETAIL("The log monitor object of this reset is gone, nothing to complete");
    return;
  }
  target_->object->completeReset();
}

void LogMonitorResetJob::submit(LogMonitorQueryClass* object) {
  XRV_TRACE_FN();
  auto* job = new LogMonitorResetJob(object);
  if (submitThreadPoolJob(job)) {
    return;
  }
  // No pool: a thread of its own. It holds only the job, which holds the object's
  // reset target, so it may outlive the object.
  try {
    std::thread([job] {
      job->execute();
      delete job;
    }).detach();
  } catch (const std::system_error& error) {
    XRV_TRACE_ERROR("ERROR: could not start a thread to complete the reset of %s: %s",
                    object->getAttributeGroup(), error.what());
    delete job;
  }
}
