// Crash reporting: the report written when the process dies of a fatal fault,
// and a client-installable handler that sees faults first.
//
// Start-up installs the report filter (omi_InstallCrashFilter). When a fatal
// signal arrives (segmentation fault, bus error, arithmetic fault, illegal
// instruction, abort, trap), the filter writes "<program>.dmp" into the current
// directory, provided ZEM_PATH was defined when the filter was installed:
//
//   crash_probe caused an EXCEPTION_ACCESS_VIOLATION in module crash_probe at 000055D0C1A2B3C4,
//       NullDeref()+0004 byte(s), /src/crash_probe.cpp, line 0041+0004 byte(s)
//   0x000055D0C1A2B3C4 crash_probe, NullDeref()+0004 byte(s), /src/crash_probe.cpp, line 0041+0004 byte(s)
//   ... (at most 200 frame lines per process)
//
//   crash_probe:	C1A2A000 - C1A30000
//   libZMXUTI_CoreUtils.so.0:	...
//
// (the first line is one line in the file). Symbols and source lines come from
// libdw.so.1, searched as <element>/External/libdw.so.1 for each ";"-separated
// element of ZEM_PATH, then on the system; without it, symbols come from the
// dynamic symbol tables and lines are left out. Addresses are printed in full
// as 16 upper-case hexadecimal digits.
//
// A client handler (omi_SetExceptionHandler) sees each fault before the report
// and decides what happens, as a filter result:
//
//   long MyHandler(omi_ExceptionPointers* e) {
//     if (e->code != omi_ExceptionAccessViolation) return omi_ExceptionContinueSearch;
//     FixUp(e->address);
//     return omi_ExceptionContinueExecution;
//   }
//   omi_SetExceptionHandler(MyHandler);   // ... omi_SetExceptionHandler(nullptr) to restore
//
// Signals are handled on an alternate stack that the installing thread gets;
// a stack overflow in another thread is reported only if that thread has an
// alternate stack of its own (other faults are reported on any thread).
#ifndef ZMXUTI_CORE_CRASH_REPORT_H
#define ZMXUTI_CORE_CRASH_REPORT_H

#include "core/export.h"

// Exception codes (the numbering used by Windows for the same faults).
enum omi_ExceptionCode : unsigned int {
  omi_ExceptionAccessViolation = 0xC0000005u,
  omi_ExceptionDatatypeMisalignment = 0x80000002u,
  omi_ExceptionBreakpoint = 0x80000003u,
  omi_ExceptionSingleStep = 0x80000004u,
  omi_ExceptionArrayBoundsExceeded = 0xC000008Cu,
  omi_ExceptionFltDenormalOperand = 0xC000008Du,
  omi_ExceptionFltDivideByZero = 0xC000008Eu,
  omi_ExceptionFltInexactResult = 0xC000008Fu,
  omi_ExceptionFltInvalidOperation = 0xC0000090u,
  omi_ExceptionFltOverflow = 0xC0000091u,
  omi_ExceptionFltStackCheck = 0xC0000092u,
  omi_ExceptionFltUnderflow = 0xC0000093u,
  omi_ExceptionIntDivideByZero = 0xC0000094u,
  omi_ExceptionIntOverflow = 0xC0000095u,
  omi_ExceptionPrivInstruction = 0xC0000096u,
  omi_ExceptionInPageError = 0xC0000006u,
  omi_ExceptionIllegalInstruction = 0xC000001Du,
  omi_ExceptionNoncontinuableException = 0xC0000025u,
  omi_ExceptionStackOverflow = 0xC00000FDu,
  omi_ExceptionGuardPage = 0x80000001u,
  omi_ExceptionInvalidDisposition = 0xC0000026u,
  omi_ExceptionInvalidHandle = 0xC0000008u,
  // A fatal signal without an exception of its own (abort, for example) carries
  // this value plus its signal number.
  omi_ExceptionFromSignal = 0xE0000000u
};

// What a handler sees of a fault.
struct omi_ExceptionPointers {
  unsigned int code;  // an omi_ExceptionCode
  void* address;      // the instruction that faulted (or was interrupted)
  int signal;         // the signal number
  void* siginfo;      // the signal's siginfo_t
  void* context;      // the interrupted ucontext_t; a handler may change it
};

// Filter results.
enum : long {
  omi_ExceptionContinueExecution = -1,  // resume at the (possibly changed) context
  omi_ExceptionContinueSearch = 0,      // let the next handler (or the default action) decide
  omi_ExceptionExecuteHandler = 1       // the process ends with the signal
};

typedef long (*omi_ExceptionHandler)(omi_ExceptionPointers*);

// Installs the report filter, keeping the filter it replaces. Reads
// QVL_DEBUG_POPUP (present: the filter answers ContinueSearch instead of
// ExecuteHandler, so a debugger or the previous signal handler decides) and
// ZEM_PATH (where the symbol library is found; absent: no report is written).
// Every call installs again; the first one also loads the symbol library. True
// when the signal handlers are in place.
ZMXUTI_API bool omi_InstallCrashFilter();

// With a handler: refuses (0) one that is not the address of loaded code;
// otherwise keeps it and, the first time, installs the dispatching filter in
// front of the current one (1). The dispatching filter announces stack
// overflows on standard error and gives each fault that belongs to the client
// (any fault, or only faults in registered modules when there are any) to the
// handler, the others to the filter it replaced.
// With null: restores the replaced filter, forgets the handler and the
// registered modules, and returns 1.
ZMXUTI_API int omi_SetExceptionHandler(omi_ExceptionHandler handler);

// Registers the module (executable or shared library) that contains the given
// address as the client's: once any is registered, the handler sees only faults
// inside registered modules. An address outside every module registers nothing.
ZMXUTI_API void omi_RegisterModule(const void* address_in_module);

#endif  // ZMXUTI_CORE_CRASH_REPORT_H
