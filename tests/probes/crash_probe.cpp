// Fresh-process scenarios for the crash reporter: each brings the library up,
// installs the crash filter and dies of one fault (or survives it through a
// client handler). The optional second argument is the folder to run in, where
// the report lands; the dispatch scenario takes what to register and how to die.
#include <fenv.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "ZMXUTI_CoreUtils.h"
#include "probes/probe_main.h"

// Frames that must show in the reports: no inlining, cloning or tail calls.
#if defined(__clang__)
#define PROBE_FRAME __attribute__((noinline))
#else
#define PROBE_FRAME __attribute__((noipa))
#endif
// The faults below are the point: the sanitizer must not catch them first.
#define PROBE_FAULT PROBE_FRAME __attribute__((no_sanitize("undefined")))

namespace {

int* volatile g_null = nullptr;
volatile int g_intZero = 0;
volatile double g_floatZero = 0.0;
volatile bool g_never = false;
volatile double g_sink = 0;  // a store after each call keeps it out of tail position

PROBE_FAULT int NullDeref() { return *g_null + 1; }
PROBE_FAULT int IntDivide() { return 7 / g_intZero; }
PROBE_FAULT double FloatDivide() { return 1.0 / g_floatZero; }
PROBE_FAULT long double X87Divide() { return 1.0L / g_floatZero; }

// The additions after each call keep the calls out of tail position.
PROBE_FRAME int Overflow(int n) {
  volatile char pad[512];
  pad[n % 512] = static_cast<char>(n);
  if (g_never) return 0;
  return Overflow(n + 1) + pad[0];
}

PROBE_FRAME int Deep(int n) {
  if (n == 0) return NullDeref();
  volatile int keep = n;
  return Deep(n - 1) + keep;
}

PROBE_FRAME int CallerOfNullDeref() { return NullDeref() + 1; }

// A function whose demangled name takes most of a report line (about 750 characters).
template <typename T>
struct Wrap {};
template <int N>
struct Nest {
  using type = Wrap<typename Nest<N - 1>::type>;
};
template <>
struct Nest<0> {
  using type = int;
};
template <typename T>
PROBE_FAULT int CrashInLongName() {
  return *g_null + 2;
}

void Setup() {
  if (zmx_probe::ArgCount() > 2 && chdir(zmx_probe::Arg(2)) != 0) std::exit(3);
  // Start-up installs the crash filter.
  zmx_probe::BringUp(UTI_CoreUtils_initialize);
}

// Takes the library down and brings it up again.
void Restart() {
  int depth = 1;
  UTI_CoreUtils_finalize(depth);
  UTI_CoreUtils_initialize(depth);
}

void Say(const char* text) {
  if (write(STDOUT_FILENO, text, std::strlen(text)) < 0) std::_Exit(5);
}

PROBE_FRAME void NullScenario() { Setup(); g_sink = CallerOfNullDeref(); }
PROBE_FRAME void OverflowScenario() { Setup(); g_sink = Overflow(0); }
PROBE_FRAME void IntDivideScenario() { Setup(); g_sink = IntDivide(); }
PROBE_FRAME void FloatDivideScenario() { Setup(); feenableexcept(FE_DIVBYZERO); g_sink = FloatDivide(); }
PROBE_FRAME void AbortScenario() { Setup(); std::abort(); }
PROBE_FRAME void DeepScenario() { Setup(); g_sink = Deep(300); }
PROBE_FRAME void LongNameScenario() { Setup(); g_sink = CrashInLongName<Nest<25>::type>(); }

// Two threads fault at once.
std::atomic<int> g_ready{0};
void FaultTogether() {
  ++g_ready;
  while (g_ready.load() < 2) {
  }
  g_sink = NullDeref();
}
void TwoThreadsScenario() {
  Setup();
  std::thread first(FaultTogether), second(FaultTogether);
  first.join();
  second.join();
}

// ---- client handler ----
char* g_lockedPage = nullptr;
int g_notCode = 0;

long UnlockPage(omi_ExceptionPointers* fault) {
  if (fault->code != omi_ExceptionAccessViolation) return omi_ExceptionContinueSearch;
  mprotect(g_lockedPage, 4096, PROT_READ | PROT_WRITE);
  return omi_ExceptionContinueExecution;
}

PROBE_FRAME void WriteTo(volatile char* where, char value) { *where = value; }

// The handler repairs the fault and execution resumes; after restoring, the
// report filter is back.
void ResumeScenario() {
  Setup();
  std::printf("refused %d\n", omi_SetExceptionHandler(reinterpret_cast<omi_ExceptionHandler>(
                                  reinterpret_cast<void*>(&g_notCode))));
  g_lockedPage = static_cast<char*>(mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  std::printf("installed %d\n", omi_SetExceptionHandler(UnlockPage));
  WriteTo(g_lockedPage, 42);
  std::printf("resumed %d\n", g_lockedPage[0]);
  std::printf("restored %d\n", omi_SetExceptionHandler(nullptr));
  std::fflush(stdout);
  NullDeref();
}

long EndProcess(omi_ExceptionPointers* fault) {
  char text[64];
  std::snprintf(text, sizeof text, "handler %08X\n", fault->code);
  Say(text);
  return omi_ExceptionExecuteHandler;
}

// Arguments: folder, what to register (none, probe, library, or "again": the
// library is taken down and brought up again before the handler is set once
// more), fault (null, overflow).
void DispatchScenario() {
  Setup();
  omi_SetExceptionHandler(EndProcess);
  const std::string registered = zmx_probe::Arg(3);
  if (registered == "again") {
    Restart();
    omi_SetExceptionHandler(EndProcess);
  }
  if (registered == "probe") omi_RegisterModule(reinterpret_cast<void*>(&NullDeref));
  if (registered == "library") omi_RegisterModule(reinterpret_cast<void*>(&omi_InstallCrashFilter));
  if (std::strcmp(zmx_probe::Arg(4), "overflow") == 0) Overflow(0);
  NullDeref();
}

// ---- floating-point faults that a handler lets continue ----
constexpr unsigned kFlagsLeftSet = 0x1D;  // what enabling the traps leaves set
std::atomic<int> g_divides{0}, g_misnamed{0}, g_flagsLost{0};

// Counts the fault, checks that the flags set before it are still in the
// context, masks every exception there and continues.
long MaskAndContinue(omi_ExceptionPointers* fault) {
  ++(fault->code == omi_ExceptionFltDivideByZero ? g_divides : g_misnamed);
  auto* fp = static_cast<ucontext_t*>(fault->context)->uc_mcontext.fpregs;
  if ((fp->mxcsr & kFlagsLeftSet) != kFlagsLeftSet) ++g_flagsLost;
  fp->mxcsr |= 0x1F80u;
  fp->cwd |= 0x3Fu;
  fp->swd &= ~0x80FFu;  // the x87 fault pending on the next instruction goes
  return omi_ExceptionContinueExecution;
}

// Two threads divide by zero at the same instruction, then one x87 division.
void FloatContinueScenario() {
  Setup();
  omi_SetExceptionHandler(MaskAndContinue);
  auto divide = [] {
    for (int i = 0; i < 2000; ++i) {
      omn_enableFPE();
      g_sink = FloatDivide();
    }
  };
  std::thread other(divide);
  divide();
  other.join();
  omn_enableFPE();
  g_sink = static_cast<double>(X87Divide());
  std::printf("divides %d misnamed %d flags lost %d\n", g_divides.load(), g_misnamed.load(), g_flagsLost.load());
}

// ---- a handler installed before the library's ----
sigjmp_buf g_recover;
void Recover(int) { siglongjmp(g_recover, 1); }

// With debug pop-ups wanted the filter passes each fault on to the handler that
// was there before; that one recovers, so the process reports twice and the two
// reports share one budget of stack lines.
void TwoReportsScenario() {
  struct sigaction action {};
  action.sa_handler = Recover;
  sigaction(SIGSEGV, &action, nullptr);
  Setup();
  if (sigsetjmp(g_recover, 1) == 0) Deep(150);
  std::rename("crash_probe.dmp", "first.dmp");
  if (sigsetjmp(g_recover, 1) == 0) Deep(150);
  Say("recovered twice\n");
}

// ---- a handler installed after the library's ----
struct sigaction g_libraryAction;
void ChainBack(int sig, siginfo_t* info, void* context) {
  Say("client\n");
  g_libraryAction.sa_sigaction(sig, info, context);
}

// The client takes the fault signal over, chaining back to the library's
// handler; the library is then taken down and brought up again.
void TakenOverScenario() {
  Setup();
  struct sigaction action {};
  action.sa_sigaction = ChainBack;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGSEGV, &action, &g_libraryAction);
  Restart();
  NullDeref();
}

constexpr zmx_probe::Scenario kScenarios[] = {
    {"null", NullScenario}, {"overflow", OverflowScenario}, {"int_divide", IntDivideScenario},
    {"float_divide", FloatDivideScenario}, {"abort", AbortScenario}, {"deep", DeepScenario},
    {"long_name", LongNameScenario}, {"resume", ResumeScenario}, {"dispatch", DispatchScenario},
    {"two_reports", TwoReportsScenario}, {"float_continue", FloatContinueScenario},
    {"two_threads", TwoThreadsScenario}, {"taken_over", TakenOverScenario},
};

}  // namespace

int main(int argc, char** argv) { return zmx_probe::Dispatch(argc, argv, kScenarios); }
