// Clang thread-safety annotations; they expand to nothing on other compilers.
// A clang build with -Wthread-safety checks that guarded members are only
// touched with their lock held.
#ifndef FTPDISK_FOUNDATION_THREAD_ANNOTATIONS_H
#define FTPDISK_FOUNDATION_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define FTPDISK_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define FTPDISK_THREAD_ANNOTATION(x)
#endif

#define FTPDISK_CAPABILITY(x) FTPDISK_THREAD_ANNOTATION(capability(x))
#define FTPDISK_SCOPED_CAPABILITY FTPDISK_THREAD_ANNOTATION(scoped_lockable)
#define FTPDISK_GUARDED_BY(x) FTPDISK_THREAD_ANNOTATION(guarded_by(x))
#define FTPDISK_REQUIRES(...) FTPDISK_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define FTPDISK_ACQUIRE(...) FTPDISK_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define FTPDISK_RELEASE(...) FTPDISK_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define FTPDISK_EXCLUDES(...) FTPDISK_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define FTPDISK_NO_THREAD_SAFETY_ANALYSIS FTPDISK_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // FTPDISK_FOUNDATION_THREAD_ANNOTATIONS_H
