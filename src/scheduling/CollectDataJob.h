#pragma once

// CollectDataJob: one collection of one provider, run by the thread pool. While the
// job is queued or running the provider is marked as on the queue, so that the
// scheduler does not queue it twice.

#include <string>

#include "scheduling/ThreadPool.h"

class UAClientClass;

// Called after every collection a job ran (the subnode manager registers subnodes
// held back until their first data). Installed once at start-up; may be null.
using CollectionDoneHook = void (*)(UAClientClass* provider);
void setCollectionDoneHook(CollectionDoneHook hook);
// Calls the hook, when one is installed.
void notifyCollectionDone(UAClientClass* provider);

class CollectDataJob : public IThreadPoolJob {
 public:
  // `id` names the job in traces (copied).
  CollectDataJob(UAClientClass* provider, const char* id);

  // Collects (collectData; collectDataIfNeeded with the use-cache flag), then clears
  // the provider's on-queue mark.
  void execute() override;
  // Also marks the provider as on the queue.
  void setTimeOnQueue(const struct timespec& when) override;
  void setUseCache(bool useCache) { useCache_ = useCache; }
  UAClientClass* getProvider() const { return provider_; }

 private:
  UAClientClass* provider_;
  std::string id_;
  bool useCache_ = false;
};
