// A recursive lock (a critical section), and the annotations by which clang checks that
// shared fields are only touched under their lock.
//
// A lock is never destroyed: the few that exist are process-wide.
#ifndef QV_PROTOCOL_LOCK_H
#define QV_PROTOCOL_LOCK_H

#if defined(__clang__)
#define QV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QV_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(name) QV_THREAD_ANNOTATION(capability(name))
#define GUARDED_BY(lock) QV_THREAD_ANNOTATION(guarded_by(lock))
#define PT_GUARDED_BY(lock) QV_THREAD_ANNOTATION(pt_guarded_by(lock))
#define REQUIRES(lock) QV_THREAD_ANNOTATION(requires_capability(lock))
#define EXCLUDES(lock) QV_THREAD_ANNOTATION(locks_excluded(lock))
#define ACQUIRE(...) QV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) QV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS QV_THREAD_ANNOTATION(no_thread_safety_analysis)

// Storage for the platform's lock, large enough for each (checked where it is used).
struct CAPABILITY("lock") lock {
    alignas(16) unsigned char storage[64];
};

// Makes a zeroed lock usable. Calling it again on a lock that is in use does nothing.
void lock_init(lock *l);

// Waits for the lock. The thread that holds it may enter again and must leave as often.
void lock_enter(lock *l) ACQUIRE(l);
void lock_leave(lock *l) RELEASE(l);

#endif
