#include "scheduling/CollectDataJob.h"

#include <atomic>

#include "framework/Trace.h"
#include "provider/UAClientClass.h"

namespace {
std::atomic<CollectionDoneHook> collectionDone{nullptr};
}  // namespace

void setCollectionDoneHook(CollectionDoneHook hook) { collectionDone.store(hook); }

void notifyCollectionDone(UAClientClass* provider) {
  if (CollectionDoneHook hook = collectionDone.load()) {
    hook(provider);
  }
}

CollectDataJob::CollectDataJob(UAClientClass* provider, const char* id)
    : provider_(provider), id_(id == nullptr ? "" : id) {}

void CollectDataJob::setTimeOnQueue(const struct timespec& when) {
  IThreadPoolJob::setTimeOnQueue(when);
  provider_->setOnQueue(true);
}

void CollectDataJob::execute() {
  XRV_TRACE_FN();
  if (provider_->getObjectType() == UA_EVENT_LOG) {
    XRV_TRACE_ERROR("Can't execute WinLogQueryList on non-Windows system");
  } else if (useCache_) {
    provider_->collectDataIfNeeded(id_.c_str());
  } else {
    provider_->collectData(id_.c_str());
  }
  notifyCollectionDone(provider_);
  // The last touch of the provider: once it is off the queue, a removed subnode's
  // copy may be deleted.
  provider_->setOnQueue(false);
}
