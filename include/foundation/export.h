// Symbol export markers for the foundation and debug-support libraries.
//
// Both libraries are built with hidden visibility; every public class and
// function carries one of these markers so that exactly the documented API is
// exported from the shared objects.
#ifndef ZORV_FOUNDATION_EXPORT_H_
#define ZORV_FOUNDATION_EXPORT_H_

#if defined(__GNUC__) || defined(__clang__)
#define ZORV_FOUNDATION_EXPORT __attribute__((visibility("default")))
#define ZORV_DEBUG_EXPORT __attribute__((visibility("default")))
#else
#define ZORV_FOUNDATION_EXPORT
#define ZORV_DEBUG_EXPORT
#endif

#endif  // ZORV_FOUNDATION_EXPORT_H_
