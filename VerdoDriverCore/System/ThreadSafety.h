#pragma once

// Annotations for clang's thread-safety analysis (-Wthread-safety). They say which lock guards a
// member and which locks a function needs, and cost nothing with other compilers.

#if defined(__clang__)
#define VERDO_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define VERDO_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) VERDO_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY VERDO_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) VERDO_THREAD_ATTRIBUTE(guarded_by(x))
#define REQUIRES(...) VERDO_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) VERDO_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VERDO_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define EXCLUDES(...) VERDO_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS VERDO_THREAD_ATTRIBUTE(no_thread_safety_analysis)
