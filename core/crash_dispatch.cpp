// The dispatching filter: hands faults to the client's handler (all of them, or
// those inside the client's registered modules) in front of the filter it
// replaced, and announces stack overflows.
#include <cstring>

#include "core/crash_report.h"
#include "platform/crash.h"
#include "platform/system_allocator.h"

namespace {

omi_ExceptionHandler g_clientHandler = nullptr;
omi_ExceptionHandler g_replacedFilter = nullptr;

// Bases of the registered modules, from the system allocator (never the
// library's heap, which a fault may have left in a bad state).
const void** g_modules = nullptr;
std::size_t g_moduleCount = 0;

bool IsCode(omi_ExceptionHandler handler) {
  return handler != nullptr && zmx::platform::IsCodeAddress(reinterpret_cast<const void*>(handler));
}

bool BelongsToClient(const omi_ExceptionPointers& fault) {
  if (g_moduleCount == 0) return true;
  const void* base = zmx::platform::ModuleBaseOf(fault.address);
  for (std::size_t i = 0; i < g_moduleCount; ++i)
    if (base != nullptr && g_modules[i] == base) return true;
  return false;
}

long DispatchFilter(omi_ExceptionPointers* fault) {
  if (fault == nullptr) return omi_ExceptionContinueSearch;
  if (fault->code == omi_ExceptionStackOverflow) {
    // Standard error stands in for the debugger's output.
    static const char kRow[] = "!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!\n";
    zmx::platform::WriteDebugOutput(kRow);
    zmx::platform::WriteDebugOutput("EXCEPTION_STACK_OVERFLOW occurred\n");
    zmx::platform::WriteDebugOutput(kRow);
  }
  const omi_ExceptionHandler client = g_clientHandler;
  if (client == nullptr) return omi_ExceptionContinueSearch;
  if (BelongsToClient(*fault) && IsCode(client)) return client(fault);
  if (IsCode(g_replacedFilter)) return g_replacedFilter(fault);
  return omi_ExceptionContinueSearch;
}

}  // namespace

int omi_SetExceptionHandler(omi_ExceptionHandler handler) {
  // Asked of the slot itself: start-up after a shut-down puts the report filter
  // back in front, and the dispatching filter then has to be installed again.
  const bool dispatching = zmx::platform::UnhandledFilter() == DispatchFilter;
  if (handler == nullptr) {
    if (dispatching) zmx::platform::SetUnhandledFilter(g_replacedFilter);
    g_clientHandler = nullptr;
    zmx::platform::SystemFree(g_modules);
    g_modules = nullptr;
    g_moduleCount = 0;
    return 1;
  }
  if (!IsCode(handler)) return 0;
  g_clientHandler = handler;
  if (!dispatching) g_replacedFilter = zmx::platform::SetUnhandledFilter(DispatchFilter);
  return 1;
}

void omi_RegisterModule(const void* address_in_module) {
  const void* base = zmx::platform::ModuleBaseOf(address_in_module);
  if (base == nullptr) return;
  void* grown = zmx::platform::SystemRealloc(g_modules, (g_moduleCount + 1) * sizeof *g_modules);
  if (grown == nullptr) return;
  g_modules = static_cast<const void**>(grown);
  std::memset(&g_modules[g_moduleCount], 0, sizeof *g_modules);
  g_modules[g_moduleCount++] = base;
}
