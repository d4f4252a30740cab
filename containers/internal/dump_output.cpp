// Dump sink of the containers: the library's standard streams aio_cout and aio_cerr.
#include "containers/internal/dump_output.h"

#include "streams/standard_streams.h"

namespace zmx {
namespace containers_internal {

namespace {
void WriteTo(aio_ostream& stream, const char* text, std::size_t length, bool flush) {
  // The stream writes at most INT_MAX bytes at a time.
  constexpr std::size_t kLargestWrite = 1u << 30;
  while (length > 0) {
    const std::size_t piece = length < kLargestWrite ? length : kLargestWrite;
    stream.write(text, static_cast<int>(piece));
    text += piece;
    length -= piece;
  }
  if (flush) stream.flush();
}
}  // namespace

void WriteStandardOutput(const char* text, std::size_t length, bool flush) { WriteTo(aio_cout, text, length, flush); }

void WriteStandardError(const char* text, std::size_t length, bool flush) { WriteTo(aio_cerr, text, length, flush); }

}  // namespace containers_internal
}  // namespace zmx
