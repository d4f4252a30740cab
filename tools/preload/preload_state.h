// State shared by the preload library's entry points and its bring-up: whether
// the library is up, the bring-up options that shape requests, and the guard
// that sends requests made from inside the library (the C library's stream
// functions called by the tracker, say) straight to the C library's heap.
#ifndef ZMXUTI_TOOLS_PRELOAD_PRELOAD_STATE_H
#define ZMXUTI_TOOLS_PRELOAD_PRELOAD_STATE_H

#include <cstddef>

namespace zmx_preload {

enum LibraryState : int { kDown = 0, kComingUp = 1, kUp = 2 };

// kUp once the memory component is up; requests are then served by the front door.
extern int g_state;
// Set at bring-up when mem_Malloc routes small requests to the small-object
// allocator: requests below 16 bytes are then rounded up to 16, the smallest
// class whose slots keep the 16-byte alignment malloc promises.
extern bool g_roundTiny;
// Set under the guarded heap, whose own blocks are only 8-byte aligned: every
// block is then asked for with 16-byte alignment, and resized by moving it.
extern bool g_alignByHand;
// Set on the calling thread while it is inside the front door.
extern thread_local bool t_inside __attribute__((tls_model("initial-exec")));

// Marks the calling thread as inside the front door for the scope; nests.
class Inside {
 public:
  Inside() : was_(t_inside) { t_inside = true; }
  ~Inside() { t_inside = was_; }
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;

 private:
  bool was_;
};

// Brings the memory component up (once); called by the library's constructor.
void BringUp();
// Takes it down and writes the tracker's last batch; called at exit.
void TakeDown();

}  // namespace zmx_preload

#endif  // ZMXUTI_TOOLS_PRELOAD_PRELOAD_STATE_H
