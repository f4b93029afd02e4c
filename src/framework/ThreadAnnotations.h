#pragma once

// Clang thread-safety annotations. A clang build with -Wthread-safety checks that
// members marked XRV_GUARDED_BY are only touched with their lock held and that
// functions marked XRV_REQUIRES are only called with it held. Other compilers
// ignore them.

#if defined(__clang__)
#define XRV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define XRV_THREAD_ANNOTATION(x)
#endif

#define XRV_CAPABILITY(x) XRV_THREAD_ANNOTATION(capability(x))
#define XRV_SCOPED_CAPABILITY XRV_THREAD_ANNOTATION(scoped_lockable)
#define XRV_GUARDED_BY(x) XRV_THREAD_ANNOTATION(guarded_by(x))
#define XRV_PT_GUARDED_BY(x) XRV_THREAD_ANNOTATION(pt_guarded_by(x))
#define XRV_ACQUIRED_BEFORE(...) XRV_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define XRV_ACQUIRED_AFTER(...) XRV_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define XRV_REQUIRES(...) XRV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define XRV_ACQUIRE(...) XRV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define XRV_RELEASE(...) XRV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define XRV_ACQUIRE_SHARED(...) XRV_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define XRV_RELEASE_SHARED(...) XRV_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define XRV_REQUIRES_SHARED(...) XRV_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define XRV_TRY_ACQUIRE(...) XRV_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define XRV_EXCLUDES(...) XRV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define XRV_RETURN_CAPABILITY(x) XRV_THREAD_ANNOTATION(lock_returned(x))
#define XRV_NO_THREAD_SAFETY_ANALYSIS XRV_THREAD_ANNOTATION(no_thread_safety_analysis)
