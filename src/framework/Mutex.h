#pragma once

// The standard library's mutexes with the thread-safety annotations, for state that
// is waited on with a std::condition_variable or read by many threads at once.
// libstdc++'s own std::mutex carries no annotations, so a member declared
// XRV_GUARDED_BY(aStdMutex) would not be checked; declared XRV_GUARDED_BY(anXrvMutex)
// it is, by the clang build (-Wthread-safety).
//
//   XRV::Mutex        a std::mutex
//   XRV::MutexLock    holds it for its scope; native() is the std::unique_lock a
//                     condition variable waits with (the wait gives the mutex up and
//                     takes it back before it returns, so the scope still holds it)
//   XRV::SharedMutex  a std::shared_mutex: one writer or many readers
//   XRV::WriterLock   holds it exclusively for its scope
//   XRV::ReaderLock   holds it shared for its scope
//
// The foundation's PthreadMutex and LockObject (foundation/Locks.h) stay the locks of
// the containers and of code that must report a failed lock.

#include <mutex>
#include <shared_mutex>

#include "framework/ThreadAnnotations.h"

namespace XRV {

class XRV_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() XRV_ACQUIRE() { mutex_.lock(); }
  void unlock() XRV_RELEASE() { mutex_.unlock(); }
  std::mutex& native() { return mutex_; }

 private:
  std::mutex mutex_;
};

class XRV_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) XRV_ACQUIRE(mutex) : lock_(mutex.native()) {}
  ~MutexLock() XRV_RELEASE() {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  // Gives the mutex up for a while (work that must not hold it) and takes it back.
  void unlock() XRV_RELEASE() { lock_.unlock(); }
  void lock() XRV_ACQUIRE() { lock_.lock(); }

  // For std::condition_variable::wait and its kin only.
  std::unique_lock<std::mutex>& native() { return lock_; }

 private:
  std::unique_lock<std::mutex> lock_;
};

class XRV_CAPABILITY("mutex") SharedMutex {
 public:
  SharedMutex() = default;
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  void lock() XRV_ACQUIRE() { mutex_.lock(); }
  void unlock() XRV_RELEASE() { mutex_.unlock(); }
  void lock_shared() XRV_ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void unlock_shared() XRV_RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

class XRV_SCOPED_CAPABILITY WriterLock {
 public:
  explicit WriterLock(SharedMutex& mutex) XRV_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~WriterLock() XRV_RELEASE() { mutex_.unlock(); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  SharedMutex& mutex_;
};

class XRV_SCOPED_CAPABILITY ReaderLock {
 public:
  explicit ReaderLock(SharedMutex& mutex) XRV_ACQUIRE_SHARED(mutex) : mutex_(mutex) {
    mutex_.lock_shared();
  }
  ~ReaderLock() XRV_RELEASE() { mutex_.unlock_shared(); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

 private:
  SharedMutex& mutex_;
};

}  // namespace XRV
