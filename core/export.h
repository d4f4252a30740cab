// Export macro and branch hints used by every public header of ZMXUTI_CoreUtils.
#ifndef ZMXUTI_CORE_EXPORT_H
#define ZMXUTI_CORE_EXPORT_H

#if defined(_WIN32)
#  if defined(ZMXUTI_BUILDING_LIBRARY)
#    define ZMXUTI_API __declspec(dllexport)
#  else
#    define ZMXUTI_API __declspec(dllimport)
#  endif
#else
#  define ZMXUTI_API __attribute__((visibility("default")))
#endif

// Library-internal hooks that the test suite reaches (not part of the public API).
#define ZMXUTI_INTERNAL_API ZMXUTI_API

#if defined(__GNUC__)
#  define ZMX_LIKELY(x) __builtin_expect(!!(x), 1)
#  define ZMX_UNLIKELY(x) __builtin_expect(!!(x), 0)
#  define ZMX_NOINLINE __attribute__((noinline))
#else
#  define ZMX_LIKELY(x) (x)
#  define ZMX_UNLIKELY(x) (x)
#  define ZMX_NOINLINE
#endif

#endif  // ZMXUTI_CORE_EXPORT_H
