// The string stream over a temporary file, and the temporary-file maker with
// its retry rules.
#include "streams/strstream.h"

#include <cerrno>
#include <cstdint>

#include "platform/clock.h"
#include "platform/temp_files.h"
#include "streams/fstream.h"
#include "streams/internal/temp_file.h"

namespace zmx {
namespace streams_internal {

namespace {

// Every 16-bit number once; after that the directory is hopeless.
constexpr unsigned int kMaxAttempts = 0x10000;

FILE* GiveUp(const char* name, int error) {
  std::fprintf(stderr, "Failed to create %s\n", name);
  errno = error;  // for the caller's perror, whatever fprintf did to errno
  return nullptr;
}

}  // namespace

FILE* CreateTempFileFrom(unsigned int firstUnique) {
  char dir[platform::kMaxPath];
  char name[platform::kMaxPath];
  platform::TempDirectory(dir);
  unsigned int unique = firstUnique & 0xFFFFu;
  bool accessRetryLeft = true;
  for (unsigned int attempt = 1;; ++attempt) {
    platform::TempFileName(dir, "utl", unique, name);
    unique = (unique + 1) & 0xFFFFu;
    int error = 0;
    if (FILE* file = platform::OpenTempFile(name, &error)) return file;
    if (error == EEXIST && attempt < kMaxAttempts) {
      // Deliberate: a leftover file of that name is deleted, not skipped.
      std::remove(name);
    } else if (error == EACCES && accessRetryLeft) {
      accessRetryLeft = false;
    } else {
      return GiveUp(name, error);
    }
  }
}

}  // namespace streams_internal
}  // namespace zmx

FILE* aio_createTempFile() {
  std::int64_t seconds = 0;
  std::uint32_t milliseconds = 0;
  zmx::platform::TimeOfDay(&seconds, &milliseconds);
  return zmx::streams_internal::CreateTempFileFrom(milliseconds);
}

aio_ostrstream::aio_ostrstream() {
  attach(aio_createTempFile(), true);
  if (stream_ == nullptr) {
    const int error = errno;
    failOutput();
    errno = error;
    std::perror("aio_ostrstream");
  }
}

namespace {

// Reads n bytes into buf through `in`, in pieces that fit read's int count;
// returns how many arrived.
std::uint64_t ReadAll(aio_istream& in, char* buf, std::uint64_t n) {
  constexpr std::uint64_t kPiece = 1u << 30;
  std::uint64_t done = 0;
  while (done < n) {
    const std::uint64_t want = (n - done < kPiece) ? n - done : kPiece;
    const int got = in.read(buf + done, static_cast<int>(want));
    done += static_cast<std::uint64_t>(got);
    if (static_cast<std::uint64_t>(got) < want) break;
  }
  return done;
}

}  // namespace

char* aio_ostrstream::adoptString(void* (*alloc)(std::size_t)) {
  if (alloc == nullptr) return nullptr;
  if (stream_ == nullptr) {
    failOutput();
    return nullptr;
  }
  flush();
  const long written = std::ftell(stream_);
  if (written < 0) {
    failOutput();
    return nullptr;
  }
  const std::uint64_t n = static_cast<std::uint64_t>(written);
  char* buffer = static_cast<char*>(alloc(static_cast<std::size_t>(n) + 1));
  if (buffer == nullptr) return nullptr;
  // A reader of its own over the same FILE: this stream's state stays out of it.
  aio_ifstream reader;
  reader.attach(stream_, false);
  reader.seekg(0, aio_ios::beg);
  const std::uint64_t got = ReadAll(reader, buffer, n);
  buffer[got] = '\0';
  // Reading must be followed by a seek before the FILE may be written again;
  // this one keeps the position where the read ended.
  reader.seekg(0, aio_ios::cur);
  return buffer;
}
