// The use-counter rule shared by every component's start-up and shut-down pair.
#ifndef ZMXUTI_CORE_INTERNAL_USE_COUNTER_H
#define ZMXUTI_CORE_INTERNAL_USE_COUNTER_H

namespace zmx {
namespace core_internal {

// Raises the counter; on the 0 -> 1 step raises depth first, then runs the
// component's start-up work. Plain ints on purpose: start-up is single-threaded.
template <class Work>
inline void StartUp(int& counter, int& depth, Work&& work) {
  const int old = counter;
  counter = old + 1;
  if (old == 0) {
    ++depth;
    work();
  }
}

// Lowers the counter; when it reaches exactly 0 lowers depth first, then runs
// the shut-down work. A counter already at 0 goes to -1 and nothing runs.
template <class Work>
inline void ShutDown(int& counter, int& depth, Work&& work) {
  counter -= 1;
  if (counter == 0) {
    --depth;
    work();
  }
}

inline void NoWork() {}

}  // namespace core_internal
}  // namespace zmx

#endif  // ZMXUTI_CORE_INTERNAL_USE_COUNTER_H
