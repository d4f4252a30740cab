// Start-up and shut-down of the whole library and of the process-services component.
#include "core/startup.h"

#include <cstdlib>

#include "core/alerts.h"
#include "core/crash_report.h"
#include "core/fpe.h"
#include "core/internal/use_counter.h"

using zmx::core_internal::ShutDown;
using zmx::core_internal::StartUp;

namespace {
int g_libraryUseCount = 0;
int g_omniUseCount = 0;
bool g_debugPopupsWanted = false;
}  // namespace

void UTI_CoreUtils_initialize(int& depth) {
  StartUp(g_libraryUseCount, depth, [&depth] {
    mem_initialize(depth);
    uts_initialize(depth);
    atr_initialize(depth);
    aio_initialize(depth);
    omni_initialize(depth);
  });
}

void UTI_CoreUtils_finalize(int& depth) {
  ShutDown(g_libraryUseCount, depth, [&depth] {
    omni_finalize(depth);
    aio_finalize(depth);
    atr_finalize(depth);
    uts_finalize(depth);
    mem_finalize(depth);
  });
}

void omni_initialize(int& depth) {
  StartUp(g_omniUseCount, depth, [] {
    omn_enableFPE();
    if (std::getenv("QVL_DEBUG_POPUP") != nullptr) {
      g_debugPopupsWanted = true;
      omi_setErrorMode();
    }
    omi_InstallCrashFilter();
  });
}

void omni_finalize(int& depth) {
  // Traps and the crash filter stay as they are; a later start-up re-creates
  // the listener on first use.
  ShutDown(g_omniUseCount, depth, [] { omi_SingletonBase<omi_AlertListener>::Finalize(); });
}

void omni_formalize() {}

bool omi_DebugPopupsWanted() { return g_debugPopupsWanted; }
