// Linux error state for the platform contract: the system's last error is
// errno, and there is no process error mode to hand over.
#include "platform/errors.h"

#include <cerrno>

namespace zmx {
namespace platform {

unsigned LastSystemError() { return static_cast<unsigned>(errno); }

void SetSystemErrorMode(unsigned) {}

}  // namespace platform
}  // namespace zmx
