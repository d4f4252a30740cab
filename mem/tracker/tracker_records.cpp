// Recording the front door's transactions: the memory tracker is the sink the
// front door reports to. Acquisitions made while tracking is stopped go to the
// untracked set, so that their releases are never recorded either.
#include <cstdint>
#include <cstdio>

#include "mem/internal/tracker_hooks.h"
#include "mem/tracker/internal/tracker_state.h"

namespace zmx {
namespace mem_tracker {

namespace {

constexpr std::uint64_t kReleasedSize = ~std::uint64_t{0};

const char* const kWords[] = {"", "free", "new", "delete", "realloc", "calloc", "valloc", "release", "acquire"};

std::int64_t Key(const void* block) { return static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(block)); }

// Announces the transaction about to be recorded when it is the next one listed.
// A listed number already passed blocks the list (deliberately).
void CheckDebugTransaction(Tracker& t, OperationCode code) {
  if (t.debugCount == 0 || t.nextDebug >= t.debugCount) return;
  if (t.debugTransactions[t.nextDebug] != t.transactionCounter) return;
  ++t.nextDebug;
  if (code == kMalloc) return;  // there is no "malloc" line
  std::fprintf(stderr, "mem_Tracker  --  transaction %d  --  %s\n", t.transactionCounter, kWords[code]);
  std::fflush(stderr);
}

// With the lock held.
void Append(Tracker& t, OperationCode code, const void* block, const void* previous, std::uint64_t size, int thread) {
  CheckDebugTransaction(t, code);
  TransactionRecord& r = t.records[t.buffered];
  r.address = reinterpret_cast<std::uintptr_t>(block);
  r.previous = reinterpret_cast<std::uintptr_t>(previous);
  r.code = code;
  r.number = static_cast<std::uint32_t>(t.transactionCounter);
  t.transactionCounter = static_cast<int>(r.number + 1u);
  r.size = size;
  r.thread = static_cast<std::uint32_t>(thread);
  // A free record keeps the phase its slot last held (deliberately).
  if (code != kFree) r.phase = t.currentPhase[thread].load(std::memory_order_relaxed);
  if (++t.buffered == kBatchRecords) {
    FlushRecords(t);
    // Past 2147483647 transactions the counter is negative and the flush writes
    // nothing; the full buffer must still be emptied before the next record.
    if (t.buffered == kBatchRecords) {
      ReportLimitOnce(Limit::kTransactionCount);
      t.buffered = 0;
    }
  }
}

void RecordAcquiring(OperationCode code, const void* block, std::uint64_t size) {
  Tracker& t = Instance();
  const int thread = ThreadIndex();
  Locked guard(t.lock);
  if (!t.trackingOn) {
    t.untracked.Add(Key(block), 1);
    ++t.untrackedCount;
    return;
  }
  Append(t, code, block, nullptr, size, thread);
}

// With the lock held: whether `block` was acquired while tracking was stopped.
bool IsUntracked(Tracker& t, const void* block) {
  return t.stopped && t.untrackedCount > 0 && t.untracked.LookUp(Key(block)) != mem_PtrHash::kNotFound;
}

void Forget(Tracker& t, const void* block) {
  t.untracked.Delete(Key(block));
  --t.untrackedCount;
}

// Releases are recorded even while tracking is stopped, so that blocks acquired
// before the stop stay accounted for.
void RecordReleasing(OperationCode code, const void* block) {
  Tracker& t = Instance();
  const int thread = ThreadIndex();
  Locked guard(t.lock);
  if (IsUntracked(t, block)) {
    Forget(t, block);
    return;
  }
  Append(t, code, block, nullptr, kReleasedSize, thread);
}

void RecordRealloc(const void* block, const void* old, std::uint64_t size) {
  Tracker& t = Instance();
  const int thread = ThreadIndex();
  Locked guard(t.lock);
  if (old != nullptr && IsUntracked(t, old)) {
    if (block == old) return;
    Forget(t, old);
    if (block == nullptr) return;
    t.untracked.Add(Key(block), 1);
    ++t.untrackedCount;
    return;
  }
  if (t.trackingOn) Append(t, kRealloc, block, old, size, thread);
}

class TrackerRecorderSink final : public mem_internal::TrackerSink {
 public:
  void RecordMalloc(void* block, std::size_t size) override { RecordAcquiring(kMalloc, block, size); }
  void RecordFree(void* block) override { RecordReleasing(kFree, block); }
  void RecordNew(void* block, std::size_t size) override { RecordAcquiring(kNew, block, size); }
  void RecordDelete(void* block) override { RecordReleasing(kDelete, block); }
  void RecordRealloc(void* block, void* oldBlock, std::size_t size) override {
    mem_tracker::RecordRealloc(block, oldBlock, size);
  }
  void RecordCalloc(void* block, std::size_t count, std::size_t size) override {
    RecordAcquiring(kCalloc, block, static_cast<std::uint64_t>(count) * size);
  }
  void RecordValloc(void* block, std::size_t size) override { RecordAcquiring(kValloc, block, size); }
  void RecordRelease(void* block) override { RecordReleasing(kRelease, block); }
  void RecordAcquire(void* block) override { RecordReleasing(kAcquire, block); }
  // The starting thread takes index 0.
  void PrepareThread() override {
    Instance();
    ThreadIndex();
  }
};

TrackerRecorderSink g_recorder;

}  // namespace

}  // namespace mem_tracker

namespace mem_internal {
TrackerSink& TrackerRecorder() { return mem_tracker::g_recorder; }
}  // namespace mem_internal

}  // namespace zmx
