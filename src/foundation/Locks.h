#pragma once

// The agent's two lock wrappers and their scoped guards.
//
// PthreadMutex: one POSIX mutex with default attributes (not recursive).
// LockObject: one lock of the framework's lock service.
// Both carry thread-safety annotations, so members can be declared
// XRV_GUARDED_BY(someMutex) and a clang build checks every access.

#include <pthread.h>

#include "framework/FwLock.h"
#include "framework/ThreadAnnotations.h"

class XRV_CAPABILITY("mutex") PthreadMutex {
 public:
  PthreadMutex() { pthread_mutex_init(&mutex_, nullptr); }
  ~PthreadMutex() { pthread_mutex_destroy(&mutex_); }
  PthreadMutex(const PthreadMutex&) = delete;
  PthreadMutex& operator=(const PthreadMutex&) = delete;

  void lock() XRV_ACQUIRE() { pthread_mutex_lock(&mutex_); }
  void unlock() XRV_RELEASE() { pthread_mutex_unlock(&mutex_); }
  // For condition variables that wait on this mutex.
  pthread_mutex_t* native() { return &mutex_; }

 private:
  pthread_mutex_t mutex_;
};

class XRV_CAPABILITY("mutex") LockObject {
 public:
  LockObject() { fwLockInit(&lock_); }
  ~LockObject() { fwLockDestroy(&lock_); }
  LockObject(const LockObject&) = delete;
  LockObject& operator=(const LockObject&) = delete;

  void getLock() XRV_ACQUIRE() { fwLockGet(&lock_); }
  void releaseLock() XRV_RELEASE() { fwLockRelease(&lock_); }

 private:
  FwLock lock_;
};

// Holds a PthreadMutex for the guard's scope.
class XRV_SCOPED_CAPABILITY PthreadMutexLock {
 public:
  explicit PthreadMutexLock(PthreadMutex& mutex) XRV_ACQUIRE(mutex) : mutex_(mutex) {
    mutex_.lock();
  }
  ~PthreadMutexLock() XRV_RELEASE() { mutex_.unlock(); }
  PthreadMutexLock(const PthreadMutexLock&) = delete;
  PthreadMutexLock& operator=(const PthreadMutexLock&) = delete;

 private:
  PthreadMutex& mutex_;
};

// Holds a LockObject for the guard's scope.
class XRV_SCOPED_CAPABILITY LockObjectGuard {
 public:
  explicit LockObjectGuard(LockObject& lock) XRV_ACQUIRE(lock) : lock_(lock) { lock_.getLock(); }
  ~LockObjectGuard() XRV_RELEASE() { lock_.releaseLock(); }
  LockObjectGuard(const LockObjectGuard&) = delete;
  LockObjectGuard& operator=(const LockObjectGuard&) = delete;

 private:
  LockObject& lock_;
};
