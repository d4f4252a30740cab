// The temporary-file maker with its first unique number chosen by the caller,
// so that tests can reach the taken-name path without waiting on the clock.
#ifndef ZMXUTI_STREAMS_INTERNAL_TEMP_FILE_H
#define ZMXUTI_STREAMS_INTERNAL_TEMP_FILE_H

#include <cstdio>

#include "core/export.h"

namespace zmx {
namespace streams_internal {

// aio_createTempFile starting from `firstUnique` (low 16 bits) instead of the clock.
ZMXUTI_INTERNAL_API FILE* CreateTempFileFrom(unsigned int firstUnique);

}  // namespace streams_internal
}  // namespace zmx

#endif  // ZMXUTI_STREAMS_INTERNAL_TEMP_FILE_H
