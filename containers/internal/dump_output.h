// Where the containers' debug dumps go: the library's standard streams.
#ifndef ZMXUTI_CONTAINERS_INTERNAL_DUMP_OUTPUT_H
#define ZMXUTI_CONTAINERS_INTERNAL_DUMP_OUTPUT_H

#include <cstddef>

namespace zmx {
namespace containers_internal {

// Writes text to aio_cout / aio_cerr; flush pushes the stream's buffer out.
void WriteStandardOutput(const char* text, std::size_t length, bool flush);
void WriteStandardError(const char* text, std::size_t length, bool flush);

}  // namespace containers_internal
}  // namespace zmx

#endif  // ZMXUTI_CONTAINERS_INTERNAL_DUMP_OUTPUT_H
