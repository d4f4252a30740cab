// Fresh-process scenarios for the memory tracker (its environment is read once):
// known transactions in phases and threads, batches, announced transactions,
// stop/start, naming, limits, overflow. tests/tracker checks the files written.
#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "probes/probe_main.h"

namespace {

using Tracker = mem_Tracker_Interface;

// Memory only: no other component allocates behind the scenario's back.
void Up() { zmx_probe::BringUp(mem_initialize); }

// Calls through volatile pointers so that no allocation is elided.
void* (*volatile g_new)(std::size_t) = &::operator new;
void (*volatile g_delete)(void*) = &::operator delete;

void RunThread(void* (*body)(void*)) {
  pthread_t thread;
  if (pthread_create(&thread, nullptr, body, nullptr) != 0) std::abort();
  pthread_join(thread, nullptr);
}

void* g_workerBlock = nullptr;

void* Worker(void*) {
  int zero = 0;
  MEM_TRACKER_ENTERPHASE(&zero, "workerXX", 6);
  g_workerBlock = mem_Malloc(7);
  mem_Free(g_workerBlock);
  MEM_TRACKER_EXITPHASE(&zero);
  return nullptr;
}

// Every operation code but valloc, on two threads, in phases.
void Records() {
  Up();
  Tracker::SetOutputName("/job");
  void* p = mem_Malloc(24);
  Tracker::EnterPhase("load", 1);
  void* q = g_new(100);
  void* r = mem_Realloc(p, 4000);
  void* c = mem_Calloc(3, 8);
  Tracker::EnterPhase("solve", 0);
  mem_Release(c);
  mem_Acquire(c);
  mem_Free(c);
  Tracker::ExitPhase(1);
  g_delete(q);
  Tracker::ExitPhase(0);
  Tracker::ExitPhase(0);  // without an enter: reported once
  Tracker::ExitPhase(0);
  Tracker::EnterPhase("solve", 0);
  RunThread(Worker);
  mem_Free(r);
  Tracker::PrintTransaction("mark");
  MEM_TRACKER_SHUTDOWN();
  mem_Free(mem_Malloc(1));  // after shut-down: not recorded
  std::printf("p=%p q=%p r=%p c=%p w=%p active=%d\n", p, q, r, c, g_workerBlock, Tracker::IsTrackingActive() ? 1 : 0);
}

// 65536 malloc/free pairs fill the first batch exactly; four more records follow.
void Batches() {
  Up();
  std::printf("start=%d\n", Tracker::CurrTransactionId());
  Tracker::EnterPhase("bulk", 0);
  for (int i = 0; i < 65536; ++i) mem_Free(mem_Malloc(1 + i % 100));
  Tracker::ExitPhase(0);
  void* a = mem_Malloc(5);
  void* b = mem_Malloc(6);
  mem_Free(a);
  mem_Free(b);
  Tracker::Shutdown();
  std::printf("a=%p b=%p\n", a, b);
}

// Transactions 0..10: malloc new realloc calloc release acquire free delete malloc free free.
void DebugTransactions() {
  Up();
  void* a = mem_Malloc(8);
  void* b = g_new(8);
  a = mem_Realloc(a, 64);
  void* c = mem_Calloc(2, 2);
  mem_Release(c);
  mem_Acquire(c);
  mem_Free(c);
  g_delete(b);
  void* x = mem_Malloc(1);
  mem_Free(a);
  mem_Free(x);
}

void Untracked() {
  Up();
  void* a = mem_Malloc(10);
  void* const g0 = mem_Malloc(16);
  Tracker::StopTracking();
  void* b = mem_Malloc(20);
  void* c = g_new(30);
  mem_Free(a);  // acquired before the stop: recorded
  void* d = mem_Realloc(b, 5000);
  void* e = mem_Malloc(5);
  void* g = mem_Realloc(g0, 6000);  // a tracked block moved while stopped: neither recorded nor filtered
  Tracker::StartTracking();
  mem_Free(d);
  g_delete(c);
  void* f = mem_Malloc(60);
  mem_Free(f);
  mem_Free(e);
  mem_Free(g);
  Tracker::Shutdown();
  std::printf("a=%p f=%p g0=%p g=%p\n", a, f, g0, g);
}

// A name of the length given as argument.
void SetName() {
  Up();
  const std::string name(static_cast<std::size_t>(std::atoi(zmx_probe::Arg(2))), 'n');
  Tracker::SetOutputName(name.c_str());
  std::printf("active=%d\n", Tracker::IsTrackingActive() ? 1 : 0);
}

// One malloc/free pair and one announced phase (run with tracking on and off).
void OneRecord() {
  Up();
  mem_Free(mem_Malloc(8));
  int one = 1;
  MEM_TRACKER_ENTERPHASE(&one, "phase", 5);
  std::printf("active=%d id=%d\n", Tracker::IsTrackingActive() ? 1 : 0, Tracker::CurrTransactionId());
  MEM_TRACKER_SHUTDOWN();
}

void* OneTransaction(void*) {
  mem_Free(mem_Malloc(1));
  return nullptr;
}

void Limits() {
  Up();
  int one = 1;
  static char longName[201];  // a std::string would be a tracked allocation
  std::memset(longName, 'n', 200);
  MEM_TRACKER_ENTERPHASE(&one, longName, 200);
  MEM_TRACKER_EXITPHASE(&one);
  for (int i = 0; i < 1030; ++i) Tracker::EnterPhase("d", 0);
  for (int i = 0; i < 1030; ++i) Tracker::ExitPhase(0);
  Tracker::EnterPhase("y", 1);  // back at ROOT
  Tracker::ExitPhase(0);
  for (int i = 0; i < 70; ++i) RunThread(OneTransaction);
  Tracker::Shutdown();
}

void Overflow() {
  Up();
  char name[3] = {};
  int stored = 1;  // ROOT
  for (int i = 0; stored < 3992; ++i, ++stored) {
    name[0] = static_cast<char>('A' + i % 50);
    name[1] = static_cast<char>(i < 50 ? '\0' : 'A' + i / 50);
    Tracker::EnterPhase(name, 0);
    Tracker::ExitPhase(0);
  }
  std::printf("stored=%d\n", stored);
  std::fflush(stdout);
  Tracker::EnterPhase("one more", 0);
  std::printf("still running\n");
}

const zmx_probe::Scenario kScenarios[] = {
    {"records", Records}, {"batches", Batches}, {"debug_transactions", DebugTransactions},
    {"untracked", Untracked}, {"set_name", SetName}, {"one_record", OneRecord},
    {"limits", Limits}, {"overflow", Overflow},
};

}  // namespace

int main(int argc, char** argv) { return zmx_probe::Dispatch(argc, argv, kScenarios); }
