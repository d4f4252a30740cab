// Fresh-process scenarios for the process services: the session counter's
// overflow lines, floating-point traps that end the process, the freeze
// count's repair message, the once-per-process error mode, signals
// reaching alert handlers, handlers that let go of their own listener, and a
// worker the system refuses.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <chrono>
#include <thread>

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include "ZMXUTI_CoreUtils.h"
#include "platform/fpu.h"
#include "probes/probe_main.h"

namespace {

void SessionCounterOverflow() {
  zmx_probe::BringUp(UTI_CoreUtils_initialize);
  omi_settimecounterstart(1e15 - 1);
  for (int i = 0; i < 3; ++i) {
    std::printf("got %.0f\n", omi_gettimecounter());
    std::fflush(stdout);
  }
}

// Argument: the operation; those that the trap set covers end with SIGFPE.
void FpeTrap() {
  zmx_probe::BringUp(UTI_CoreUtils_initialize);
  const char* op = zmx_probe::Arg(2);
  if (std::strcmp(zmx_probe::Arg(3), "disabled") == 0) omn_disableFPE();
  volatile double zero = 0.0, three = 3.0, big = std::numeric_limits<double>::max(), tiny = 1e-300, result = 0;
  if (std::strcmp(op, "divide") == 0) result = 1.0 / zero;
  if (std::strcmp(op, "invalid") == 0) result = zero / zero;
  if (std::strcmp(op, "overflow") == 0) result = big * 2.0;
  if (std::strcmp(op, "underflow") == 0) result = tiny * tiny;
  if (std::strcmp(op, "inexact") == 0) result = 1.0 / three;
  std::printf("survived %s\n", op);
  (void)result;
}

bool TrapsOn() { return (zmx::platform::ReadSseControl() & 0x1F80u) != 0x1F80u; }

void FreezeRelease() {
  zmx_probe::BringUp(UTI_CoreUtils_initialize);
  omn_freezeFPESetting(false);
  omn_freezeFPESetting(false);
  // A clamped count: one freeze holds the setting, one release frees it.
  omn_freezeFPESetting(true);
  omn_disableFPE();
  std::printf("frozen traps %d\n", TrapsOn() ? 1 : 0);
  omn_freezeFPESetting(false);
  omn_disableFPE();
  std::printf("released traps %d\n", TrapsOn() ? 1 : 0);
}

void ErrorMode() {
  std::printf("before %x\n", omi_getErrorMode());
  zmx_probe::BringUp(UTI_CoreUtils_initialize);
  std::printf("started %x\n", omi_getErrorMode());
  omi_setErrorMode();
  // Decided once: the environment no longer matters.
  if (std::getenv("QVL_DEBUG_POPUP") != nullptr) unsetenv("QVL_DEBUG_POPUP");
  else setenv("QVL_DEBUG_POPUP", "1", 1);
  omi_setErrorMode();
  std::printf("set %x\n", omi_getErrorMode());
}

// ---- signals reaching alert handlers ----

volatile sig_atomic_t g_received[32];
volatile sig_atomic_t g_count = 0;
volatile sig_atomic_t g_offWorker = 0;
pthread_t g_mainThread;
pthread_t g_handlerThread;

// Handlers must all run on one thread, and never on the one that raised the signal.
void Record(int number) {
  const pthread_t self = pthread_self();
  if (g_count == 0) g_handlerThread = self;
  if (pthread_equal(self, g_mainThread) || !pthread_equal(self, g_handlerThread)) g_offWorker = 1;
  g_received[g_count % 32] = number;
  g_count = g_count + 1;
}

bool WaitForCount(int count) {
  for (int i = 0; i < 500 && g_count < count; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return g_count >= count;
}

const int kSignals[] = {SIGINT, SIGTERM, SIGTSTP, SIGCONT, SIGUSR1, SIGUSR2};

// Every kind but the one named by the argument gets a handler; the interrupt's
// handler is set only after arming, so that it too is routed while armed.
void AlertSignals() {
  zmx_probe::BringUp(UTI_CoreUtils_initialize);
  const int skipped = zmx_probe::ArgCount() > 2 ? std::atoi(zmx_probe::Arg(2)) : -1;
  omi_AlertListener& listener = omi_Singleton<omi_AlertListener>::Instance();
  for (int kind = 1; kind < 6; ++kind)
    if (kind != skipped) listener.SetHandler(static_cast<omi_AlertEnm>(kind), Record);
  g_mainThread = pthread_self();
  listener.Arm();
  listener.SetHandler(omi_AlertInterrupt, Record);
  for (int kind = 0; kind < 6; ++kind) {
    const int before = g_count;
    kill(getpid(), kSignals[kind]);
    if (!WaitForCount(before + 1)) std::printf("signal %d lost\n", kSignals[kind]);
  }
  listener.Disarm();
  for (int i = 0; i < g_count; ++i) std::printf("%d ", g_received[i]);
  std::printf("\noff worker %d\n", g_offWorker);
  for (int signalNumber : kSignals) {
    struct sigaction now {};
    sigaction(signalNumber, nullptr, &now);
    if (now.sa_handler != SIG_DFL) std::printf("signal %d not restored\n", signalNumber);
  }
}

// ---- handlers that disarm or destroy their own listener ----

volatile sig_atomic_t g_letGo = 0;
void DisarmOwnListener(int) {
  omi_Singleton<omi_AlertListener>::Instance().Disarm();
  g_letGo = g_letGo + 1;
}
void DestroyOwnListener(int) {
  omi_SingletonBase<omi_AlertListener>::Finalize();
  g_letGo = g_letGo + 1;
}

// True once the worker that ended has given SIGUSR1 its default action back.
bool Usr1Restored() {
  for (int i = 0; i < 500; ++i) {
    struct sigaction now {};
    sigaction(SIGUSR1, nullptr, &now);
    if (now.sa_handler == SIG_DFL) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

// The second alert queued behind the destroying handler is dropped with the worker.
void HandlerLetsGo() {
  zmx_probe::BringUp(UTI_CoreUtils_initialize);
  omi_AlertListener& listener = omi_Singleton<omi_AlertListener>::Instance();
  listener.SetHandler(omi_AlertUser1, DisarmOwnListener);
  listener.Arm();
  kill(getpid(), SIGUSR1);
  const bool disarmRestored = Usr1Restored();
  std::printf("disarmed %d restored %d\n", static_cast<int>(g_letGo), disarmRestored ? 1 : 0);
  listener.SetHandler(omi_AlertUser1, DestroyOwnListener);
  listener.Arm();
  const omi_AlertTrigger trigger(listener);
  trigger.Alert(omi_AlertUser1);
  trigger.Alert(omi_AlertUser1);
  const bool destroyRestored = Usr1Restored();
  std::printf("destroyed %d restored %d\n", static_cast<int>(g_letGo), destroyRestored ? 1 : 0);
}

// With the address space capped just above what is in use, no thread stack
// fits: arming is refused and the listener stays disarmed.
void ArmRefused() {
  zmx_probe::BringUp(UTI_CoreUtils_initialize);
  omi_AlertListener listener;
  long pages = 0;
  if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld", &pages) != 1) pages = 0;
    std::fclose(statm);
  }
  const rlim_t cap = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (256 << 10);
  const rlimit limit{cap, cap};
  if (pages == 0 || setrlimit(RLIMIT_AS, &limit) != 0) std::printf("no cap\n");
  listener.Arm();
  std::printf("thread %u\n", listener.ThreadId());
  listener.Disarm();
  std::printf("disarmed\n");
}

const zmx_probe::Scenario kScenarios[] = {
    {"session_counter_overflow", SessionCounterOverflow}, {"fpe_trap", FpeTrap}, {"freeze_release", FreezeRelease},
    {"error_mode", ErrorMode}, {"alert_signals", AlertSignals}, {"arm_refused", ArmRefused},
    {"handler_lets_go", HandlerLetsGo},
};

}  // namespace

int main(int argc, char** argv) { return zmx_probe::Dispatch(argc, argv, kScenarios); }
