#pragma once

// Clang's thread-safety attributes: who must hold what is checked by the compiler.
#if defined(__clang__)
#define BRELIX_ATTRIBUTE(x) __attribute__((x))
#else
#define BRELIX_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) BRELIX_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY BRELIX_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) BRELIX_ATTRIBUTE(guarded_by(x))
#define PT_GUARDED_BY(x) BRELIX_ATTRIBUTE(pt_guarded_by(x))
#define REQUIRES(...) BRELIX_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) BRELIX_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) BRELIX_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) BRELIX_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) BRELIX_ATTRIBUTE(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) BRELIX_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) BRELIX_ATTRIBUTE(release_generic_capability(__VA_ARGS__))
#define EXCLUDES(...) BRELIX_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS BRELIX_ATTRIBUTE(no_thread_safety_analysis)
