#pragma once

// The framework's lock service: a plain non-recursive mutex behind a small C-style
// interface. Every operation returns 0 on success or an errno value.

#include <pthread.h>

struct FwLock {
  pthread_mutex_t mutex;
};

int fwLockInit(FwLock* lock);
int fwLockGet(FwLock* lock);
int fwLockRelease(FwLock* lock);
int fwLockDestroy(FwLock* lock);
