// Linux: the inline thread queries of the platform contract.
#ifndef ZMXUTI_PLATFORM_LINUX_THREADS_INLINE_H
#define ZMXUTI_PLATFORM_LINUX_THREADS_INLINE_H

#include <sys/single_threaded.h>

namespace zmx {
namespace platform {

// The C library clears its flag before a second thread is started, and the
// thread asking is then the only one that can start one.
inline bool ProcessIsSingleThreaded() { return __libc_single_threaded != 0; }

}  // namespace platform
}  // namespace zmx

#endif  // ZMXUTI_PLATFORM_LINUX_THREADS_INLINE_H
