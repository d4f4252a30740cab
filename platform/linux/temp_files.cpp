// Linux temporary files and path checks: TMPDIR or P_tmpdir for the
// directory, open(O_EXCL) followed by unlink for delete-on-close.
#include "platform/temp_files.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace zmx {
namespace platform {

namespace {

// "/utlXXXX.TMP" and the NUL must still fit behind the directory.
constexpr std::size_t kMaxDirectory = kMaxPath - 1 - 12;

// Copies `dir` without trailing separators (keeping a lone "/"); false when
// it is empty or too long.
bool TakeDirectory(const char* dir, char (&out)[kMaxPath]) {
  if (dir == nullptr) return false;
  std::size_t len = std::strlen(dir);
  while (len > 1 && dir[len - 1] == '/') --len;
  if (len == 0 || len > kMaxDirectory) return false;
  std::memcpy(out, dir, len);
  out[len] = '\0';
  return true;
}

}  // namespace

bool PathExists(const char* path) { return path != nullptr && ::access(path, F_OK) == 0; }

bool PathReadable(const char* path) { return path != nullptr && ::access(path, R_OK) == 0; }

void TempDirectory(char (&dir)[kMaxPath]) {
  if (TakeDirectory(std::getenv("TMPDIR"), dir)) return;
#ifdef P_tmpdir
  if (TakeDirectory(P_tmpdir, dir)) return;
#endif
  std::strcpy(dir, "/tmp");
}

void TempFileName(const char* dir, const char* prefix, unsigned int unique, char (&name)[kMaxPath]) {
  const std::size_t len = std::strlen(dir);
  const char* separator = (len > 0 && dir[len - 1] == '/') ? "" : "/";
  std::snprintf(name, sizeof name, "%s%s%s%04X.TMP", dir, separator, prefix, unique & 0xFFFFu);
}

std::FILE* OpenTempFile(const char* name, int* error) {
  const int fd = ::open(name, O_RDWR | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR);
  if (fd < 0) {
    *error = errno;
    return nullptr;
  }
  // The open descriptor keeps the data alive; without a name nothing is left
  // behind however the process ends.
  ::unlink(name);
  std::FILE* file = ::fdopen(fd, "w+b");
  if (file == nullptr) {
    *error = errno;
    ::close(fd);
  }
  return file;
}

}  // namespace platform
}  // namespace zmx
