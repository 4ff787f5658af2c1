// Words for clang's thread-safety analysis (scripts/check-static.sh); nothing for other compilers.
//
// They say in the code what the contracts' last lines say: which lock guards what, and who holds it. A function without
// words is checked as one that holds nothing. Calls through pointers are not followed.
#ifndef PLATFORM_THREAD_SAFETY_H
#define PLATFORM_THREAD_SAFETY_H

#if defined(__clang__)
#define THREAD_SAFETY_WORD(word) __attribute__((word))
#else
#define THREAD_SAFETY_WORD(word)
#endif

#define LOCK_TYPE(name) THREAD_SAFETY_WORD(capability(name))           // this type is a lock
#define LOCK_SCOPE THREAD_SAFETY_WORD(scoped_lockable)                 // an object of it holds a lock while it lives
#define GUARDED_BY(lock) THREAD_SAFETY_WORD(guarded_by(lock))          // read and written with that lock held
#define LOCK_HELD(lock) THREAD_SAFETY_WORD(requires_capability(lock))  // held by caller
#define LOCK_TAKES(...) THREAD_SAFETY_WORD(acquire_capability(__VA_ARGS__))
#define LOCK_GIVES(...) THREAD_SAFETY_WORD(release_capability(__VA_ARGS__))
#define LOCK_UNCHECKED THREAD_SAFETY_WORD(no_thread_safety_analysis)   // with the reason beside it

#endif
