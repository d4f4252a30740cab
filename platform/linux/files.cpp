// Linux files for the platform contract: output files private to their owner,
// written through plain descriptors.
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/platform.h"

namespace zmx {
namespace platform {

int OpenOwnerFile(const char* path) {
  int fd;
  do {
    fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

bool WriteOwnerFile(int file, const void* data, std::size_t size) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t done = ::write(file, bytes, size);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    bytes += done;
    size -= static_cast<std::size_t>(done);
  }
  return true;
}

bool WriteOwnerFileAt(int file, const void* data, std::size_t size, std::uint64_t offset) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t done = ::pwrite(file, bytes, size, static_cast<off_t>(offset));
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    bytes += done;
    offset += static_cast<std::uint64_t>(done);
    size -= static_cast<std::size_t>(done);
  }
  return true;
}

void CloseOwnerFile(int file) { ::close(file); }

}  // namespace platform
}  // namespace zmx
