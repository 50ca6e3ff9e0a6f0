// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Which lock guards what, told to the compiler: Clang refuses code that touches a member without
// its lock (-Wthread-safety); for other compilers the words are empty.
//
//   KdMonitor Monitor_m;
//   std::list<int> Queue_m GUARDED_BY(Monitor_m);   // touched only between enter and leave
//   int takeFirst() REQUIRES(Monitor_m);            // called only between enter and leave
#pragma once

#if defined(__clang__)
#define KDDC_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KDDC_THREAD_ANNOTATION(x)
#endif

// On a class: its objects are locks; or they hold one from constructor to destructor.
#define CAPABILITY(name) KDDC_THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY KDDC_THREAD_ANNOTATION(scoped_lockable)

// On a member: the lock that guards it, or what it points to.
#define GUARDED_BY(lock) KDDC_THREAD_ANNOTATION(guarded_by(lock))
#define PT_GUARDED_BY(lock) KDDC_THREAD_ANNOTATION(pt_guarded_by(lock))

// On a function: it takes a lock, gives it back, needs it held, or must be called without it.
// Without an argument the lock is the object itself.
#define ACQUIRE(...) KDDC_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) KDDC_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define REQUIRES(...) KDDC_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) KDDC_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// On a member: it is taken after, or before, another lock.
#define ACQUIRED_AFTER(...) KDDC_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) KDDC_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))

// On a function whose locking the compiler cannot follow; say beside it why it is right.
#define NO_THREAD_SAFETY_ANALYSIS KDDC_THREAD_ANNOTATION(no_thread_safety_analysis)
