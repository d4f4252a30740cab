// Start-up and shut-down of the streams component.
#include <cstdio>

#include "core/internal/use_counter.h"
#include "core/startup.h"
#include "streams/standard_streams.h"

namespace {
int g_aioUseCount = 0;

void AttachStandardStreams() {
  aio_cin.attach(stdin, false);
  aio_cout.attach(stdout, false);
  aio_cerr.attach(stderr, false);
}
}  // namespace

// The standard streams stay attached after shut-down: other components may
// still report on them.
void aio_initialize(int& depth) { zmx::core_internal::StartUp(g_aioUseCount, depth, AttachStandardStreams); }
void aio_finalize(int& depth) { zmx::core_internal::ShutDown(g_aioUseCount, depth, zmx::core_internal::NoWork); }
