// The platform contract of the crash reporter: fatal-fault delivery to one
// process-wide unhandled filter, the loaded modules, symbols and source lines
// for addresses, and the walk of the faulting thread's stack. Linux implements
// it with signals, the dynamic loader, libdw and the unwinder (platform/linux/).
//
// Everything here that runs while a fault is handled uses static storage only
// and never the library's heap.
#ifndef ZMXUTI_PLATFORM_CRASH_H
#define ZMXUTI_PLATFORM_CRASH_H

#include <cstdint>

#include "core/crash_report.h"

namespace zmx {
namespace platform {

// ---- fault delivery ----
// Puts the fault handlers in place, taking back any fatal signal that another
// handler took since (that one becomes the handler faults are passed on to),
// and gives the calling thread an alternate stack the first time, so that its
// stack overflows are delivered too. Also captures the program's base name.
// True when the handlers are in place.
bool InstallFaultHandlers();

// The one unhandled filter of the process; returns the one it replaces. Puts the
// handlers in place if they never were. A filter's result decides as on Windows:
// ExecuteHandler ends the process with the fault's signal; ContinueSearch hands
// the fault to the handler that was in place before ours (or the default
// action); ContinueExecution resumes at the context.
omi_ExceptionHandler SetUnhandledFilter(omi_ExceptionHandler filter);
omi_ExceptionHandler UnhandledFilter();

// Text the system has for a code outside the exception-name table (the signal's
// description for omi_ExceptionFromSignal + n), or null when it has none.
const char* SystemExceptionText(unsigned int code);

// Base name of the program's executable ("crash_probe").
const char* ProgramBaseName();

// The debugger's output channel (standard error here).
void WriteDebugOutput(const char* text);

// The calling thread's system-wide id (never 0), and a short sleep; both safe
// inside a fault handler.
long FaultingThreadId();
void PauseBriefly();

// ---- modules ----
struct ModuleRange {
  const char* name;  // base name of the module's file
  std::uintptr_t base;
  std::uintptr_t end;  // one past the highest loaded byte
};
// Calls `visit` for every loaded module, the program first.
void ForEachModule(void (*visit)(const ModuleRange& module, void* context), void* context);
// Base address of the module that holds `address`, null when none does.
const void* ModuleBaseOf(const void* address);
// True when `address` lies in an executable segment of a loaded module.
bool IsCodeAddress(const void* address);

// ---- symbols ----
// Finds the symbol library through `searchList` (a ";"-separated list of
// installation folders, searched for External/<library>), then on the system.
// Without it, symbols come from the modules' dynamic symbol tables and source
// lines are unknown. Later calls return at once.
void LoadSymbolEngine(const char* searchList);
// Called at the start of each report: prints on standard error, the first
// time, what the search had to say (the library missing from the folders, or
// a failure to load it), and brings the symbol engine's module list up to date.
void RefreshSymbols();

struct AddressInfo {
  const char* module;           // base name, null when no module holds the address
  const char* symbol;           // qualified name without its parameters, or null
  unsigned long long symbolOffset;
  const char* file;             // source file, or null
  int line;
  unsigned long long lineOffset;
};
// Describes `address`; offsets are measured from the symbol's and the source
// line's first byte. `returnAddress` marks the address after a call (the lookup
// then uses the call instruction). The texts stay valid until the next call.
void DescribeAddress(std::uintptr_t address, bool returnAddress, AddressInfo* info);

// ---- stack ----
// Visits the faulting thread's frames from the faulting instruction outwards
// until `visit` returns false or the stack ends. Must run on the faulting
// thread, inside the filter. `returnAddress` is false for the faulting frame.
void WalkFaultStack(const omi_ExceptionPointers& fault,
                    bool (*visit)(std::uintptr_t pc, bool returnAddress, void* context), void* context);

}  // namespace platform
}  // namespace zmx

#endif  // ZMXUTI_PLATFORM_CRASH_H
