// The platform's error state: the last system error of the calling thread and
// the process's system error mode (Windows: GetLastError, SetErrorMode).
#ifndef ZMXUTI_PLATFORM_ERRORS_H
#define ZMXUTI_PLATFORM_ERRORS_H

namespace zmx {
namespace platform {

// The operating system's last error code of the calling thread.
unsigned LastSystemError();

// Hands the process's error mode to the system; systems without one ignore it.
void SetSystemErrorMode(unsigned mode);

}  // namespace platform
}  // namespace zmx

#endif  // ZMXUTI_PLATFORM_ERRORS_H
