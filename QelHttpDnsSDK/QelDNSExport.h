// The library is built with hidden symbols; QEL_EXPORT marks the classes and constants an
// application may use, the only names the shared library exports. QEL_HIDDEN keeps a private
// member of an exported class out of it when its signature names a platform type, so the
// exported interface never depends on the platform's classes.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define QEL_EXPORT __attribute__((visibility("default")))
#define QEL_HIDDEN __attribute__((visibility("hidden")))
#else
#define QEL_EXPORT
#define QEL_HIDDEN
#endif
