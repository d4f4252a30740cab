// Bringing the library up in a preloaded program, and down at its exit. Only
// the memory component comes up: full start-up would switch floating-point
// traps on and install a crash filter, changing how a program that was never
// written for the library behaves.
//
// Bring-up reads, besides the library's own variables:
//   ZMX_SMALL_OBJECTS  present and not "0": mem_Malloc and the operators route
//                      requests up to 128 bytes to the small-object allocator
//   ZMX_MEMORY_LIMIT   a number of bytes, 1 to 2147483647: the general heap's limit
//   ZMX_RUN_PID        set by zmx_run: only its direct child keeps the tracking
//                      output name (the value of ZEM_MEM_TRACK); other
//                      processes add ".<pid>" to it
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/startup.h"
#include "mem/allocation.h"
#include "mem/tracker/tracker.h"
#include "platform/system_allocator.h"
#include "preload_state.h"


namespace zmx_preload {

namespace {

constexpr int kMemoryLimitParameter = -5;
constexpr std::size_t kNameBytes = 1024;

int g_depth = 0;
char g_trackName[kNameBytes];  // the output name this process tree was given

// The decimal byte count in `text`, or 0 when it is not one in range.
long ParseLimit(const char* text) {
  if (*text < '0' || *text > '9') return 0;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value <= 0 || value > INT_MAX) return 0;
  return value;
}

void ApplyMemoryLimit() {
  const char* text = std::getenv("ZMX_MEMORY_LIMIT");
  if (text == nullptr) return;
  const long limit = ParseLimit(text);
  if (limit == 0) {
    std::fprintf(stderr, "zmx preload: ZMX_MEMORY_LIMIT must be a number of bytes from 1 to %d, not '%s'; no limit set\n",
                 INT_MAX, text);
    return;
  }
  // The heap takes a new limit into force at its next mallopt call: the second
  // call makes the first one's limit hold at once.
  mem_Mallopt(kMemoryLimitParameter, static_cast<int>(limit));
  mem_Mallopt(kMemoryLimitParameter, static_cast<int>(limit));
}

void SwitchSmallObjectsOn() {
  const char* value = std::getenv("ZMX_SMALL_OBJECTS");
  if (value == nullptr || std::strcmp(value, "0") == 0 || !mem_UseDL()) return;
  mem_TBAllocator(2);
  mem_TBThreadLock(true);
  g_roundTiny = true;
}

// Gives this process's tracking files their name: the tree's name for zmx_run's
// own child, "<name>.<pid>" for every other process that zmx_run started
// (forked children, the programs they start), so that no process overwrites
// another's files. Without zmx_run, only forked children add their pid.
void NameTrackingOutput() {
  char name[kNameBytes + 32];
  const char* runPid = std::getenv("ZMX_RUN_PID");
  if (runPid == nullptr || std::atol(runPid) == static_cast<long>(getppid()))
    std::snprintf(name, sizeof name, "%s", g_trackName);
  else
    std::snprintf(name, sizeof name, "%s.%ld", g_trackName, static_cast<long>(getpid()));
  mem_Tracker_Interface::SetOutputName(name);
}

void AfterForkInChild() {
  if (g_trackName[0] == '\0' || !mem_Tracker_Interface::IsTrackingActive()) return;
  char name[kNameBytes + 32];
  std::snprintf(name, sizeof name, "%s.%ld", g_trackName, static_cast<long>(getpid()));
  mem_Tracker_Interface::SetOutputName(name);
}

void SetUpTracking() {
  if (!mem_Tracker_Interface::IsTrackingActive()) return;
  const char* name = std::getenv("ZEM_MEM_TRACK");
  if (name == nullptr || name[0] == '\0' || std::strlen(name) >= kNameBytes) return;
  std::snprintf(g_trackName, sizeof g_trackName, "%s", name);
  NameTrackingOutput();
  pthread_atfork(nullptr, nullptr, AfterForkInChild);
}

}  // namespace

void BringUp() {
  if (g_state != kDown) return;
  g_state = kComingUp;
  // The C library's heap counts the main thread as attached to its main arena,
  // but the thread that first calls it is the one it attaches: were that a
  // later thread (the library's lock events, say), its exit would take the
  // count below the threads still attached and the C library would abort.
  zmx::platform::SystemFree(zmx::platform::SystemMalloc(1));
  mem_initialize(g_depth);
  g_alignByHand = std::getenv("ZEM_DEADBEEF") != nullptr;  // the allocator choice reads it too
  SwitchSmallObjectsOn();
  ApplyMemoryLimit();
  SetUpTracking();
  g_state = kUp;
}

// The heap stays usable: destructors and exit handlers that run after this one
// still free their blocks.
void TakeDown() {
  if (g_state != kUp) return;
  if (mem_Tracker_Interface::IsTrackingActive()) {
    Inside inside;  // what the tracker's shut-down allocates is not tracked by the tracker it closes
    mem_Tracker_Interface::Shutdown();
  }
  mem_finalize(g_depth);
}

namespace {

__attribute__((constructor(101))) void LibraryLoaded() { BringUp(); }
__attribute__((destructor(101))) void LibraryUnloaded() { TakeDown(); }

}  // namespace
}  // namespace zmx_preload
