// What the front door adds to an allocation: alloc/free pairs of small sizes
// through mem_Malloc/mem_Free, new/delete and mem_cMalloc/mem_cFree, against
// glibc malloc/free on the same size sequence, in one process; and what an
// untracked process pays per pair for the tracking test.
// Usage: bench_frontdoor [pairs] [out-prefix]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "bench_report.h"

namespace {

// The library comes up before anything of the program allocates.
ZMXUTI_EARLY_START_UP;

constexpr int kLive = 64;  // a small window of live blocks, freed in allocation order

template <class Alloc, class Free>
double PairsPerSecond(long pairs, Alloc alloc, Free release) {
  void* live[kLive] = {};
  unsigned state = 12345;
  const auto start = std::chrono::steady_clock::now();
  for (long i = 0; i < pairs; ++i) {
    state = state * 1103515245u + 12345u;
    const std::size_t size = 8 + ((state >> 16) % 32) * 8;  // 8..256 bytes
    const int slot = static_cast<int>(i % kLive);
    release(live[slot]);
    live[slot] = alloc(size);
    static_cast<char*>(live[slot])[0] = 1;
  }
  for (void*& p : live) release(p);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return pairs / seconds;
}

}  // namespace

int main(int argc, char** argv) {
  const long pairs = argc > 1 ? std::atol(argv[1]) : 20000000;
  const std::string prefix = argc > 2 ? argv[2] : "frontdoor";
  zmx_bench::Report report("Front door: alloc/free pairs, 8-256 bytes", true);
  for (int round = 0; round < 2; ++round) {  // the first round warms the heaps up
    const bool keep = round == 1;
    auto add = [&](const char* who, double v) {
      if (keep) report.Add("pairs 8-256 B", who, v / 1e6, "Mpairs/s");
    };
    add("glibc malloc/free", PairsPerSecond(pairs, [](std::size_t n) { return std::malloc(n); },
                                            [](void* p) { std::free(p); }));
    add("mem_Malloc/mem_Free", PairsPerSecond(pairs, [](std::size_t n) { return mem_Malloc(n); },
                                              [](void* p) { mem_Free(p); }));
    add("new/delete", PairsPerSecond(pairs, [](std::size_t n) { return ::operator new(n); },
                                     [](void* p) { ::operator delete(p); }));
    add("mem_cMalloc/mem_cFree", PairsPerSecond(pairs, [](std::size_t n) { return mem_cMalloc(n); },
                                                [](void* p) { mem_cFree(p); }));
  }
  report.PrintTable("glibc malloc/free");
  // mem_cMalloc/mem_cFree call the same table slots without tracking or routing:
  // the difference is what an untracked process pays per pair for both.
  const double tracked = report.Value("pairs 8-256 B", "mem_Malloc/mem_Free");
  const double direct = report.Value("pairs 8-256 B", "mem_cMalloc/mem_cFree");
  std::printf("\ntracking off (%s): mem_Malloc/mem_Free add %.2f ns per pair over the direct slots "
              "(a cached tracking comparison and a small-object switch test per call)\n",
              mem_Tracker_Interface::IsTrackingActive() ? "on" : "off", 1e3 / tracked - 1e3 / direct);
  report.WriteMarkdown(prefix + ".md", "glibc malloc/free");
  report.WriteSvg(prefix + ".svg", "glibc malloc/free");
  std::printf("\nwrote %s.md and %s.svg (heap in use: %s)\n", prefix.c_str(), prefix.c_str(),
              mem_UseDL() ? "general heap" : "runtime heap");
  return 0;
}
