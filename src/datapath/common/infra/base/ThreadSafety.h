#pragma once

// Annotations for clang's thread-safety analysis: which lock guards a member, and which function takes or needs a lock.
// Other compilers see nothing. Source: the chapter Thread Safety Analysis of clang's documentation.

#if defined(__clang__)
/// An attribute of clang; nothing for other compilers.
#define TAVRO_ANNOTATION(annotation) __attribute__((annotation))
#else
/// An attribute of clang; nothing for other compilers.
#define TAVRO_ANNOTATION(annotation)
#endif

/// The class is a lock; the name is for the compiler's messages.
#define TAVRO_CAPABILITY(name) TAVRO_ANNOTATION(capability(name))
/// Objects of the class hold a lock from their construction to their destruction.
#define TAVRO_SCOPED_CAPABILITY TAVRO_ANNOTATION(scoped_lockable)
/// The member may be used only while the lock is held.
#define TAVRO_GUARDED_BY(lock) TAVRO_ANNOTATION(guarded_by(lock))
/// The function takes the locks, or the object itself, and keeps them.
#define TAVRO_ACQUIRES(...) TAVRO_ANNOTATION(acquire_capability(__VA_ARGS__))
/// The function gives the locks back, or the object itself.
#define TAVRO_RELEASES(...) TAVRO_ANNOTATION(release_capability(__VA_ARGS__))
/// The caller must not hold the locks, because the function takes them.
#define TAVRO_EXCLUDES(...) TAVRO_ANNOTATION(locks_excluded(__VA_ARGS__))
/// From this call on the compiler takes the locks to be held.
#define TAVRO_ASSERTS_HELD(...) TAVRO_ANNOTATION(assert_capability(__VA_ARGS__))
/// The function returns this lock.
#define TAVRO_RETURNS_CAPABILITY(lock) TAVRO_ANNOTATION(lock_returned(lock))
/// The caller must hold the locks.
#define TAVRO_REQUIRES(...) TAVRO_ANNOTATION(requires_capability(__VA_ARGS__))
