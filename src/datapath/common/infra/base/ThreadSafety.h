#pragma once

// Annotations for clang's thread-safety analysis: which lock guards a member, and which function takes or needs a lock.
// Other compilers see nothing. Source: the chapter Thread Safety Analysis of clang's documentation.

#if defined(__clang__)
#define TAVRO_ANNOTATION(annotation) __attribute__((annotation))
#else
#define TAVRO_ANNOTATION(annotation)
#endif

#define TAVRO_CAPABILITY(name) TAVRO_ANNOTATION(capability(name))
#define TAVRO_SCOPED_CAPABILITY TAVRO_ANNOTATION(scoped_lockable)
#define TAVRO_GUARDED_BY(lock) TAVRO_ANNOTATION(guarded_by(lock))
#define TAVRO_ACQUIRES(...) TAVRO_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TAVRO_RELEASES(...) TAVRO_ANNOTATION(release_capability(__VA_ARGS__))
#define TAVRO_EXCLUDES(...) TAVRO_ANNOTATION(locks_excluded(__VA_ARGS__))
#define TAVRO_ASSERTS_HELD(...) TAVRO_ANNOTATION(assert_capability(__VA_ARGS__))
#define TAVRO_RETURNS_CAPABILITY(lock) TAVRO_ANNOTATION(lock_returned(lock))
#define TAVRO_REQUIRES(...) TAVRO_ANNOTATION(requires_capability(__VA_ARGS__))
