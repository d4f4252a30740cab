// Thread indices and the per-thread phase stacks of the memory tracker: each
// thread walks its own stack; the paths share one phase table.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "mem/allocation.h"
#include "mem/tracker/internal/tracker_state.h"

namespace zmx {
namespace mem_tracker {

namespace {

std::atomic<int> g_nextThread{0};
thread_local int t_threadIndex = -1;

// The stack of the calling thread; null for threads beyond the tables, whose phases are not followed.
PhaseStack* StackOf(Tracker& t, int* index) {
  bool beyond = false;
  *index = ThreadIndex(&beyond);
  return beyond ? nullptr : &t.stacks[*index];
}

bool Push(PhaseStack& s, const char* name) {
  std::size_t length = std::strlen(name);
  if (length >= static_cast<std::size_t>(kNameSlot)) {
    ReportLimitOnce(Limit::kNameLength);
    length = kNameSlot - 1;
  }
  if (s.refused > 0) return false;  // already beyond a limit: reported then
  if (s.depth == kMaxDepth) {
    ReportLimitOnce(Limit::kDepth);
    return false;
  }
  if (s.pathLength + 2 + length >= static_cast<std::size_t>(kPathBytes)) {
    ReportLimitOnce(Limit::kPathLength);
    return false;
  }
  std::memcpy(s.names[s.depth], name, length);
  s.names[s.depth][length] = '\0';
  char* end = s.path + s.pathLength;
  end[0] = '-';
  end[1] = '>';
  std::memcpy(end + 2, name, length);
  end[2 + length] = '\0';
  s.pathLength += static_cast<int>(2 + length);
  ++s.depth;
  return true;
}

// The path is "ROOT" and "->name" per level, so cutting the last level equals
// rebuilding it from the remaining names.
void Pop(PhaseStack& s) {
  --s.depth;
  s.pathLength -= static_cast<int>(2 + std::strlen(s.names[s.depth]));
  s.path[s.pathLength] = '\0';
}

std::uint32_t PhaseIdOf(Tracker& t, const char* path, bool insertIfAbsent) {
  Locked guard(t.phaseLock);
  int id = t.phases->LookUp(path);
  if (id == mem_StackHash::kNotFound && insertIfAbsent) {
    id = static_cast<int>(t.nextPhaseId++);
    t.phases->Insert(path, id);
  }
  return static_cast<std::uint32_t>(id);
}

}  // namespace

int ThreadIndex(bool* beyond) {
  if (ZMX_UNLIKELY(t_threadIndex < 0)) t_threadIndex = g_nextThread.fetch_add(1, std::memory_order_relaxed);
  const bool over = t_threadIndex >= kMaxThreads;
  if (ZMX_UNLIKELY(over)) ReportLimitOnce(Limit::kThreads);
  if (beyond != nullptr) *beyond = over;
  return over ? kMaxThreads - 1 : t_threadIndex;
}

void InitPhases(Tracker& t) {
  t.stacks = static_cast<PhaseStack*>(mem_cMalloc(sizeof(PhaseStack) * kMaxThreads));
  void* table = mem_cMalloc(sizeof(mem_StackHash));
  if (t.stacks == nullptr || table == nullptr) {
    std::fputs("ERROR: memTracker  --  not enough memory for the tracker's tables\n", stderr);
    std::abort();
  }
  for (int i = 0; i < kMaxThreads; ++i) {
    PhaseStack& s = t.stacks[i];
    std::memcpy(s.path, "ROOT", 5);
    s.pathLength = 4;
    s.depth = 0;
    s.refused = 0;
  }
  t.phases = new (table) mem_StackHash();
  t.nextPhaseId = 0;
}

void EnterPhase(Tracker& t, const char* name, int print) {
  int index = 0;
  PhaseStack* s = StackOf(t, &index);
  if (s == nullptr) return;
  if (!Push(*s, name)) {
    ++s->refused;
    return;
  }
  const std::uint32_t id = PhaseIdOf(t, s->path, true);
  t.currentPhase[index].store(id, std::memory_order_relaxed);
  if (print != 0)
    std::fprintf(stderr, "%s  --  ENTER PHASE  --  Monitored TransID = %d --  threadId = %d\n", s->path,
                 CurrentTransaction(t), index);
}

void ExitPhase(Tracker& t, int print) {
  int index = 0;
  PhaseStack* s = StackOf(t, &index);
  if (s == nullptr) return;
  if (s->refused > 0) {
    --s->refused;
    return;
  }
  if (s->depth == 0) {
    ReportLimitOnce(Limit::kExitWithoutEnter);
    return;
  }
  if (print != 0)
    std::fprintf(stderr, "%s  --  EXIT PHASE  -- Monitored TransID = %d -- threadId = %d\n", s->path,
                 CurrentTransaction(t), index);
  Pop(*s);
  t.currentPhase[index].store(PhaseIdOf(t, s->path, false), std::memory_order_relaxed);
}

}  // namespace mem_tracker
}  // namespace zmx
