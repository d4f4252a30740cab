// Linux fault delivery for the crash reporter: the fatal-signal handlers, their
// alternate stack, the one unhandled filter, and the translation of a signal
// into an exception record.
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/crash.h"
#include "platform/fpu.h"

namespace zmx {
namespace platform {

namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP};
constexpr int kSignalSlots = 65;

// Large enough for the report path, symbol lookup in libdw included.
alignas(16) char g_alternateStack[256 * 1024];
bool g_alternateStackGiven = false;

std::atomic<omi_ExceptionHandler> g_filter{nullptr};
struct sigaction g_previousAction[kSignalSlots];
bool g_installed = false;

// The installing thread's stack: a fault just below its lowest address is an overflow.
std::uintptr_t g_stackLow = 0;
constexpr std::uintptr_t kGuardZone = 1024 * 1024 + 64 * 1024;  // the kernel's gap and some
// A fault this close to the stack pointer can only be the stack running out.
constexpr std::uintptr_t kNearStackPointer = 64 * 1024;

// Seconds a report may take before the process ends anyway (a fault inside the
// runtime's allocator can leave its lock held for ever).
constexpr unsigned kReportWatchdogSeconds = 60;

char g_programName[256] = "<UNKNOWN>";

void CaptureProgramName() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  const char* name = program_invocation_short_name;
  if (n > 0) {
    path[n] = '\0';
    const char* slash = std::strrchr(path, '/');
    name = slash != nullptr ? slash + 1 : path;
  }
  if (name != nullptr && name[0] != '\0') {
    std::strncpy(g_programName, name, sizeof g_programName - 1);
    g_programName[sizeof g_programName - 1] = '\0';
  }
}

void CaptureStackBounds() {
  pthread_attr_t attr;
  if (pthread_getattr_np(pthread_self(), &attr) != 0) return;
  void* low = nullptr;
  size_t size = 0;
  if (pthread_attr_getstack(&attr, &low, &size) == 0) g_stackLow = reinterpret_cast<std::uintptr_t>(low);
  pthread_attr_destroy(&attr);
}

void GiveAlternateStack() {
  if (g_alternateStackGiven) return;  // one static stack serves one thread only
  stack_t stack{};
  stack.ss_sp = g_alternateStack;
  stack.ss_size = sizeof g_alternateStack;
  if (sigaltstack(&stack, nullptr) == 0) g_alternateStackGiven = true;
}

bool IsStackOverflow(const siginfo_t* info, const ucontext_t* context) {
  if (info->si_code <= 0) return false;  // sent by a process: no fault address
  const auto fault = reinterpret_cast<std::uintptr_t>(info->si_addr);
  const auto sp = static_cast<std::uintptr_t>(context->uc_mcontext.gregs[REG_RSP]);
  if (fault + kNearStackPointer >= sp && fault <= sp + kNearStackPointer) return true;
  return g_stackLow != 0 && fault < g_stackLow + 4096 && fault + kGuardZone >= g_stackLow;
}

unsigned FpeCode(int siCode) {
  switch (siCode) {
    case FPE_INTDIV: return omi_ExceptionIntDivideByZero;
    case FPE_INTOVF: return omi_ExceptionIntOverflow;
    case FPE_FLTDIV: return omi_ExceptionFltDivideByZero;
    case FPE_FLTOVF: return omi_ExceptionFltOverflow;
    case FPE_FLTUND: return omi_ExceptionFltUnderflow;
    case FPE_FLTRES: return omi_ExceptionFltInexactResult;
    case FPE_FLTINV: return omi_ExceptionFltInvalidOperation;
    case FPE_FLTSUB: return omi_ExceptionArrayBoundsExceeded;
    default: return omi_ExceptionFromSignal + SIGFPE;
  }
}

unsigned ExceptionCode(int sig, const siginfo_t* info, const ucontext_t* context) {
  switch (sig) {
    case SIGSEGV:
      return IsStackOverflow(info, context) ? omi_ExceptionStackOverflow : omi_ExceptionAccessViolation;
    case SIGFPE: return FpeCode(info->si_code);
    case SIGBUS: return info->si_code == BUS_ADRALN ? omi_ExceptionDatatypeMisalignment : omi_ExceptionInPageError;
    case SIGILL:
      return info->si_code == ILL_PRVOPC || info->si_code == ILL_PRVREG ? omi_ExceptionPrivInstruction
                                                                         : omi_ExceptionIllegalInstruction;
    case SIGTRAP: return info->si_code == TRAP_TRACE ? omi_ExceptionSingleStep : omi_ExceptionBreakpoint;
    default: return omi_ExceptionFromSignal + static_cast<unsigned>(sig);
  }
}

[[noreturn]] void DieBySignal(int sig) {
  signal(sig, SIG_DFL);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, sig);
  raise(sig);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);  // the pending signal ends the process here
  _exit(128 + sig);
}

// The fault this thread is passing on, and how deep its handler was then. A
// handler installed after ours that chains back to it calls ours again with the
// same context from deeper down: the chain has come round, and the default
// action ends it. (A handler that jumps out leaves this behind; the next fault
// then sits no deeper.)
struct PassingOn {
  const void* context;
  std::uintptr_t depth;
};
thread_local PassingOn t_passingOn __attribute__((tls_model("initial-exec"))) = {nullptr, 0};

bool ChainCameRound(const void* context, const void* here) {
  return context == t_passingOn.context && reinterpret_cast<std::uintptr_t>(here) < t_passingOn.depth;
}

// ContinueSearch: the handler that was in place before ours, or the default action.
// `depth` is a local of the handler passing on.
void PassOn(int sig, siginfo_t* info, void* context, const void* depth) {
  const struct sigaction& previous = g_previousAction[sig];
  t_passingOn = PassingOn{context, reinterpret_cast<std::uintptr_t>(depth)};
  if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
    if ((previous.sa_flags & SA_SIGINFO) != 0)
      previous.sa_sigaction(sig, info, context);
    else
      previous.sa_handler(sig);
    t_passingOn = PassingOn{nullptr, 0};
    return;
  }
  DieBySignal(sig);
}

// Status flags already set when an unmasked SSE operation faults (enabling the
// traps leaves some set on purpose) make the kernel name the first set flag
// rather than the operation's own fault. Clearing them in the saved state and
// letting the instruction run again makes it fault with its real cause alone;
// the flags cleared come back before anyone sees the fault, so a handler that
// continues finds them as they were. The record is the thread's own: another
// thread faulting at the same instruction meanwhile is a different fault.
// (Initial-exec: no allocation on first use inside a signal handler.)
struct SseRetry {
  void* at;
  unsigned flags;
};
thread_local SseRetry t_sseRetry __attribute__((tls_model("initial-exec"))) = {nullptr, 0};
constexpr greg_t kTrapSimd = 19;  // x87 faults come as 16 and name their own status word

bool RetryWithClearSseFlags(int sig, const siginfo_t* info, ucontext_t* context) {
  if (sig != SIGFPE || info->si_code < FPE_FLTDIV || info->si_code > FPE_FLTSUB) return false;
  auto* fp = context->uc_mcontext.fpregs;
  if (fp == nullptr || context->uc_mcontext.gregs[REG_TRAPNO] != kTrapSimd) return false;
  void* at = reinterpret_cast<void*>(context->uc_mcontext.gregs[REG_RIP]);
  SseRetry& retry = t_sseRetry;
  if (retry.at == at) {  // the second fault here is the real one
    fp->mxcsr |= retry.flags;
    retry = SseRetry{nullptr, 0};
    return false;
  }
  retry = SseRetry{at, fp->mxcsr & kSseStatusFlags};
  fp->mxcsr &= ~kSseStatusFlags;
  return true;
}

void OnFatalSignal(int sig, siginfo_t* info, void* raw) {
  const int savedErrno = errno;
  auto* context = static_cast<ucontext_t*>(raw);
  if (ChainCameRound(raw, &savedErrno)) DieBySignal(sig);
  if (RetryWithClearSseFlags(sig, info, context)) return;
  omi_ExceptionPointers fault{ExceptionCode(sig, info, context),
                              reinterpret_cast<void*>(context->uc_mcontext.gregs[REG_RIP]), sig, info, raw};
  const omi_ExceptionHandler filter = g_filter.load();
  const unsigned pendingAlarm = alarm(kReportWatchdogSeconds);
  const long result = filter != nullptr ? filter(&fault) : omi_ExceptionContinueSearch;
  alarm(pendingAlarm);
  errno = savedErrno;
  if (result == omi_ExceptionContinueExecution) return;
  if (result == omi_ExceptionExecuteHandler) DieBySignal(sig);
  PassOn(sig, info, raw, &savedErrno);
}

}  // namespace

bool InstallFaultHandlers() {
  GiveAlternateStack();
  if (!g_installed) {
    CaptureProgramName();
    CaptureStackBounds();
  }
  struct sigaction action {};
  action.sa_sigaction = OnFatalSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  // A second fault while one is handled ends the process instead of nesting.
  sigemptyset(&action.sa_mask);
  for (int sig : kFatalSignals) sigaddset(&action.sa_mask, sig);
  for (int sig : kFatalSignals) {
    // Installing again takes back a signal that another handler took meanwhile,
    // keeping that one as the handler to pass on to.
    struct sigaction current {};
    if (sigaction(sig, nullptr, &current) != 0) return false;
    if ((current.sa_flags & SA_SIGINFO) != 0 && current.sa_sigaction == OnFatalSignal) continue;
    if (sigaction(sig, &action, &g_previousAction[sig]) != 0) return false;
  }
  g_installed = true;
  return true;
}

omi_ExceptionHandler SetUnhandledFilter(omi_ExceptionHandler filter) {
  if (!g_installed) InstallFaultHandlers();
  return g_filter.exchange(filter);
}

omi_ExceptionHandler UnhandledFilter() { return g_filter.load(); }

const char* SystemExceptionText(unsigned int code) {
  const unsigned sig = code - omi_ExceptionFromSignal;
  if (code < omi_ExceptionFromSignal || sig >= kSignalSlots) return nullptr;
  return sigdescr_np(static_cast<int>(sig));
}

const char* ProgramBaseName() { return g_programName; }

long FaultingThreadId() { return syscall(SYS_gettid); }

void PauseBriefly() {
  const timespec pause{0, 1000000};
  nanosleep(&pause, nullptr);
}

void WriteDebugOutput(const char* text) {
  std::size_t left = std::strlen(text);
  while (left > 0) {
    const ssize_t n = write(STDERR_FILENO, text, left);
    if (n <= 0 && errno != EINTR) return;
    if (n > 0) {
      text += n;
      left -= static_cast<std::size_t>(n);
    }
  }
}

}  // namespace platform
}  // namespace zmx
