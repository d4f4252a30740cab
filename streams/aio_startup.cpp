// Start-up and shut-down of the streams component.
#include "core/internal/use_counter.h"
#include "core/startup.h"

namespace {
int g_aioUseCount = 0;
}

// The standard streams are attached here once they exist.
void aio_initialize(int& depth) { zmx::core_internal::StartUp(g_aioUseCount, depth, zmx::core_internal::NoWork); }
void aio_finalize(int& depth) { zmx::core_internal::ShutDown(g_aioUseCount, depth, zmx::core_internal::NoWork); }
