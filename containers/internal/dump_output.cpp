// Dump sink of the containers, on the runtime's stdio until the library's
// standard streams take over.
#include "containers/internal/dump_output.h"

#include <cstdio>

namespace omi_internal {

void WriteStandardOutput(const char* text, std::size_t length, bool flush) {
  std::fwrite(text, 1, length, stdout);
  if (flush) std::fflush(stdout);
}

void WriteStandardError(const char* text, std::size_t length, bool flush) {
  std::fwrite(text, 1, length, stderr);
  if (flush) std::fflush(stderr);
}

}  // namespace omi_internal
