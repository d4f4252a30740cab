// Linux files for the platform contract: output files private to their owner.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/platform.h"

namespace zmx {
namespace platform {

std::FILE* OpenOwnerFile(const char* path) {
  const int fd = ::open(path, O_RDWR | O_CREAT | O_TRUNC, S_IRUSR | S_IWUSR);
  if (fd < 0) return nullptr;
  std::FILE* file = ::fdopen(fd, "w+b");
  if (file == nullptr) ::close(fd);
  return file;
}

}  // namespace platform
}  // namespace zmx
