// Clang's thread-safety attributes: they state which lock guards what, and clang checks it (-Wthread-safety).
// Other compilers see nothing.
#pragma once

#if defined(__clang__)
#define VEYRA_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define VEYRA_THREAD_ATTRIBUTE(x)
#endif

#define VEYRA_CAPABILITY(name) VEYRA_THREAD_ATTRIBUTE(capability(name))
#define VEYRA_SCOPED_CAPABILITY VEYRA_THREAD_ATTRIBUTE(scoped_lockable)
#define VEYRA_GUARDED_BY(lock) VEYRA_THREAD_ATTRIBUTE(guarded_by(lock))
#define VEYRA_REQUIRES(...) VEYRA_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define VEYRA_REQUIRES_SHARED(...) VEYRA_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define VEYRA_EXCLUDES(...) VEYRA_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define VEYRA_ACQUIRE(...) VEYRA_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define VEYRA_ACQUIRE_SHARED(...) VEYRA_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define VEYRA_RELEASE(...) VEYRA_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define VEYRA_RELEASE_SHARED(...) VEYRA_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define VEYRA_RELEASE_GENERIC(...) VEYRA_THREAD_ATTRIBUTE(release_generic_capability(__VA_ARGS__))
#define VEYRA_TRY_ACQUIRE(...) VEYRA_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define VEYRA_NO_THREAD_SAFETY_ANALYSIS VEYRA_THREAD_ATTRIBUTE(no_thread_safety_analysis)
