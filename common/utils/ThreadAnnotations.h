#pragma once

/// Lock annotations for clang's -Wthread-safety; empty for other compilers.

#if defined(__clang__)
#define ZEL_ATTRIBUTE(x) __attribute__((x))
#else
#define ZEL_ATTRIBUTE(x)
#endif

#define ZEL_CAPABILITY(name) ZEL_ATTRIBUTE(capability(name))
#define ZEL_SCOPED_CAPABILITY ZEL_ATTRIBUTE(scoped_lockable)
#define ZEL_GUARDED_BY(mutex) ZEL_ATTRIBUTE(guarded_by(mutex))
#define ZEL_REQUIRES(...) ZEL_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ZEL_REQUIRES_SHARED(...) ZEL_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define ZEL_ACQUIRE(...) ZEL_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ZEL_ACQUIRE_SHARED(...) ZEL_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define ZEL_TRY_ACQUIRE(...) ZEL_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define ZEL_RELEASE(...) ZEL_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ZEL_RELEASE_SHARED(...) ZEL_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define ZEL_RELEASE_GENERIC(...) ZEL_ATTRIBUTE(release_generic_capability(__VA_ARGS__))
#define ZEL_ASSERT_CAPABILITY(...) ZEL_ATTRIBUTE(assert_capability(__VA_ARGS__))
#define ZEL_ASSERT_SHARED_CAPABILITY(...) ZEL_ATTRIBUTE(assert_shared_capability(__VA_ARGS__))
#define ZEL_EXCLUDES(...) ZEL_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ZEL_NO_THREAD_SAFETY_ANALYSIS ZEL_ATTRIBUTE(no_thread_safety_analysis)
