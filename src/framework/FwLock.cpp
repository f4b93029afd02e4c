#include "framework/FwLock.h"

#include <cerrno>

int fwLockInit(FwLock* lock) {
  if (lock == nullptr) {
    return EINVAL;
  }
  return pthread_mutex_init(&lock->mutex, nullptr);
}

int fwLockGet(FwLock* lock) { return lock == nullptr ? EINVAL : pthread_mutex_lock(&lock->mutex); }

int fwLockRelease(FwLock* lock) {
  return lock == nullptr ? EINVAL : pthread_mutex_unlock(&lock->mutex);
}

int fwLockDestroy(FwLock* lock) {
  return lock == nullptr ? EINVAL : pthread_mutex_destroy(&lock->mutex);
}
