// Bit-vector workloads: set, test, iterate and the four in-place set operators
// on sparse, clustered and dense member sets, for omi_BlkBitVect, CRoaring and a
// flat std::vector<uint64_t> bitset.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "bench_report.h"
#include "bench_timing.h"
#include "containers/internal/container_checks.h"

#if ZMX_BENCH_HAVE_ROARING
#include <roaring/roaring.h>
#endif

namespace zmx_bench_containers {

namespace {

struct MemberSet {
  std::vector<std::uint32_t> members;  // insertion order (shuffled)
  std::vector<std::uint32_t> queries;  // half members, half anything in range
  std::uint64_t range = 0;             // one past the largest member
};

// Sorted distinct members from random gaps, then shuffled.
MemberSet MakeMembers(const std::string& kind, std::size_t n, unsigned int seed) {
  std::mt19937_64 rng(seed);
  MemberSet set;
  set.members.reserve(n);
  std::uint64_t next = rng() % 1024;
  while (set.members.size() < n) {
    if (kind == "sparse") {
      next += 1 + rng() % 127;  // density about 1/64
      set.members.push_back(static_cast<std::uint32_t>(next));
    } else if (kind == "dense") {
      next += 1 + (rng() & 1);  // density about 2/3
      set.members.push_back(static_cast<std::uint32_t>(next));
    } else {  // clustered: runs of 64..4095 members with gaps up to twice their length
      const std::uint64_t run = 64 + rng() % 4032;
      for (std::uint64_t i = 0; i < run && set.members.size() < n; ++i) set.members.push_back(static_cast<std::uint32_t>(next + i));
      next += run + rng() % (2 * run);
    }
  }
  set.range = static_cast<std::uint64_t>(set.members.back()) + 1;
  std::shuffle(set.members.begin(), set.members.end(), rng);
  set.queries.reserve(n);
  for (std::size_t i = 0; i < n; ++i) {
    set.queries.push_back((i & 1) ? set.members[rng() % n] : static_cast<std::uint32_t>(rng() % set.range));
  }
  return set;
}

// ---- contenders, each with the same operations

struct OmiBits {
  static const char* Name() { return "omi_BlkBitVect"; }
  omi_BlkBitVect v;
  explicit OmiBits(std::uint64_t) {}
  void Set(std::uint32_t b) { v.SetBit(b); }
  bool Test(std::uint32_t b) const { return v.TestBit(b); }
  unsigned long long Sum() const {
    unsigned long long sum = 0;
    omi_BlkBitVectTrav t(&v);
    unsigned int b = 0;
    for (bool ok = t.First(b); ok; ok = t.Next(b)) sum += b;
    return sum;
  }
  void And(const OmiBits& o) { v &= o.v; }
  void Or(const OmiBits& o) { v |= o.v; }
  void AndNot(const OmiBits& o) { v -= o.v; }
  void Xor(const OmiBits& o) { v ^= o.v; }
  unsigned long long Count() const { return v.Count(); }
  std::size_t Bytes() const { return zmx::containers_internal::ContainerChecks::BytesHeld(v); }
};

struct FlatBits {
  static const char* Name() { return "flat bitset"; }
  std::vector<std::uint64_t> w;
  unsigned long long count = 0;
  explicit FlatBits(std::uint64_t range) : w(range / 64 + 1, 0) {}
  void Set(std::uint32_t b) {
    std::uint64_t& word = w[b >> 6];
    const std::uint64_t bit = std::uint64_t{1} << (b & 63);
    count += (word & bit) ? 0 : 1;
    word |= bit;
  }
  bool Test(std::uint32_t b) const { return (b >> 6) < w.size() && ((w[b >> 6] >> (b & 63)) & 1); }
  unsigned long long Sum() const {
    unsigned long long sum = 0;
    for (std::size_t i = 0; i < w.size(); ++i) {
      for (std::uint64_t word = w[i]; word != 0; word &= word - 1) sum += i * 64 + static_cast<unsigned>(__builtin_ctzll(word));
    }
    return sum;
  }
  template <typename Op>
  void Combine(const FlatBits& o, Op op) {
    if (o.w.size() > w.size()) w.resize(o.w.size(), 0);
    unsigned long long c = 0;
    for (std::size_t i = 0; i < w.size(); ++i) {
      w[i] = op(w[i], i < o.w.size() ? o.w[i] : 0);
      c += static_cast<unsigned>(__builtin_popcountll(w[i]));
    }
    count = c;
  }
  void And(const FlatBits& o) { Combine(o, [](std::uint64_t a, std::uint64_t b) { return a & b; }); }
  void Or(const FlatBits& o) { Combine(o, [](std::uint64_t a, std::uint64_t b) { return a | b; }); }
  void AndNot(const FlatBits& o) { Combine(o, [](std::uint64_t a, std::uint64_t b) { return a & ~b; }); }
  void Xor(const FlatBits& o) { Combine(o, [](std::uint64_t a, std::uint64_t b) { return a ^ b; }); }
  unsigned long long Count() const { return count; }
  std::size_t Bytes() const { return w.size() * 8; }
};

#if ZMX_BENCH_HAVE_ROARING
struct RoaringBits {
  static const char* Name() { return "CRoaring"; }
  roaring_bitmap_t* r;
  explicit RoaringBits(std::uint64_t) : r(roaring_bitmap_create()) {}
  RoaringBits(const RoaringBits& o) : r(roaring_bitmap_copy(o.r)) {}
  RoaringBits& operator=(const RoaringBits&) = delete;
  ~RoaringBits() { roaring_bitmap_free(r); }
  void Set(std::uint32_t b) { roaring_bitmap_add(r, b); }
  bool Test(std::uint32_t b) const { return roaring_bitmap_contains(r, b); }
  unsigned long long Sum() const {
    unsigned long long sum = 0;
    roaring_iterate(
        r, [](std::uint32_t value, void* p) { *static_cast<unsigned long long*>(p) += value; return true; }, &sum);
    return sum;
  }
  void And(const RoaringBits& o) { roaring_bitmap_and_inplace(r, o.r); }
  void Or(const RoaringBits& o) { roaring_bitmap_or_inplace(r, o.r); }
  void AndNot(const RoaringBits& o) { roaring_bitmap_andnot_inplace(r, o.r); }
  void Xor(const RoaringBits& o) { roaring_bitmap_xor_inplace(r, o.r); }
  unsigned long long Count() const { return roaring_bitmap_get_cardinality(r); }
  std::size_t Bytes() const { return roaring_bitmap_size_in_bytes(r); }
};
#endif

template <typename C>
void RunContender(zmx_bench::Report& report, const std::string& label, const MemberSet& a, const MemberSet& b, std::uint64_t range) {
  const double n = static_cast<double>(a.members.size());
  std::vector<C*> scratch;
  auto fresh = [&]() {
    for (C* c : scratch) delete c;
    scratch.clear();
    scratch.push_back(new C(range));
  };
  const double setSeconds = BestSeconds(fresh, [&] {
    for (std::uint32_t m : a.members) scratch[0]->Set(m);
  }, 3);
  report.Add(label + " set", C::Name(), setSeconds * 1e9 / n, "ns/op");
  C left(range), right(range);
  for (std::uint32_t m : a.members) left.Set(m);
  for (std::uint32_t m : b.members) right.Set(m);
  report.Add(label + " memory", C::Name(), static_cast<double>(left.Bytes()) / n, "B/member");
  const double testSeconds = BestSeconds([] {}, [&] {
    unsigned long long hits = 0;
    for (std::uint32_t q : a.queries) hits += left.Test(q) ? 1 : 0;
    Consume(hits);
  }, 3);
  report.Add(label + " test", C::Name(), testSeconds * 1e9 / n, "ns/op");
  const double iterSeconds = BestSeconds([] {}, [&] { Consume(left.Sum()); }, 3);
  report.Add(label + " iterate", C::Name(), iterSeconds * 1e9 / n, "ns/member");

  struct Op {
    const char* name;
    void (C::*apply)(const C&);
  };
  const Op ops[] = {{"&=", &C::And}, {"|=", &C::Or}, {"-=", &C::AndNot}, {"^=", &C::Xor}};
  for (const Op& op : ops) {
    C* work = nullptr;
    const double seconds = BestSeconds(
        [&] {
          delete work;
          work = new C(left);
        },
        [&] { (work->*op.apply)(right); }, 5);
    Consume(work->Count());
    delete work;
    report.Add(label + " " + op.name, C::Name(), seconds * 1e6, "us/op");
  }
  for (C* c : scratch) delete c;
}

}  // namespace

void RunBitVectorBench(zmx_bench::Report& report, bool quick) {
  const std::vector<std::size_t> sizes = quick ? std::vector<std::size_t>{10000, 1000000}
                                               : std::vector<std::size_t>{10000, 100000, 1000000, 10000000};
  for (const char* kind : {"sparse", "clustered", "dense"}) {
    for (std::size_t n : sizes) {
      const MemberSet a = MakeMembers(kind, n, 1);
      const MemberSet b = MakeMembers(kind, n, 2);
      const std::uint64_t range = std::max(a.range, b.range);
      char label[64];
      std::snprintf(label, sizeof label, "bits %s %.0e", kind, static_cast<double>(n));
      RunContender<OmiBits>(report, label, a, b, range);
#if ZMX_BENCH_HAVE_ROARING
      RunContender<RoaringBits>(report, label, a, b, range);
#endif
      RunContender<FlatBits>(report, label, a, b, range);
      std::fprintf(stderr, "  done %s\n", label);
    }
  }
}

}  // namespace zmx_bench_containers
