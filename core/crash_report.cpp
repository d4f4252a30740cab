// The crash report: installation of the report filter and the report it writes
// into "<program>.dmp" (first line, stack lines, module list).
//
// The report runs with the process in an unknown state: static buffers and the
// runtime's stdio only, nothing from the library's heap.
#include "core/crash_report.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/fpe.h"
#include "platform/crash.h"

namespace {

using zmx::platform::AddressInfo;

struct NamedCode {
  unsigned int code;
  const char* name;
};

constexpr NamedCode kExceptionNames[] = {
    {omi_ExceptionAccessViolation, "EXCEPTION_ACCESS_VIOLATION"},
    {omi_ExceptionDatatypeMisalignment, "EXCEPTION_DATATYPE_MISALIGNMENT"},
    {omi_ExceptionBreakpoint, "EXCEPTION_BREAKPOINT"},
    {omi_ExceptionSingleStep, "EXCEPTION_SINGLE_STEP"},
    {omi_ExceptionArrayBoundsExceeded, "EXCEPTION_ARRAY_BOUNDS_EXCEEDED"},
    {omi_ExceptionFltDenormalOperand, "EXCEPTION_FLT_DENORMAL_OPERAND"},
    {omi_ExceptionFltDivideByZero, "EXCEPTION_FLT_DIVIDE_BY_ZERO"},
    {omi_ExceptionFltInexactResult, "EXCEPTION_FLT_INEXACT_RESULT"},
    {omi_ExceptionFltInvalidOperation, "EXCEPTION_FLT_INVALID_OPERATION"},
    {omi_ExceptionFltOverflow, "EXCEPTION_FLT_OVERFLOW"},
    {omi_ExceptionFltStackCheck, "EXCEPTION_FLT_STACK_CHECK"},
    {omi_ExceptionFltUnderflow, "EXCEPTION_FLT_UNDERFLOW"},
    {omi_ExceptionIntDivideByZero, "EXCEPTION_INT_DIVIDE_BY_ZERO"},
    {omi_ExceptionIntOverflow, "EXCEPTION_INT_OVERFLOW"},
    {omi_ExceptionPrivInstruction, "EXCEPTION_PRIV_INSTRUCTION"},
    {omi_ExceptionInPageError, "EXCEPTION_IN_PAGE_ERROR"},
    {omi_ExceptionIllegalInstruction, "EXCEPTION_ILLEGAL_INSTRUCTION"},
    {omi_ExceptionNoncontinuableException, "EXCEPTION_NONCONTINUABLE_EXCEPTION"},
    {omi_ExceptionStackOverflow, "EXCEPTION_STACK_OVERFLOW"},
    {omi_ExceptionGuardPage, "EXCEPTION_GUARD_PAGE"},
    {omi_ExceptionInvalidDisposition, "EXCEPTION_INVALID_DISPOSITION"},
    {omi_ExceptionInvalidHandle, "EXCEPTION_INVALID_HANDLE"},
};

constexpr std::size_t kLineSize = 1024;
constexpr std::size_t kSymbolLimit = 718;  // a symbol must end before this column
constexpr std::size_t kFileLimit = 714;    // and a source file before this one
constexpr int kMaxStackLines = 200;

bool g_popupWanted = false;
bool g_reportWanted = false;  // ZEM_PATH was defined at an installation
std::atomic<long> g_reporter{0};  // the thread writing a report, 0 for none
int g_stackLines = 0;  // for the whole process: a second report gets what is left

char g_line[kLineSize];
std::size_t g_length = 0;

const char* ExceptionName(unsigned int code) {
  for (const NamedCode& entry : kExceptionNames)
    if (entry.code == code) return entry.name;
  const char* text = zmx::platform::SystemExceptionText(code);
  return text != nullptr ? text : "";
}

void Append(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Append(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(g_line + g_length, kLineSize - g_length, format, args);
  va_end(args);
  if (n > 0) g_length = std::min(g_length + static_cast<std::size_t>(n), kLineSize - 1);
}

// A text that does not end before `limit` is copied cut at the buffer's end,
// and nothing more joins the line.
bool AppendFitting(const char* text, std::size_t limit) {
  if (g_length + std::strlen(text) < limit) return true;
  std::strncpy(g_line + g_length, text, kLineSize - 1 - g_length);
  g_line[kLineSize - 1] = '\0';
  g_length = kLineSize - 1;
  return false;
}

// ", symbol()+0004 byte(s), file, line 0041+0004 byte(s)", each part when known.
void AppendSymbolAndLine(const AddressInfo& where) {
  if (where.symbol != nullptr) {
    Append(", ");
    if (!AppendFitting(where.symbol, kSymbolLimit)) return;
    if (where.symbolOffset != 0)
      Append("%s()+%04d byte(s)", where.symbol, static_cast<int>(where.symbolOffset));
    else
      Append("%s ", where.symbol);
  }
  if (where.file != nullptr) {
    Append(", ");
    if (!AppendFitting(where.file, kFileLimit)) return;
    if (where.lineOffset != 0)
      Append("%s, line %04d+%04d byte(s)", where.file, where.line, static_cast<int>(where.lineOffset));
    else
      Append("%s, line %04d", where.file, where.line);
  }
}

void BuildFirstLine(const omi_ExceptionPointers& fault) {
  const auto address = reinterpret_cast<std::uintptr_t>(fault.address);
  AddressInfo where;
  zmx::platform::DescribeAddress(address, false, &where);
  g_length = 0;
  g_line[0] = '\0';
  Append("%s caused an %s in module %s", zmx::platform::ProgramBaseName(), ExceptionName(fault.code),
         where.module != nullptr ? where.module : "<UNKNOWN>");
  Append(" at %016llX", static_cast<unsigned long long>(address));
  AppendSymbolAndLine(where);
}

bool WriteStackLine(std::uintptr_t pc, bool returnAddress, void* context) {
  if (g_stackLines >= kMaxStackLines) return false;
  AddressInfo where;
  zmx::platform::DescribeAddress(pc, returnAddress, &where);
  g_length = 0;
  g_line[0] = '\0';
  Append("0x%016llX", static_cast<unsigned long long>(pc));
  Append(" %s", where.module != nullptr ? where.module : "<UNKNOWN>");
  AppendSymbolAndLine(where);
  auto* file = static_cast<std::FILE*>(context);
  std::fprintf(file, "%s\n", g_line);
  std::fflush(file);
  return ++g_stackLines < kMaxStackLines;
}

void WriteModuleLine(const zmx::platform::ModuleRange& module, void* context) {
  std::fprintf(static_cast<std::FILE*>(context), "%s:\t%08X - %08X\n", module.name,
               static_cast<unsigned>(module.base & 0xFFFFFFFFu), static_cast<unsigned>(module.end & 0xFFFFFFFFu));
}

void WriteReport(const omi_ExceptionPointers& fault) {
  static char fileName[1100];
  std::snprintf(fileName, sizeof fileName, "%s.dmp", zmx::platform::ProgramBaseName());
  std::FILE* file = std::fopen(fileName, "w");
  if (file == nullptr) return;
  zmx::platform::RefreshSymbols();
  BuildFirstLine(fault);
  std::fprintf(file, "%s\n", g_line);
  zmx::platform::WalkFaultStack(fault, WriteStackLine, file);
  std::fputs("\n", file);
  zmx::platform::ForEachModule(WriteModuleLine, file);
  std::fclose(file);
}

// A thread that faults while another one writes its report waits for the
// report to end (the process usually ends with it); a fault inside the report
// itself only gets the answer.
long ReportFilter(omi_ExceptionPointers* fault) {
  const long answer = g_popupWanted ? omi_ExceptionContinueSearch : omi_ExceptionExecuteHandler;
  if (fault == nullptr || !g_reportWanted) return answer;
  const long self = zmx::platform::FaultingThreadId();
  for (;;) {
    long reporter = 0;
    if (g_reporter.compare_exchange_strong(reporter, self)) break;
    if (reporter == self) return answer;
    zmx::platform::PauseBriefly();
  }
  WriteReport(*fault);
  g_reporter.store(0);
  return answer;
}

}  // namespace

bool omi_InstallCrashFilter() {
  if (std::getenv("QVL_DEBUG_POPUP") != nullptr) {
    g_popupWanted = true;
    omi_setErrorMode();
  }
  // The symbol library is loaded now rather than during a crash, when the
  // dynamic loader may be the part that broke.
  if (const char* searchList = std::getenv("ZEM_PATH")) {
    g_reportWanted = true;
    zmx::platform::LoadSymbolEngine(searchList);
  }
  if (!zmx::platform::InstallFaultHandlers()) return false;
  zmx::platform::SetUnhandledFilter(ReportFilter);
  return true;
}
