// Start-up and shut-down of the unit-test harness component (counter only).
#include "core/internal/use_counter.h"
#include "core/startup.h"

namespace {
int g_utsUseCount = 0;
}

void uts_initialize(int& depth) { zmx::core_internal::StartUp(g_utsUseCount, depth, zmx::core_internal::NoWork); }
void uts_finalize(int& depth) { zmx::core_internal::ShutDown(g_utsUseCount, depth, zmx::core_internal::NoWork); }
