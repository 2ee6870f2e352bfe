// The library is built with hidden symbols; QEL_EXPORT marks the classes and constants an
// application may use, the only names the shared library exports.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define QEL_EXPORT __attribute__((visibility("default")))
#else
#define QEL_EXPORT
#endif
