#include "foundation/ThreadPoolJob.h"

#include <atomic>

namespace {
std::atomic<ThreadPoolJobSink> installedSink{nullptr};
}  // namespace

void setThreadPoolJobSink(ThreadPoolJobSink sink) { installedSink.store(sink); }

bool submitThreadPoolJob(IThreadPoolJob* job) {
  const ThreadPoolJobSink sink = installedSink.load();
  return job != nullptr && sink != nullptr && sink(job);
}
