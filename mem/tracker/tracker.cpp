// The memory tracker's life: creation on first use, the static facade, the
// explicit-length entry points and the shut-down that writes what is left.
#include "mem/tracker/tracker.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "mem/allocation.h"
#include "mem/internal/fork_handlers.h"
#include "mem/internal/tracker_hooks.h"
#include "mem/tracker/internal/tracker_state.h"

namespace zmx {
namespace mem_tracker {

namespace {

std::atomic<Tracker*> g_tracker{nullptr};
mem_internal::CountingLock g_creationLock;

// The tracker's own memory never passes the tracked front door.
template <typename T>
T* RawArray(std::size_t count) {
  void* raw = mem_cMalloc(sizeof(T) * count);
  if (raw == nullptr) {
    std::fputs("ERROR: memTracker  --  not enough memory for the tracker's tables\n", stderr);
    std::abort();
  }
  return static_cast<T*>(raw);
}

void InitRecordBuffer(Tracker& t) {
  t.records = RawArray<TransactionRecord>(kBatchRecords);
  for (unsigned int i = 0; i < kBatchRecords; ++i) {
    TransactionRecord& r = t.records[i];
    r.address = 0;
    r.previous = 0;
    // Slots never written keep these ones: a free record leaves its phase as it finds it.
    std::memset(&r.code, 0xFF, sizeof r - offsetof(TransactionRecord, code));
  }
}

void TakeOutputDirectory(Tracker& t, const char* dir) {
  t.hasOutputDir = true;
  const std::size_t length = std::strlen(dir);
  if (length >= static_cast<std::size_t>(kOutputDirBytes)) {
    mem_internal::SetProcessTrackingMode(mem_internal::kTrackingOff);
    std::fputs("ERROR: Name of output directory given for ", stderr);
    std::fputs("memory tracking is too long.\n", stderr);
    std::fprintf(stderr, "Name must be under %d", kOutputDirBytes);
    std::fputs(" characters.\n\n", stderr);
    std::fflush(stderr);
  }
  // Stored even when too long, cut to what the buffer holds.
  const std::size_t kept = length < kOutputDirBytes ? length : kOutputDirBytes - 1;
  std::memcpy(t.outputDir, dir, kept);
  t.outputDir[kept] = '\0';
}

Tracker* Create() {
  Tracker* t = new (RawArray<Tracker>(1)) Tracker();
  t->nameSet = false;
  t->hasOutputDir = false;
  t->outputDir[0] = '\0';
  t->outputName[0] = '\0';
  InitPhases(*t);
  InitRecordBuffer(*t);
  t->fileSequence = t->buffered = t->debugCount = t->nextDebug = 0;
  t->transactionCounter = 0;
  t->trackingOn = true;
  t->stopped = false;
  t->untrackedCount = 0;
  mem_internal::ProcessTrackingMode();
  t->phases->Insert("ROOT", static_cast<int>(t->nextPhaseId++));
  if (const char* dir = std::getenv("ZEM_MEM_OUTPUTDIR")) TakeOutputDirectory(*t, dir);
  t->nameSet = true;
  ApplyNamingRule(*t, "unknownMemTrack");
  if (const char* list = std::getenv("ZEM_MEM_DBTRANS")) ParseDebugTransactions(*t, list);
  for (auto& phase : t->currentPhase) phase.store(0, std::memory_order_relaxed);
  return t;
}

void Destroy(Tracker* t) {
  t->phases->~mem_StackHash();
  mem_cFree(t->phases);
  mem_cFree(t->stacks);
  mem_cFree(t->records);
  t->~Tracker();
  mem_cFree(t);
}

// Copies an explicitly sized string into `buffer` (kExplicitBuffer bytes), cutting what does not fit.
const char* Terminated(char* buffer, const char* text, int length) {
  if (length < 0 || length >= kExplicitBuffer) {
    ReportLimitOnce(Limit::kExplicitLength);
    length = length < 0 ? 0 : kExplicitBuffer - 1;
  }
  if (text == nullptr) length = 0;
  if (length > 0) std::memcpy(buffer, text, static_cast<std::size_t>(length));
  buffer[length] = '\0';
  return buffer;
}

}  // namespace

Tracker& Instance() {
  Tracker* t = g_tracker.load(std::memory_order_acquire);
  if (ZMX_LIKELY(t != nullptr)) return *t;
  Locked guard(g_creationLock);
  t = g_tracker.load(std::memory_order_relaxed);
  if (t == nullptr) {
    t = Create();
    g_tracker.store(t, std::memory_order_release);
  }
  return *t;
}

Tracker* ExistingInstance() { return g_tracker.load(std::memory_order_acquire); }

bool TrackingOn() { return mem_internal::ProcessTrackingMode() == mem_internal::kTrackingOn; }

int CurrentTransaction(Tracker& t) {
  Locked guard(t.lock);
  return t.transactionCounter;
}

void ReportLimitOnce(Limit limit) {
  static const char* const kMessages[] = {
      ("memTracker  --  more than 64 threads: further threads are recorded as thread 63 "
       "and their phases are not followed\n"),
      "memTracker  --  phases nested deeper than 1024: deeper phases are not followed\n",
      "memTracker  --  phase path longer than 131071 characters: deeper phases are not followed\n",
      "memTracker  --  phase name of 128 characters or more: only the first 127 are kept\n",
      "memTracker  --  phase exit without a matching enter: ignored\n",
      "memTracker  --  explicit string length outside 0..151: the string is cut to fit\n",
      "memTracker  --  transaction numbers past 2147483647: their batches are dropped\n",
  };
  static_assert(sizeof kMessages / sizeof kMessages[0] == static_cast<int>(Limit::kCount), "one message per limit");
  static std::atomic<bool> reported[static_cast<int>(Limit::kCount)];
  const int i = static_cast<int>(limit);
  if (reported[i].exchange(true)) return;
  std::fputs(kMessages[i], stderr);
  std::fflush(stderr);
}

void ShutDown() {
  Tracker* t = ExistingInstance();
  if (t == nullptr && TrackingOn()) t = &Instance();
  if (t != nullptr) {
    if (TrackingOn()) WritePhaseFile(*t);
    {
      Locked guard(t->lock);
      FlushRecords(*t);
    }
  }
  mem_internal::SetProcessTrackingMode(mem_internal::kTrackingShutDown);
  if (t != nullptr) {
    g_tracker.store(nullptr, std::memory_order_release);
    Destroy(t);
  }
}

}  // namespace mem_tracker

namespace mem_internal {

// The tracker cannot appear or go away while the creation lock is held, so
// all three steps see the same instance (or none).
void LockTrackerForFork() {
  mem_tracker::g_creationLock.Acquire();
  if (mem_tracker::Tracker* t = mem_tracker::ExistingInstance()) {
    t->phaseLock.Acquire();
    t->lock.Acquire();
  }
}
void UnlockTrackerAfterFork() {
  if (mem_tracker::Tracker* t = mem_tracker::ExistingInstance()) {
    t->lock.Release();
    t->phaseLock.Release();
  }
  mem_tracker::g_creationLock.Release();
}
void ResetTrackerInForkChild() {
  if (mem_tracker::Tracker* t = mem_tracker::ExistingInstance()) {
    t->lock.ResetInForkChild();
    t->phaseLock.ResetInForkChild();
  }
  mem_tracker::g_creationLock.ResetInForkChild();
}

}  // namespace mem_internal
}  // namespace zmx

using namespace zmx::mem_tracker;

void mem_Tracker_Interface::SetOutputName(const char* name) {
  if (!TrackingOn()) return;
  Tracker& t = Instance();
  if (!TrackingOn()) return;  // creation may have switched tracking off
  Locked guard(t.lock);       // a batch may be written under the old name meanwhile
  t.nameSet = true;
  ApplyNamingRule(t, name != nullptr ? name : "");
}

int mem_Tracker_Interface::CurrTransactionId() { return CurrentTransaction(Instance()); }

void mem_Tracker_Interface::EnterPhase(const char* name, int print) {
  if (!TrackingOn()) return;
  Tracker& t = Instance();
  if (TrackingOn()) zmx::mem_tracker::EnterPhase(t, name != nullptr ? name : "", print);
}

void mem_Tracker_Interface::ExitPhase(int print) {
  if (!TrackingOn()) return;
  Tracker& t = Instance();
  if (TrackingOn()) zmx::mem_tracker::ExitPhase(t, print);
}

void mem_Tracker_Interface::PrintTransaction(const char* label) {
  if (!TrackingOn()) return;
  Tracker& t = Instance();
  if (TrackingOn())
    std::fprintf(stderr, "%s  --  Monitored TransId = %d\n", label != nullptr ? label : "", CurrentTransaction(t));
}

void mem_Tracker_Interface::StartTracking() {
  if (!TrackingOn()) return;
  Tracker& t = Instance();
  Locked guard(t.lock);
  if (TrackingOn()) t.trackingOn = true;
}

void mem_Tracker_Interface::StopTracking() {
  if (!TrackingOn()) return;
  Tracker& t = Instance();
  Locked guard(t.lock);
  if (!TrackingOn()) return;
  t.trackingOn = false;
  t.stopped = true;
}

bool mem_Tracker_Interface::IsTrackingActive() { return TrackingOn(); }

void mem_Tracker_Interface::Shutdown() { ShutDown(); }

extern "C" {

void MEM_TRACKER_ENTERPHASE(int* print, const char* name, int nameLength) {
  Tracker& t = Instance();
  char buffer[kExplicitBuffer];
  Terminated(buffer, name, nameLength);
  if (TrackingOn()) zmx::mem_tracker::EnterPhase(t, buffer, print != nullptr ? *print : 0);
}

void MEM_TRACKER_EXITPHASE(int* print) {
  Tracker& t = Instance();
  if (TrackingOn()) zmx::mem_tracker::ExitPhase(t, print != nullptr ? *print : 0);
}

void MEM_TRACKER_PRINTTRANSACTION(const char* label, int labelLength) {
  Tracker& t = Instance();
  char buffer[kExplicitBuffer];
  Terminated(buffer, label, labelLength);
  if (TrackingOn()) std::fprintf(stderr, "%s  --  Monitored TransId = %d\n", buffer, CurrentTransaction(t));
}

void MEM_TRACKER_SHUTDOWN() { ShutDown(); }

}  // extern "C"
