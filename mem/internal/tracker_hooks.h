// The memory tracker as the front door sees it: the process tracking mode and
// one recording call per transaction kind. The memory tracker is the sink unless
// another one is installed (test doubles); each
// front-door entry point keeps its own cached mode so that an untracked process
// pays one comparison per call.
#ifndef ZMXUTI_MEM_INTERNAL_TRACKER_HOOKS_H
#define ZMXUTI_MEM_INTERNAL_TRACKER_HOOKS_H

#include <cstddef>

#include "core/export.h"

namespace zmx {
namespace mem_internal {

enum TrackingMode : int {
  kTrackingUnknown = 0,
  kTrackingOff = 1,
  kTrackingOn = 2,
  kTrackingShutDown = 3,
};

// The process mode, decided on first need from the presence of ZEM_MEM_TRACK.
ZMXUTI_INTERNAL_API int ProcessTrackingMode();
// Sets the process mode (the tracker switches itself off on errors and at shut-down).
ZMXUTI_INTERNAL_API void SetProcessTrackingMode(int mode);

class TrackerSink {
 public:
  virtual void RecordMalloc(void* block, std::size_t size) = 0;
  virtual void RecordFree(void* block) = 0;
  virtual void RecordNew(void* block, std::size_t size) = 0;
  virtual void RecordDelete(void* block) = 0;
  virtual void RecordRealloc(void* block, void* oldBlock, std::size_t size) = 0;
  virtual void RecordCalloc(void* block, std::size_t count, std::size_t size) = 0;
  virtual void RecordValloc(void* block, std::size_t size) = 0;
  virtual void RecordRelease(void* block) = 0;
  virtual void RecordAcquire(void* block) = 0;
  // Called by mem_initialize on the starting thread when tracking is on.
  virtual void PrepareThread() = 0;

 protected:
  ~TrackerSink() = default;
};

// The installed sink, by default the memory tracker's recorder.
TrackerSink& Tracker();
// The memory tracker's recorder (mem/tracker).
TrackerSink& TrackerRecorder();
// Installs `sink`; returns the previous one. Null restores the tracker's recorder.
ZMXUTI_INTERNAL_API TrackerSink* InstallTrackerSink(TrackerSink* sink);

// One entry point's cached mode: 0 at load, 1 final (off), 2 on while the process mode is 2.
ZMX_NOINLINE bool ReevaluateTracking(int& cache);
inline bool TrackingOn(int& cache) {
  if (ZMX_LIKELY(cache == kTrackingOff)) return false;
  return ReevaluateTracking(cache);
}

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_INTERNAL_TRACKER_HOOKS_H
