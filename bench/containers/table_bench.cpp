// Integer-keyed table workloads: insert, find, iterate and erase on dense,
// clustered and random 32-bit keys, and memory per key, for omi_UintTable<int>,
// std::unordered_map, absl::flat_hash_map and JudyL.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "bench_report.h"
#include "bench_timing.h"
#include "containers/internal/container_checks.h"

#if ZMX_BENCH_HAVE_ABSL
#include <absl/container/flat_hash_map.h>
#endif
#if ZMX_BENCH_HAVE_JUDY
#include <Judy.h>
#endif

namespace zmx_bench_containers {

namespace {

// Bytes asked for by the standard containers, for their memory per key.
std::size_t g_requestedBytes = 0;

template <typename T>
struct CountingAllocator {
  using value_type = T;
  CountingAllocator() = default;
  template <typename U>
  CountingAllocator(const CountingAllocator<U>&) {}
  T* allocate(std::size_t n) {
    g_requestedBytes += n * sizeof(T);
    return static_cast<T*>(::operator new(n * sizeof(T)));
  }
  void deallocate(T* p, std::size_t n) {
    g_requestedBytes -= n * sizeof(T);
    ::operator delete(p);
  }
  template <typename U>
  bool operator==(const CountingAllocator<U>&) const { return true; }
  template <typename U>
  bool operator!=(const CountingAllocator<U>&) const { return false; }
};

struct OmiTable {
  static const char* Name() { return "omi_UintTable"; }
  omi_UintTable<int> t{12, 10, 24};
  void Insert(std::uint32_t k, int v) { t.Insert(k, v); }
  const int* Find(std::uint32_t k) const { return t.Find(k); }
  void Erase(std::uint32_t k) { t.Remove(k); }
  long long Sum() const {
    long long sum = 0;
    omi_UintTableIterator<int> it(t);
    for (it.First(); !it.IsDone(); it.Next()) sum += it.CurrentValue();
    return sum;
  }
  std::size_t Bytes() const { return zmx::containers_internal::ContainerChecks::BytesHeld(t); }
};

// A standard-interface hash map whose nodes and buckets are counted through
// CountingAllocator, for its memory per key.
template <template <class...> class Map, class Hash>
struct CountedMap {
  Map<std::uint32_t, int, Hash, std::equal_to<std::uint32_t>, CountingAllocator<std::pair<const std::uint32_t, int>>> m;
  std::size_t before = g_requestedBytes;
  void Insert(std::uint32_t k, int v) { m.insert_or_assign(k, v); }
  const int* Find(std::uint32_t k) const {
    auto it = m.find(k);
    return it == m.end() ? nullptr : &it->second;
  }
  void Erase(std::uint32_t k) { m.erase(k); }
  long long Sum() const {
    long long sum = 0;
    for (const auto& kv : m) sum += kv.second;
    return sum;
  }
  std::size_t Bytes() const { return g_requestedBytes - before + sizeof m; }
};

struct StdTable : CountedMap<std::unordered_map, std::hash<std::uint32_t>> {
  static const char* Name() { return "std::unordered_map"; }
};

#if ZMX_BENCH_HAVE_ABSL
struct AbslTable : CountedMap<absl::flat_hash_map, absl::Hash<std::uint32_t>> {
  static const char* Name() { return "absl::flat_hash_map"; }
};
#endif

#if ZMX_BENCH_HAVE_JUDY
struct JudyTable {
  static const char* Name() { return "JudyL"; }
  Pvoid_t array = nullptr;
  JudyTable() = default;
  JudyTable(const JudyTable&) = delete;
  JudyTable& operator=(const JudyTable&) = delete;
  ~JudyTable() { JudyLFreeArray(&array, PJE0); }
  void Insert(std::uint32_t k, int v) {
    auto* value = static_cast<Word_t*>(static_cast<void*>(JudyLIns(&array, k, PJE0)));
    *value = static_cast<Word_t>(v);
  }
  const int* Find(std::uint32_t k) const {
    // The int is the low half of the value word on x86-64.
    return static_cast<const int*>(static_cast<const void*>(JudyLGet(array, k, PJE0)));
  }
  void Erase(std::uint32_t k) { JudyLDel(&array, k, PJE0); }
  long long Sum() const {
    long long sum = 0;
    Word_t index = 0;
    for (PPvoid_t value = JudyLFirst(array, &index, PJE0); value != nullptr; value = JudyLNext(array, &index, PJE0)) {
      sum += static_cast<int>(*static_cast<Word_t*>(static_cast<void*>(value)));
    }
    return sum;
  }
  std::size_t Bytes() const { return JudyLMemUsed(array); }
};
#endif

std::vector<std::uint32_t> MakeKeys(const std::string& kind, std::size_t n, unsigned int seed) {
  std::mt19937_64 rng(seed);
  std::vector<std::uint32_t> keys;
  keys.reserve(n);
  if (kind == "dense") {
    for (std::size_t i = 0; i < n; ++i) keys.push_back(static_cast<std::uint32_t>(i));
  } else if (kind == "clustered") {
    // Windows of 4,096 keys at random places over the 32-bit range, half of each taken.
    while (keys.size() < n) {
      const std::uint32_t base = static_cast<std::uint32_t>(rng()) & ~4095u;
      for (std::uint32_t i = 0; i < 4096 && keys.size() < n; ++i) {
        if (rng() & 1) keys.push_back(base + i);
      }
    }
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  } else {
    while (keys.size() < n) keys.push_back(static_cast<std::uint32_t>(rng()));
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  }
  std::shuffle(keys.begin(), keys.end(), rng);
  return keys;
}

template <typename C>
void RunTable(zmx_bench::Report& report, const std::string& label, const std::vector<std::uint32_t>& keys,
              const std::vector<std::uint32_t>& lookups) {
  const double n = static_cast<double>(keys.size());
  C* table = nullptr;
  auto fresh = [&] {
    delete table;
    table = new C();
  };
  auto fill = [&] {
    fresh();
    for (std::uint32_t k : keys) table->Insert(k, static_cast<int>(k ^ 0x5555u));
  };
  const double insert = BestSeconds(fresh, [&] {
    for (std::uint32_t k : keys) table->Insert(k, static_cast<int>(k ^ 0x5555u));
  }, 3);
  report.Add(label + " insert", C::Name(), insert * 1e9 / n, "ns/op");
  report.Add(label + " memory", C::Name(), static_cast<double>(table->Bytes()) / n, "B/key");
  const double find = BestSeconds([] {}, [&] {
    long long sum = 0;
    for (std::uint32_t k : lookups) {
      const int* v = table->Find(k);
      sum += v != nullptr ? *v : 0;
    }
    Consume(static_cast<unsigned long long>(sum));
  }, 3);
  report.Add(label + " find", C::Name(), find * 1e9 / n, "ns/op");
  const double iterate = BestSeconds([] {}, [&] { Consume(static_cast<unsigned long long>(table->Sum())); }, 3);
  report.Add(label + " iterate", C::Name(), iterate * 1e9 / n, "ns/key");
  const double erase = BestSeconds(fill, [&] {
    for (std::uint32_t k : lookups) table->Erase(k);
  }, 2);
  report.Add(label + " erase", C::Name(), erase * 1e9 / n, "ns/op");
  delete table;
}

}  // namespace

void RunTableBench(zmx_bench::Report& report, bool quick) {
  struct Case {
    const char* kind;
    std::size_t n;
  };
  // Random keys over the whole 32-bit range cost the paged table a value page
  // per key, so that case stays small.
  const std::vector<Case> cases = quick ? std::vector<Case>{{"dense", 1000000}, {"clustered", 1000000}, {"random", 20000}}
                                        : std::vector<Case>{{"dense", 100000},    {"dense", 1000000},
                                                            {"clustered", 100000}, {"clustered", 1000000},
                                                            {"random", 20000}};
  for (const Case& c : cases) {
    const std::vector<std::uint32_t> keys = MakeKeys(c.kind, c.n, 7);
    std::vector<std::uint32_t> lookups = keys;
    std::shuffle(lookups.begin(), lookups.end(), std::mt19937_64(8));
    char label[64];
    std::snprintf(label, sizeof label, "table %s %.0e", c.kind, static_cast<double>(keys.size()));
    RunTable<OmiTable>(report, label, keys, lookups);
    RunTable<StdTable>(report, label, keys, lookups);
#if ZMX_BENCH_HAVE_ABSL
    RunTable<AbslTable>(report, label, keys, lookups);
#endif
#if ZMX_BENCH_HAVE_JUDY
    RunTable<JudyTable>(report, label, keys, lookups);
#endif
    std::fprintf(stderr, "  done %s\n", label);
  }
}

}  // namespace zmx_bench_containers
