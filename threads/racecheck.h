#ifndef RACECHECK_H
#define RACECHECK_H

// Qt's mutexes, semaphores and QThread::wait() work on futexes that the
// thread sanitizer cannot see, so an ordering they guarantee looks like a
// race to it. These marks state such an ordering where our code relies on
// it; they cost nothing in other builds.
#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void *addr);
extern "C" void __tsan_release(void *addr);
#  define RACECHECK_HAPPENS_BEFORE(addr) __tsan_release(static_cast<void *>(addr))
#  define RACECHECK_HAPPENS_AFTER(addr) __tsan_acquire(static_cast<void *>(addr))
#else
#  define RACECHECK_HAPPENS_BEFORE(addr) ((void)0)
#  define RACECHECK_HAPPENS_AFTER(addr) ((void)0)
#endif

#endif // RACECHECK_H
