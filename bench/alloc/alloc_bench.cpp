// Allocator benchmark: the library's general heap (mem_Malloc/mem_Free, new/delete,
// with its lock switched off, and with its per-thread cache) and its small-object
// path (mem_TBAllocator(2), small-object lock off and on) against glibc malloc
// (with and without its per-thread cache), mimalloc, jemalloc and tcmalloc on the
// same workloads. Run without arguments it starts one child process per
// (contender, workload) -- peers that replace malloc are preloaded into their
// child, contenders chosen by the environment get it set before the child starts
// -- and prints ops/s, the ratios to glibc with and without its cache, peak
// resident memory, resident bytes per live 32-byte block and the targets, then
// writes alloc_bench.md, alloc_bench_rss.md and their charts (a failed write is
// an error: message on stderr, exit status 1).
//   alloc_bench [--quick] [--small] [--rounds N] [--out DIR]   the whole comparison
//     --quick  a fifth of the operations, one round
//     --small  only the small-object workloads and the contenders they are judged against
//   alloc_bench --child CONTENDER WORKLOAD   one measurement (internal)
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "bench_report.h"

namespace {

// The library comes up before anything of the program allocates.
ZMXUTI_EARLY_START_UP;

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

// One thread allocates into a bounded queue while another takes the blocks out
// and frees them: every block is freed by a thread other than its allocator's.
std::size_t ProducerConsumer() {
  constexpr std::size_t kQueue = 1024;  // a power of two
  std::vector<std::atomic<void*>> queue(kQueue);
  for (auto& q : queue) q.store(nullptr);
  std::atomic<std::size_t> head{0}, tail{0};  // head: next to take; tail: next to fill
  const std::size_t blocks = Ops(1500000);
  std::thread consumer([&] {
    for (std::size_t taken = 0; taken < blocks; ++taken) {
      const std::size_t h = head.load(std::memory_order_relaxed);
      while (tail.load(std::memory_order_acquire) == h) std::this_thread::yield();
      Release(queue[h & (kQueue - 1)].load(std::memory_order_relaxed));
      head.store(h + 1, std::memory_order_release);
    }
  });
  std::mt19937_64 rng(8);
  for (std::size_t made = 0; made < blocks; ++made) {
    const std::size_t n = 16 + rng() % 497;
    void* p = Alloc(n);
    Touch(p, n);
    const std::size_t t = tail.load(std::memory_order_relaxed);
    while (t - head.load(std::memory_order_acquire) == kQueue) std::this_thread::yield();
    queue[t & (kQueue - 1)].store(p, std::memory_order_relaxed);
    tail.store(t + 1, std::memory_order_release);
  }
  consumer.join();
  return 2 * blocks;
}

// ------------------------------------------------------ small-object workloads
// Blocks of 16 to 128 bytes, the sizes mem_TBAllocator(2) sends to the small-object allocator.

std::size_t TinySize(std::mt19937_64& rng) { return 16 + rng() % 113; }

std::size_t TinyRandom() { return SlotChurn(Ops(3000000), 10000, TinySize, 5); }

// Blocks come and go in batches of varying length: a batch is allocated, then
// freed whole, in allocation order and in reverse order by turns.
std::size_t TinyBatches() {
  std::mt19937_64 rng(6);
  std::vector<void*> batch(8192, nullptr);
  const std::size_t target = Ops(3000000);
  std::size_t count = 0;
  for (std::size_t round = 0; count < target; ++round) {
    const std::size_t n = 256 + rng() % (batch.size() - 255);
    for (std::size_t i = 0; i < n; ++i) {
      const std::size_t size = TinySize(rng);
      batch[i] = Alloc(size);
      Touch(batch[i], size);
    }
    if (round % 2 == 0) {
      for (std::size_t i = 0; i < n; ++i) Release(batch[i]);
    } else {
      for (std::size_t i = n; i-- > 0;) Release(batch[i]);
    }
    count += 2 * n;
  }
  return count;
}

// A large long-lived population grows while short-lived blocks churn around it,
// so the survivors end up scattered among freed slots; the churn goes on after.
std::size_t TinyLongLivedChurn() {
  std::mt19937_64 rng(7);
  const std::size_t population = Ops(200000);
  std::vector<void*> longLived;
  longLived.reserve(population);
  std::vector<void*> churn(1024, nullptr);
  const std::size_t ops = Ops(3000000);
  std::size_t count = 0;
  for (std::size_t i = 0; i < ops; ++i) {
    if (i % 4 == 0 && longLived.size() < population) {
      const std::size_t n = TinySize(rng);
      longLived.push_back(Alloc(n));
      Touch(longLived.back(), n);
      ++count;
    }
    void*& slot = churn[rng() % churn.size()];
    if (slot) Release(slot), ++count;
    const std::size_t n = TinySize(rng);
    slot = Alloc(n);
    Touch(slot, n);
    ++count;
  }
  for (void* p : churn)
    if (p) Release(p), ++count;
  for (void* p : longLived) Release(p), ++count;
  return count;
}

// Resident set growth per live block, measured on the first run in a child (a
// fresh process); later runs reuse memory the first one brought in.
double g_residentPerBlock = 0;

std::size_t LiveBlocks32() {
  constexpr std::size_t kBlocks = 1000000, kSize = 32;
  std::vector<void*> blocks(kBlocks, nullptr);  // resident before the first measurement
  const double before = zmx_bench::ResidentBytes();
  for (void*& p : blocks) {
    p = Alloc(kSize);
    Touch(p, kSize);
  }
  const double after = zmx_bench::ResidentBytes();
  if (g_residentPerBlock == 0) g_residentPerBlock = (after - before) / static_cast<double>(kBlocks);
  for (void* p : blocks) Release(p);
  return 2 * kBlocks;
}

struct Workload {
  const char* name;
  std::size_t (*run)();
  unsigned threads;  // threads that allocate or free at once
  bool small;        // a small-object workload: run by --small
  bool Threaded() const { return threads > 1; }
};

const char* const kTinyRandom = "tiny 16-128 B random";
const char* const kTinyBatches = "tiny batches";
const char* const kTinyLongLived = "tiny long-lived+churn";
const char* const kLiveBlocks = "1M live 32 B blocks";

const Workload kWorkloads[] = {
    {"small 8-512 B", SmallRandom, 1, false},
    {"power-law to 1 MiB", PowerLaw, 1, false},
    {"realloc growth", ReallocGrowth, 1, false},
    {"long+short mix", LongShortMix, 1, false},
    {"larson 2 threads", [] { return LarsonThreads(2); }, 2, false},
    {"larson 4 threads", [] { return LarsonThreads(4); }, 4, false},
    {"producer/consumer", ProducerConsumer, 2, false},
    {kTinyRandom, TinyRandom, 1, true},
    {kTinyBatches, TinyBatches, 1, true},
    {kTinyLongLived, TinyLongLivedChurn, 1, true},
    {kLiveBlocks, LiveBlocks32, 1, true},
};
constexpr std::size_t kWorkloadCount = sizeof kWorkloads / sizeof kWorkloads[0];

// ------------------------------------------------------------- contenders

// What a child switches on in the library before it measures.
enum class Setup { kDefault, kHeapLockOff, kSmallObjects, kSmallObjectsLocked };

struct Contender {
  const char* name;
  Api api;
  Setup setup;
  const char* preload;      // shared library replacing malloc, or null
  const char* environment;  // NAME=VALUE set before the child starts, or null
  bool singleThreadedOnly;
  bool small;  // judged against on the small-object workloads: run by --small
};

const char* const kGlibc = "glibc";
const char* const kGlibcNoCache = "glibc (no tcache)";
const char* const kMimalloc = "mimalloc";
const char* const kGeneralHeap = "zmx mem_Malloc";
const char* const kSmallObjects = "zmx small-objects";
const char* const kSmallObjectsLocked = "zmx small-objects+lock";

const char* const kHeapNoLock = "zmx no lock";

const Contender kContenders[] = {
    {kGlibc, Api::kSystemMalloc, Setup::kDefault, nullptr, nullptr, false, true},
    {kGlibcNoCache, Api::kSystemMalloc, Setup::kDefault, nullptr, "GLIBC_TUNABLES=glibc.malloc.tcache_count=0",
     false, false},
    {kGeneralHeap, Api::kMemMalloc, Setup::kDefault, nullptr, nullptr, false, true},
    {"zmx new/delete", Api::kNewDelete, Setup::kDefault, nullptr, nullptr, false, false},
    {kHeapNoLock, Api::kMemMalloc, Setup::kHeapLockOff, nullptr, nullptr, true, false},
    {"zmx thread cache", Api::kMemMalloc, Setup::kDefault, nullptr, "ZMX_HEAP_THREAD_CACHE=1", false,
     false},
    {kSmallObjects, Api::kMemMalloc, Setup::kSmallObjects, nullptr, nullptr, true, true},
    {kSmallObjectsLocked, Api::kMemMalloc, Setup::kSmallObjectsLocked, nullptr, nullptr, false, true},
    {kMimalloc, Api::kSystemMalloc, Setup::kDefault, "/usr/lib/x86_64-linux-gnu/libmimalloc.so.2", nullptr, false,
     true},
    {"jemalloc", Api::kSystemMalloc, Setup::kDefault, "/usr/lib/x86_64-linux-gnu/libjemalloc.so.2", nullptr, false,
     true},
    {"tcmalloc", Api::kSystemMalloc, Setup::kDefault, "/usr/lib/x86_64-linux-gnu/libtcmalloc_minimal.so.4", nullptr,
     false, true},
};
constexpr std::size_t kContenderCount = sizeof kContenders / sizeof kContenders[0];

void Prepare(Setup setup) {
  switch (setup) {
    case Setup::kHeapLockOff:
      mem_Mallopt(-4, 0);
      mem_Mallopt(-1, 2097152);  // the next call brings the switch into force
      break;
    case Setup::kSmallObjects:
    case Setup::kSmallObjectsLocked: {
      const char* forced = std::getenv("ZMX_TBMALLOC");
      if (forced != nullptr && forced[0] == '0') std::fprintf(stderr, "ZMX_TBMALLOC keeps small objects off\n");
      mem_TBAllocator(2);  // mem_Malloc and new route blocks up to 128 bytes to small objects
      // The lock is off by default; switching it on needs the routing already on.
      if (setup == Setup::kSmallObjectsLocked) mem_TBThreadLock(true);
      break;
    }
    default:
      break;
  }
}

// --------------------------------------------------------------- a child

int RunChild(const std::string& contenderName, const std::string& workloadName) {
  const Contender* contender = nullptr;
  for (const Contender& c : kContenders)
    if (contenderName == c.name) contender = &c;
  const Workload* workload = nullptr;
  for (const Workload& w : kWorkloads)
    if (workloadName == w.name) workload = &w;
  if (contender == nullptr || workload == nullptr) return 2;
  g_api = contender->api;
  Prepare(contender->setup);
  double best = 0;
  std::size_t ops = 0;
  for (int rep = 0; rep < 3; ++rep) {
    const auto start = std::chrono::steady_clock::now();
    ops = workload->run();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (ops / seconds > best) best = ops / seconds;
  }
  // The third number (operations per repetition) is for instruction-count runs;
  // the fourth is resident bytes per live block, 0 where the workload does not measure it.
  std::printf("%.0f %.1f %zu %.2f\n", best, zmx_bench::PeakResidentMiB(), ops, g_residentPerBlock);
  return 0;
}

// -------------------------------------------------------------- the driver

struct Result {
  double opsPerSecond = 0;
  double peak = 0;
  double residentPerBlock = 0;
  bool ok = false;
};

struct Plan {
  std::string self;        // this program, started once per child
  const char* scaleText;   // passed to every child
  bool small;              // only the small-object workloads and their contenders
  bool present[kContenderCount];
  Result results[kContenderCount][kWorkloadCount];

  bool Selected(std::size_t ci, std::size_t wi) const {
    return present[ci] && (!small || (kContenders[ci].small && kWorkloads[wi].small));
  }
  // A contender without a lock is kept off workloads with several threads.
  bool LeftOutForThreads(std::size_t ci, std::size_t wi) const {
    return kWorkloads[wi].Threaded() && kContenders[ci].singleThreadedOnly;
  }
  bool Runs(std::size_t ci, std::size_t wi) const { return Selected(ci, wi) && !LeftOutForThreads(ci, wi); }
};

std::string SelfPath() {
  char buf[4096];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string("alloc_bench");
}

// One child: a fresh process, the peer preloaded where there is one.
bool RunOne(const Plan& plan, const Contender& c, const Workload& w, Result& out) {
  std::string cmd;
  if (c.preload) cmd += std::string("LD_PRELOAD=") + c.preload + " ";
  if (c.environment) cmd += std::string(c.environment) + " ";
  cmd += "'" + plan.self + "' --child '" + c.name + "' '" + w.name + "' " + plan.scaleText;
  FILE* pipe = popen(cmd.c_str(), "r");
  if (pipe == nullptr) return false;
  std::size_t ops = 0;
  const bool ok =
      std::fscanf(pipe, "%lf %lf %zu %lf", &out.opsPerSecond, &out.peak, &ops, &out.residentPerBlock) == 4;
  pclose(pipe);
  return ok;
}

// The machine may be shared, so its load drifts: every contender runs each
// workload once per round, the rounds interleave the contenders, and each keeps
// its best round. No contender is measured only in a quiet or a busy stretch.
void Measure(Plan& plan, int rounds) {
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t wi = 0; wi < kWorkloadCount; ++wi) {
      for (std::size_t ci = 0; ci < kContenderCount; ++ci) {
        if (!plan.Runs(ci, wi)) continue;
        const Contender& c = kContenders[ci];
        const Workload& w = kWorkloads[wi];
        Result now;
        if (!RunOne(plan, c, w, now)) {
          std::fprintf(stderr, "%s / %s: no result\n", c.name, w.name);
          continue;
        }
        std::fprintf(stderr, "round %d %-28s %-22s %12.0f ops/s %8.1f MiB\n", round + 1, c.name, w.name,
                     now.opsPerSecond, now.peak);
        Result& r = plan.results[ci][wi];
        if (now.opsPerSecond > r.opsPerSecond) r.opsPerSecond = now.opsPerSecond;
        // Memory hardly varies between rounds; keep the smallest for every contender alike.
        if (!r.ok || now.peak < r.peak) r.peak = now.peak;
        if (!r.ok || now.residentPerBlock < r.residentPerBlock) r.residentPerBlock = now.residentPerBlock;
        r.ok = true;
      }
    }
  }
}

struct Reports {
  zmx_bench::Report speed{"Allocator throughput (ops/s)", true};
  Reports() { speed.SetLogScaleChart(true); }  // ratios to glibc run from a tenth to twenty
  zmx_bench::Report memory{"Allocator peak resident memory (MiB)", false};
  zmx_bench::Report perBlock{"Resident memory per live 32-byte block (bytes)", false};
};

void Fill(const Plan& plan, Reports& reports) {
  for (std::size_t ci = 0; ci < kContenderCount; ++ci) {
    const Contender& c = kContenders[ci];
    for (std::size_t wi = 0; wi < kWorkloadCount; ++wi) {
      const Workload& w = kWorkloads[wi];
      const Result& r = plan.results[ci][wi];
      if (plan.Selected(ci, wi) && plan.LeftOutForThreads(ci, wi)) {
        reports.speed.AddNote(w.name, c.name, "skipped: no lock, one thread only");
        reports.memory.AddNote(w.name, c.name, "skipped: no lock, one thread only");
      }
      if (!r.ok) continue;
      reports.speed.Add(w.name, c.name, r.opsPerSecond, "ops/s");
      reports.memory.Add(w.name, c.name, r.peak, "MiB");
      if (r.residentPerBlock > 0) reports.perBlock.Add(w.name, c.name, r.residentPerBlock, "B");
    }
  }
}

// ------------------------------------------------------------- the targets

struct Target {
  std::string what, workload, figures, goal;
  bool known = false, met = false;
};

// Throughput of `contender` over `baseline`, to reach 1.0 on every small-object workload.
void AddSpeedTargets(const zmx_bench::Report& speed, const char* contender, const char* baseline,
                     std::vector<Target>& out) {
  for (const char* workload : {kTinyRandom, kTinyBatches, kTinyLongLived}) {
    Target t;
    t.what = std::string(contender) + " vs " + baseline + ", ops/s";
    t.workload = workload;
    t.goal = ">= 1.00x";
    const double ratio = speed.Ratio(workload, contender, baseline);
    t.known = ratio > 0;
    t.met = ratio >= 1.0;
    char buf[96];
    std::snprintf(buf, sizeof buf, "%.2fx (%.1f vs %.1f Mops/s)", ratio, speed.Value(workload, contender) / 1e6,
                  speed.Value(workload, baseline) / 1e6);
    t.figures = buf;
    out.push_back(t);
  }
}

// The general heap, lock on and off, against glibc without its per-thread cache
// on every single-threaded workload.
void AddHeapTargets(const zmx_bench::Report& speed, std::vector<Target>& out) {
  for (const char* contender : {kGeneralHeap, kHeapNoLock}) {
    for (const Workload& w : kWorkloads) {
      if (w.Threaded()) continue;
      Target t;
      t.what = std::string(contender) + " vs " + kGlibcNoCache + ", ops/s";
      t.workload = w.name;
      t.goal = ">= 1.00x";
      const double ratio = speed.Ratio(w.name, contender, kGlibcNoCache);
      t.known = ratio > 0;
      t.met = ratio >= 1.0;
      char buf[96];
      std::snprintf(buf, sizeof buf, "%.2fx (%.1f vs %.1f Mops/s)", ratio, speed.Value(w.name, contender) / 1e6,
                    speed.Value(w.name, kGlibcNoCache) / 1e6);
      t.figures = buf;
      out.push_back(t);
    }
  }
}

std::vector<Target> Targets(const Reports& reports, bool small) {
  std::vector<Target> targets;
  if (!small) AddHeapTargets(reports.speed, targets);
  AddSpeedTargets(reports.speed, kSmallObjects, kMimalloc, targets);
  AddSpeedTargets(reports.speed, kSmallObjectsLocked, kGlibc, targets);
  Target t;
  t.what = std::string(kSmallObjects) + " vs " + kGlibc + ", B/block";
  t.workload = kLiveBlocks;
  t.goal = "below glibc";
  const double ours = reports.perBlock.Value(kLiveBlocks, kSmallObjects);
  const double glibc = reports.perBlock.Value(kLiveBlocks, kGlibc);
  t.known = ours > 0 && glibc > 0;
  t.met = ours < glibc;
  char buf[96];
  std::snprintf(buf, sizeof buf, "%.2f vs %.2f B per block", ours, glibc);
  t.figures = buf;
  targets.push_back(t);
  return targets;
}

const char* Verdict(const Target& t) { return !t.known ? "n/a" : t.met ? "met" : "MISSED"; }

void PrintTargets(const std::vector<Target>& targets) {
  std::printf("\n== targets ==\n%-44s %-22s %-12s %-7s %s\n", "target", "workload", "goal", "result",
              "figures");
  for (const Target& t : targets)
    std::printf("%-44s %-22s %-12s %-7s %s\n", t.what.c_str(), t.workload.c_str(), t.goal.c_str(), Verdict(t),
                t.figures.c_str());
}

std::string TargetsMarkdown(const std::vector<Target>& targets) {
  std::string text = "## Targets\n\n| target | workload | goal | result | figures |\n|---|---|---|---|---|\n";
  for (const Target& t : targets)
    text += "| " + t.what + " | " + t.workload + " | " + t.goal + " | " + Verdict(t) + " | " + t.figures + " |\n";
  return text;
}

// ------------------------------------------------------------- publishing

// A plain line for each workload that runs more threads than the machine has
// cores: its threads then take turns rather than run at once.
std::string CoreNotes(const Plan& plan) {
  const unsigned cores = std::thread::hardware_concurrency();
  std::string notes;
  for (std::size_t wi = 0; wi < kWorkloadCount; ++wi) {
    const Workload& w = kWorkloads[wi];
    bool runs = false;
    for (std::size_t ci = 0; ci < kContenderCount; ++ci) runs = runs || plan.Runs(ci, wi);
    if (!runs || cores == 0 || w.threads <= cores) continue;
    char line[160];
    std::snprintf(line, sizeof line, "note: \"%s\" runs %u threads on a machine with %u cores\n", w.name,
                  w.threads, cores);
    notes += line;
  }
  return notes;
}

// Every file is written; false (after a message on stderr for each that failed)
// when one could not be.
bool WriteFiles(const Reports& reports, const std::vector<Target>& targets, const std::string& notes, bool small,
                const std::string& outDir) {
  bool ok = true;
  auto check = [&](bool written, const char* name) {
    if (!written) std::fprintf(stderr, "alloc_bench: cannot write %s/%s\n", outDir.c_str(), name);
    ok = ok && written;
  };
  {
    std::ofstream md(outDir + "/alloc_bench.md");
    md << TargetsMarkdown(targets) << "\n" << (notes.empty() ? "" : notes + "\n")
       << reports.speed.MarkdownText(kGlibc) << "\n"
       << (small ? "" : reports.speed.MarkdownText(kGlibcNoCache) + "\n") << reports.perBlock.MarkdownText(kGlibc);
    md.flush();
    check(static_cast<bool>(md), "alloc_bench.md");
  }
  check(reports.memory.WriteMarkdown(outDir + "/alloc_bench_rss.md", kGlibc), "alloc_bench_rss.md");
  check(reports.speed.WriteSvg(outDir + "/alloc_bench.svg", kGlibc), "alloc_bench.svg");
  check(reports.memory.WriteSvg(outDir + "/alloc_bench_rss.svg", kGlibc), "alloc_bench_rss.svg");
  check(reports.perBlock.WriteSvg(outDir + "/alloc_bench_block.svg", kGlibc), "alloc_bench_block.svg");
  return ok;
}

bool Publish(const Plan& plan, const Reports& reports, const std::string& outDir) {
  const std::string notes = CoreNotes(plan);
  if (!notes.empty()) std::printf("\n%s", notes.c_str());
  std::printf("\n== throughput, ratio to glibc (above 1 is faster) ==\n");
  reports.speed.PrintTable(kGlibc);
  if (!plan.small) {
    std::printf("\n== throughput, ratio to glibc without its per-thread cache (above 1 is faster) ==\n");
    reports.speed.PrintTable(kGlibcNoCache);
  }
  std::printf("\n== peak resident memory, ratio to glibc (above 1 is smaller) ==\n");
  reports.memory.PrintTable(kGlibc);
  std::printf("\n== resident bytes per live 32-byte block, ratio to glibc (above 1 is smaller) ==\n");
  reports.perBlock.PrintTable(kGlibc);
  const std::vector<Target> targets = Targets(reports, plan.small);
  PrintTargets(targets);
  if (!WriteFiles(reports, targets, notes, plan.small, outDir)) return false;
  std::printf("\nwrote %s/alloc_bench.md, alloc_bench_rss.md, alloc_bench.svg, alloc_bench_rss.svg, "
              "alloc_bench_block.svg\n",
              outDir.c_str());
  return true;
}

int RunDriver(const std::string& outDir, const char* scaleText, int rounds, bool small) {
  Plan plan;
  plan.self = SelfPath();
  plan.scaleText = scaleText;
  plan.small = small;
  for (std::size_t ci = 0; ci < kContenderCount; ++ci) {
    const Contender& c = kContenders[ci];
    plan.present[ci] = !(c.preload && access(c.preload, R_OK) != 0);
    if (!plan.present[ci]) std::fprintf(stderr, "skipping %s: %s not installed\n", c.name, c.preload);
  }
  Measure(plan, rounds);
  Reports reports;
  Fill(plan, reports);
  return Publish(plan, reports, outDir) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string outDir = ".";
  const char* scaleText = "--scale 1";
  int rounds = 3;
  bool small = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--child" && i + 2 < argc) {
      for (int j = i + 3; j + 1 < argc; ++j)
        if (std::strcmp(argv[j], "--scale") == 0) g_scale = std::atof(argv[j + 1]);
      return RunChild(argv[i + 1], argv[i + 2]);
    }
    if (a == "--quick") scaleText = "--scale 0.2", rounds = 1;
    if (a == "--small") small = true;
    if (a == "--rounds" && i + 1 < argc) rounds = std::atoi(argv[++i]) > 0 ? std::atoi(argv[i]) : 1;
    if (a == "--out" && i + 1 < argc) outDir = argv[++i];
  }
  return RunDriver(outDir, scaleText, rounds, small);
}
