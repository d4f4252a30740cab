// The process tracking mode, the installed tracker sink and the per-entry-point
// re-evaluation of the cached mode.
#include <cstdlib>

#include "mem/internal/tracker_hooks.h"

namespace zmx {
namespace mem_internal {

namespace {

int g_processMode = kTrackingUnknown;
TrackerSink* g_sink = nullptr;

class SilentSink final : public TrackerSink {
 public:
  void RecordMalloc(void*, std::size_t) override {}
  void RecordFree(void*) override {}
  void RecordNew(void*, std::size_t) override {}
  void RecordDelete(void*) override {}
  void RecordRealloc(void*, void*, std::size_t) override {}
  void RecordCalloc(void*, std::size_t, std::size_t) override {}
  void RecordValloc(void*, std::size_t) override {}
  void RecordRelease(void*) override {}
  void RecordAcquire(void*) override {}
  void PrepareThread() override {}
};

SilentSink g_silentSink;

}  // namespace

int ProcessTrackingMode() {
  if (g_processMode == kTrackingUnknown)
    g_processMode = std::getenv("ZEM_MEM_TRACK") != nullptr ? kTrackingOn : kTrackingOff;
  return g_processMode;
}

void SetProcessTrackingMode(int mode) { g_processMode = mode; }

TrackerSink& Tracker() { return g_sink != nullptr ? *g_sink : g_silentSink; }

TrackerSink* InstallTrackerSink(TrackerSink* sink) {
  TrackerSink* previous = g_sink;
  g_sink = sink;
  return previous;
}

bool ReevaluateTracking(int& cache) {
  if (cache == kTrackingUnknown) cache = ProcessTrackingMode();
  if (cache != kTrackingOff)
    cache = (cache == kTrackingOn && ProcessTrackingMode() == kTrackingOn) ? kTrackingOn : kTrackingOff;
  return cache == kTrackingOn;
}

}  // namespace mem_internal
}  // namespace zmx
