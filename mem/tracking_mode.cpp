// The process tracking mode, the installed tracker sink (the memory tracker
// unless a test double replaces it) and the per-entry-point re-evaluation of
// the cached mode.
#include <cstdlib>

#include "mem/internal/tracker_hooks.h"

namespace zmx {
namespace mem_internal {

namespace {

int g_processMode = kTrackingUnknown;
TrackerSink* g_sink = nullptr;

}  // namespace

int ProcessTrackingMode() {
  if (g_processMode == kTrackingUnknown)
    g_processMode = std::getenv("ZEM_MEM_TRACK") != nullptr ? kTrackingOn : kTrackingOff;
  return g_processMode;
}

void SetProcessTrackingMode(int mode) { g_processMode = mode; }

TrackerSink& Tracker() { return g_sink != nullptr ? *g_sink : TrackerRecorder(); }

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
