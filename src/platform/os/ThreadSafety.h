// Names for clang's thread-safety attributes; empty for other compilers.
#pragma once

#if defined(__clang__)
#define TS_ATTRIBUTE(x) __attribute__((x))
#else
#define TS_ATTRIBUTE(x)
#endif

#define TS_CAPABILITY(x) TS_ATTRIBUTE(capability(x))
#define TS_SCOPED_CAPABILITY TS_ATTRIBUTE(scoped_lockable)
#define TS_GUARDED_BY(x) TS_ATTRIBUTE(guarded_by(x))
#define TS_PT_GUARDED_BY(x) TS_ATTRIBUTE(pt_guarded_by(x))
#define TS_REQUIRES(...) TS_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TS_EXCLUDES(...) TS_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define TS_ACQUIRE(...) TS_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TS_TRY_ACQUIRE(...) TS_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define TS_RELEASE(...) TS_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TS_ASSERT(x) TS_ATTRIBUTE(assert_capability(x))
#define TS_NO_ANALYSIS TS_ATTRIBUTE(no_thread_safety_analysis)
