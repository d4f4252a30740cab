// Allocator benchmark: the library's general heap (mem_Malloc/mem_Free, new/delete,
// and with its lock switched off) against glibc malloc, mimalloc, jemalloc and
// tcmalloc on the same workloads. Run without arguments it starts one child
// process per (contender, workload) -- peers that replace malloc are preloaded
// into their child -- and prints ops/s, the ratio to glibc and peak resident
// memory, then writes alloc_bench.md and alloc_bench.svg.
//   alloc_bench [--quick] [--out DIR]        the whole comparison
//   alloc_bench --child CONTENDER WORKLOAD   one measurement (internal)
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "bench_report.h"

namespace {

struct LibraryUp {
  LibraryUp() {
    int depth = 0;
    UTI_CoreUtils_initialize(depth);
  }
};
LibraryUp g_libraryUp __attribute__((init_priority(101)));

// ------------------------------------------------------------ contenders

enum class Api { kMemMalloc, kNewDelete, kSystemMalloc };

Api g_api = Api::kSystemMalloc;
double g_scale = 1.0;

inline void* Alloc(std::size_t n) {
  switch (g_api) {
    case Api::kMemMalloc: return mem_Malloc(n);
    case Api::kNewDelete: return ::operator new(n);
    default: return std::malloc(n);
  }
}
inline void Release(void* p) {
  switch (g_api) {
    case Api::kMemMalloc: mem_Free(p); break;
    case Api::kNewDelete: ::operator delete(p); break;
    default: std::free(p); break;
  }
}
inline void* Resize(void* p, std::size_t n) {
  return g_api == Api::kSystemMalloc ? std::realloc(p, n) : mem_Realloc(p, n);
}

inline void Touch(void* p, std::size_t n) {
  if (n == 0) return;
  static_cast<volatile char*>(p)[0] = 1;
  static_cast<volatile char*>(p)[n - 1] = 2;
}

std::size_t Ops(std::size_t base) { return static_cast<std::size_t>(static_cast<double>(base) * g_scale); }

// ------------------------------------------------------------- workloads
// Each returns the number of allocator operations it made (alloc, free, realloc).

std::size_t SlotChurn(std::size_t ops, std::size_t slots, std::size_t (*pick)(std::mt19937_64&), unsigned seed) {
  std::mt19937_64 rng(seed);
  std::vector<void*> live(slots, nullptr);
  std::vector<std::size_t> sizes(slots, 0);
  std::size_t count = 0;
  for (std::size_t i = 0; i < ops; ++i) {
    const std::size_t k = rng() % slots;
    if (live[k] != nullptr) {
      Release(live[k]);
      ++count;
    }
    const std::size_t n = pick(rng);
    live[k] = Alloc(n);
    Touch(live[k], n);
    ++count;
  }
  for (void* p : live)
    if (p) Release(p), ++count;
  return count;
}

std::size_t SmallSize(std::mt19937_64& rng) { return 8 + rng() % 505; }

// Power law: most requests small, a long tail up to 1 MiB.
std::size_t PowerLawSize(std::mt19937_64& rng) {
  const double u = std::uniform_real_distribution<double>(0.0, 1.0)(rng);
  const double x = 8.0 * std::pow(1.0 - u, -1.0 / 0.6);
  return x > 1048576.0 ? 1048576 : static_cast<std::size_t>(x);
}

std::size_t SmallRandom() { return SlotChurn(Ops(3000000), 1000, SmallSize, 1); }
std::size_t PowerLaw() { return SlotChurn(Ops(1000000), 1000, PowerLawSize, 2); }

// Blocks grow by reallocation from 16 bytes to 256 KiB, as buffers do.
std::size_t ReallocGrowth() {
  std::mt19937_64 rng(3);
  std::size_t count = 0;
  const std::size_t rounds = Ops(20000);
  std::vector<void*> keep(16, nullptr);
  for (std::size_t r = 0; r < rounds; ++r) {
    std::size_t n = 16;
    void* p = Alloc(n);
    ++count;
    const std::size_t limit = 1024 + rng() % 262144;
    while (n < limit) {
      n += n / 2 + rng() % 64;
      p = Resize(p, n);
      Touch(p, n);
      ++count;
    }
    void*& slot = keep[r % keep.size()];
    if (slot) Release(slot), ++count;
    slot = p;
  }
  for (void* p : keep)
    if (p) Release(p), ++count;
  return count;
}

// A long-lived population stays while short-lived blocks come and go around it.
std::size_t LongShortMix() {
  std::mt19937_64 rng(4);
  std::size_t count = 0;
  std::vector<void*> longLived;
  std::vector<void*> window(64, nullptr);
  const std::size_t ops = Ops(3000000);
  for (std::size_t i = 0; i < ops; ++i) {
    if (i % 64 == 0 && longLived.size() < 50000) {
      const std::size_t n = 16 + rng() % 2000;
      longLived.push_back(Alloc(n));
      Touch(longLived.back(), n);
      ++count;
    }
    void*& w = window[i % window.size()];
    if (w) Release(w), ++count;
    const std::size_t n = 8 + rng() % 300;
    w = Alloc(n);
    Touch(w, n);
    ++count;
  }
  for (void* p : window)
    if (p) Release(p), ++count;
  for (void* p : longLived) Release(p), ++count;
  return count;
}

// Larson-style: each thread replaces blocks at random and hands every other
// block to a shared mailbox, freeing what another thread left there.
std::size_t LarsonThreads(unsigned threads) {
  std::vector<std::atomic<void*>> mailboxes(512);
  for (auto& m : mailboxes) m.store(nullptr);
  std::atomic<std::size_t> total{0};
  const std::size_t opsPerThread = Ops(2000000) / threads;
  auto worker = [&](unsigned id) {
    std::mt19937_64 rng(100 + id);
    std::vector<void*> own(1000, nullptr);
    std::size_t count = 0;
    for (std::size_t i = 0; i < opsPerThread; ++i) {
      const std::size_t n = 16 + rng() % 240;
      void* p = Alloc(n);
      Touch(p, n);
      ++count;
      void* old;
      if (i & 1) {
        old = mailboxes[rng() % mailboxes.size()].exchange(p, std::memory_order_acq_rel);
      } else {
        void*& slot = own[rng() % own.size()];
        old = slot;
        slot = p;
      }
      if (old) Release(old), ++count;
    }
    for (void* p : own)
      if (p) Release(p), ++count;
    total += count;
  };
  std::vector<std::thread> pool;
  for (unsigned t = 0; t < threads; ++t) pool.emplace_back(worker, t);
  for (auto& th : pool) th.join();
  std::size_t count = total.load();
  for (auto& m : mailboxes)
    if (void* p = m.exchange(nullptr)) Release(p), ++count;
  return count;
}

struct Workload {
  const char* name;
  std::size_t (*run)();
  bool threaded;
};

const Workload kWorkloads[] = {
    {"small 8-512 B", SmallRandom, false},
    {"power-law to 1 MiB", PowerLaw, false},
    {"realloc growth", ReallocGrowth, false},
    {"long+short mix", LongShortMix, false},
    {"larson 2 threads", [] { return LarsonThreads(2); }, true},
};

// --------------------------------------------------------------- a child

int RunChild(const std::string& contender, const std::string& workloadName) {
  if (contender == "zmx mem_Malloc" || contender == "zmx no lock") {
    g_api = Api::kMemMalloc;
  } else if (contender == "zmx new/delete") {
    g_api = Api::kNewDelete;
  } else {
    g_api = Api::kSystemMalloc;
  }
  if (contender == "zmx no lock") {
    mem_Mallopt(-4, 0);
    mem_Mallopt(-1, 2097152);  // the next call brings the switch into force
  }
  for (const Workload& w : kWorkloads) {
    if (workloadName != w.name) continue;
    double best = 0;
    for (int rep = 0; rep < 3; ++rep) {
      const auto start = std::chrono::steady_clock::now();
      const std::size_t ops = w.run();
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      if (ops / seconds > best) best = ops / seconds;
    }
    std::printf("%.0f %.1f\n", best, zmx_bench::PeakResidentMiB());
    return 0;
  }
  return 2;
}

// -------------------------------------------------------------- the driver

struct Contender {
  const char* name;
  const char* preload;  // shared library replacing malloc, or null
  bool singleThreadedOnly;
};

const Contender kContenders[] = {
    {"glibc", nullptr, false},
    {"zmx mem_Malloc", nullptr, false},
    {"zmx new/delete", nullptr, false},
    {"zmx no lock", nullptr, true},
    {"mimalloc", "/usr/lib/x86_64-linux-gnu/libmimalloc.so.2", false},
    {"jemalloc", "/usr/lib/x86_64-linux-gnu/libjemalloc.so.2", false},
    {"tcmalloc", "/usr/lib/x86_64-linux-gnu/libtcmalloc_minimal.so.4", false},
};

std::string SelfPath() {
  char buf[4096];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string("alloc_bench");
}

int RunDriver(const std::string& outDir, const char* scaleText) {
  zmx_bench::Report speed("Allocator throughput (ops/s)", true);
  zmx_bench::Report memory("Allocator peak resident memory (MiB)", false);
  const std::string self = SelfPath();
  for (const Contender& c : kContenders) {
    if (c.preload && access(c.preload, R_OK) != 0) {
      std::fprintf(stderr, "skipping %s: %s not installed\n", c.name, c.preload);
      continue;
    }
    for (const Workload& w : kWorkloads) {
      if (w.threaded && c.singleThreadedOnly) continue;
      std::string cmd;
      if (c.preload) cmd += std::string("LD_PRELOAD=") + c.preload + " ";
      cmd += "'" + self + "' --child '" + c.name + "' '" + w.name + "' " + scaleText;
      FILE* pipe = popen(cmd.c_str(), "r");
      double opsPerSecond = 0, peak = 0;
      const bool ok = pipe && std::fscanf(pipe, "%lf %lf", &opsPerSecond, &peak) == 2;
      if (pipe) pclose(pipe);
      if (!ok) {
        std::fprintf(stderr, "%s / %s: no result\n", c.name, w.name);
        continue;
      }
      std::fprintf(stderr, "%-16s %-20s %12.0f ops/s %8.1f MiB\n", c.name, w.name, opsPerSecond, peak);
      speed.Add(w.name, c.name, opsPerSecond, "ops/s");
      memory.Add(w.name, c.name, peak, "MiB");
    }
  }
  std::printf("\n== throughput, ratio to glibc (above 1 is faster) ==\n");
  speed.PrintTable("glibc");
  std::printf("\n== peak resident memory, ratio to glibc (above 1 is smaller) ==\n");
  memory.PrintTable("glibc");
  speed.WriteMarkdown(outDir + "/alloc_bench.md", "glibc");
  memory.WriteMarkdown(outDir + "/alloc_bench_rss.md", "glibc");
  speed.WriteSvg(outDir + "/alloc_bench.svg", "glibc");
  memory.WriteSvg(outDir + "/alloc_bench_rss.svg", "glibc");
  std::printf("\nwrote %s/alloc_bench.md, alloc_bench_rss.md, alloc_bench.svg, alloc_bench_rss.svg\n", outDir.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string outDir = ".";
  const char* scaleText = "--scale 1";
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--child" && i + 2 < argc) {
      for (int j = i + 3; j + 1 < argc; ++j)
        if (std::strcmp(argv[j], "--scale") == 0) g_scale = std::atof(argv[j + 1]);
      return RunChild(argv[i + 1], argv[i + 2]);
    }
    if (a == "--quick") scaleText = "--scale 0.2";
    if (a == "--out" && i + 1 < argc) outDir = argv[++i];
  }
  return RunDriver(outDir, scaleText);
}
