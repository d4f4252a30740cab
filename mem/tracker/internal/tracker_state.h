// The memory tracker's state and the steps its files share: the one process-wide
// tracker object, its record buffer and phase stacks, and the limits that keep
// callers' input inside them.
#ifndef ZMXUTI_MEM_TRACKER_INTERNAL_TRACKER_STATE_H
#define ZMXUTI_MEM_TRACKER_INTERNAL_TRACKER_STATE_H

#include <atomic>
#include <cstdint>

#include "mem/heap/internal/counting_lock.h"
#include "mem/tracker/hashes.h"

namespace zmx {
namespace mem_tracker {

constexpr int kMaxThreads = 64;
constexpr int kMaxDepth = 1024;
constexpr int kNameSlot = 128;            // a phase name keeps at most 127 characters
constexpr int kPathBytes = 131072;        // a phase path keeps at most 131071 characters
constexpr unsigned int kBatchRecords = 131072;
constexpr int kMaxDebugTransactions = 50;
constexpr int kOutputNameBytes = 2048;
constexpr int kOutputDirBytes = 1024;
constexpr int kFileNameRoom = 2037;       // name length limit: leaves room for ".phaseStack"
constexpr int kExplicitBuffer = 152;      // MEM_TRACKER_* copies at most 151 characters

enum OperationCode : std::uint32_t {
  kMalloc = 0, kFree = 1, kNew = 2, kDelete = 3, kRealloc = 4,
  kCalloc = 5, kValloc = 6, kRelease = 7, kAcquire = 8,
};

// One transaction, laid out as in the record files (little-endian hosts only).
struct TransactionRecord {
  std::uint64_t address;
  std::uint64_t previous;
  std::uint32_t code;
  std::uint32_t number;
  std::uint64_t size;
  std::uint32_t thread;
  std::uint32_t phase;
};
static_assert(sizeof(TransactionRecord) == 40, "records are 40 bytes in the files");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "record files are little-endian");

// The phases of one thread: path == "ROOT" + "->" + names[0] + ... + "->" + names[depth-1].
struct PhaseStack {
  char names[kMaxDepth][kNameSlot];
  char path[kPathBytes];
  int depth;
  int pathLength;
  int refused;  // enters beyond the limits, each cancelled by an exit before any pop
};

struct Tracker {
  char outputName[kOutputNameBytes];
  bool nameSet;
  bool hasOutputDir;
  char outputDir[kOutputDirBytes];
  PhaseStack* stacks;  // kMaxThreads of them
  unsigned int nextPhaseId;
  std::atomic<std::uint32_t> currentPhase[kMaxThreads];  // written by its thread, read when recording
  mem_StackHash* phases;
  mem_internal::CountingLock phaseLock;  // keeps racing enters from corrupting the shared table
  mem_internal::CountingLock lock;       // the record buffer, the counters, the untracked set
  TransactionRecord* records;
  unsigned int fileSequence;
  unsigned int buffered;
  int debugTransactions[kMaxDebugTransactions];
  unsigned int debugCount;
  unsigned int nextDebug;
  int transactionCounter;
  bool trackingOn;
  bool stopped;
  int untrackedCount;
  mem_PtrHash untracked;

  Tracker() : untracked(0) {}
};

using Locked = mem_internal::CountingLockHold;

// The tracker, created on first use (tracker.cpp); null before that / after shut-down.
Tracker& Instance();
Tracker* ExistingInstance();
bool TrackingOn();  // the process mode, decided if need be, is "on"

// The calling thread's index, 0.. in order of first request; threads beyond
// the 64th are reported (once) and share index 63. `beyond` tells which.
int ThreadIndex(bool* beyond = nullptr);

// Phases (tracker_phases.cpp).
void InitPhases(Tracker& t);
void EnterPhase(Tracker& t, const char* name, int print);
void ExitPhase(Tracker& t, int print);

// Files and names (tracker_files.cpp).
void ApplyNamingRule(Tracker& t, const char* name);
void FlushRecords(Tracker& t);  // with the lock held
void WritePhaseFile(Tracker& t);
void ParseDebugTransactions(Tracker& t, const char* value);

int CurrentTransaction(Tracker& t);

// Limits the library adds; each is reported once per process on standard error.
enum class Limit { kThreads, kDepth, kPathLength, kNameLength, kExitWithoutEnter, kExplicitLength, kTransactionCount,
                   kCount };
void ReportLimitOnce(Limit limit);

}  // namespace mem_tracker
}  // namespace zmx

#endif  // ZMXUTI_MEM_TRACKER_INTERNAL_TRACKER_STATE_H
