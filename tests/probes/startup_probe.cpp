// Fresh-process scenarios for start-up and shut-down: counter and depth
// arithmetic as seen from a process that has not touched the library yet.
// Prints one line per observation; no allocation happens before the scenario's
// first start-up call.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ZMXUTI_CoreUtils.h"
#include "probes/probe_main.h"

namespace {

void Show(const char* what, int depth) { std::printf("%s %d\n", what, depth); }

void TwiceUpTwiceDown() {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
  Show("init1", depth);
  UTI_CoreUtils_initialize(depth);
  Show("init2", depth);
  UTI_CoreUtils_finalize(depth);
  Show("fini1", depth);
  UTI_CoreUtils_finalize(depth);
  Show("fini2", depth);
  UTI_CoreUtils_initialize(depth);
  Show("reinit", depth);
}

void MemoryFirst() {
  int d1 = 0, d2 = 0;
  mem_initialize(d1);
  Show("mem", d1);
  UTI_CoreUtils_initialize(d2);
  Show("library", d2);
  UTI_CoreUtils_finalize(d2);
  Show("library_down", d2);
  int d3 = 0;
  mem_finalize(d3);
  Show("mem_down", d3);
}

void FinalizeBeforeInitialize() {
  int depth = 0;
  UTI_CoreUtils_finalize(depth);
  Show("fini", depth);
  UTI_CoreUtils_initialize(depth);
  Show("init1", depth);
  UTI_CoreUtils_initialize(depth);
  Show("init2", depth);
  int d = 0;
  omni_finalize(d);
  omni_finalize(d);
  Show("omni_down_twice", d);
  omni_initialize(d);
  Show("omni_up1", d);
  omni_initialize(d);
  Show("omni_up2", d);
}

void EachComponent() {
  void (*const ups[])(int&) = {mem_initialize, uts_initialize, atr_initialize, aio_initialize, omni_initialize};
  void (*const downs[])(int&) = {mem_finalize, uts_finalize, atr_finalize, aio_finalize, omni_finalize};
  for (int i = 0; i < 5; ++i) {
    int depth = 10;
    ups[i](depth);
    ups[i](depth);
    downs[i](depth);
    const int afterOneDown = depth;
    downs[i](depth);
    downs[i](depth);
    ups[i](depth);
    const int backAtZero = depth;
    ups[i](depth);
    std::printf("component%d %d %d %d\n", i, afterOneDown, backAtZero, depth);
  }
  mem_formalize();
  omni_formalize();
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
  Show("after_formalize", depth);
}

void DebugPopup() {
  std::printf("before %d\n", omi_DebugPopupsWanted() ? 1 : 0);
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
  std::printf("after %d\n", omi_DebugPopupsWanted() ? 1 : 0);
  // A second start-up without the variable does not clear the flag.
  UTI_CoreUtils_finalize(depth);
  unsetenv("QVL_DEBUG_POPUP");
  UTI_CoreUtils_initialize(depth);
  std::printf("restarted %d\n", omi_DebugPopupsWanted() ? 1 : 0);
}

// Shut-down destroys the alert listener (disarming it); the next start-up's
// first use makes a fresh one.
void ListenerFinalized() {
  using Base = omi_SingletonBase<omi_AlertListener>;
  std::printf("before %d\n", Base::Instance() != nullptr);
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
  omi_Singleton<omi_AlertListener>::Instance().Arm();
  std::printf("armed %d\n", Base::Instance()->ThreadId() != 0);
  UTI_CoreUtils_finalize(depth);
  std::printf("after %d\n", Base::Instance() != nullptr);
  UTI_CoreUtils_initialize(depth);
  std::printf("fresh armed %d\n", omi_Singleton<omi_AlertListener>::Instance().ThreadId() != 0);
}

const zmx_probe::Scenario kScenarios[] = {
    {"twice_up_twice_down", TwiceUpTwiceDown},
    {"memory_first", MemoryFirst},
    {"finalize_before_initialize", FinalizeBeforeInitialize},
    {"each_component", EachComponent},
    {"debug_popup", DebugPopup},
    {"listener_finalized", ListenerFinalized},
};

}  // namespace

int main(int argc, char** argv) { return zmx_probe::Dispatch(argc, argv, kScenarios); }
