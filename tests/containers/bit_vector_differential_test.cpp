// omi_BlkBitVect against a std::set<unsigned int> model over long random runs:
// counts, membership, both walking directions, set algebra and traversal
// placement, with members spread over the whole 32-bit range and clustered.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <random>
#include <set>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "containers/internal/container_checks.h"
#include "containers/bit_vector_members.h"

namespace {

using Model = std::set<unsigned int>;
using zmx::containers_internal::ContainerChecks;

// Members from three sources: anywhere in 32 bits, a few dense clusters, and
// the edges of pages and of the range.
class MemberSource {
 public:
  explicit MemberSource(unsigned int seed) : rng_(seed) {
    for (int i = 0; i < 6; ++i) clusters_.push_back(static_cast<unsigned int>(rng_()) & ~0xFFFFu);
  }
  unsigned int Next() {
    switch (rng_() % 8) {
      case 0:
      case 1:
        return static_cast<unsigned int>(rng_());
      case 2: {
        const unsigned int page = static_cast<unsigned int>(rng_()) >> 13;
        const unsigned int edge[] = {0u, 1u, 8191u, 8190u, 31u, 32u};
        return (page << 13) + edge[rng_() % 6];
      }
      case 3:
        return 0xFFFFFFFFu - static_cast<unsigned int>(rng_() % 64);
      default:
        return clusters_[rng_() % clusters_.size()] + static_cast<unsigned int>(rng_() % 40000);
    }
  }
  std::mt19937& Rng() { return rng_; }

 private:
  std::mt19937 rng_;
  std::vector<unsigned int> clusters_;
};

void ExpectSame(const omi_BlkBitVect& v, const Model& m) {
  ASSERT_EQ(v.Count(), m.size());
  ASSERT_EQ(Forward(v), std::vector<unsigned int>(m.begin(), m.end()));
  ASSERT_EQ(Backward(v), std::vector<unsigned int>(m.rbegin(), m.rend()));
  ASSERT_EQ(ContainerChecks::CheckBitVector(v), "");
}

// Random single-bit and range edits on two vectors, checked as they go.
void RunEdits(MemberSource& source, omi_BlkBitVect& v, Model& m, int operations) {
  auto& rng = source.Rng();
  for (int i = 0; i < operations; ++i) {
    const unsigned int bit = source.Next();
    const unsigned int kind = rng() % 16;
    if (kind < 9) {
      v.SetBit(bit);
      m.insert(bit);
    } else if (kind < 14) {
      v.UnsetBit(bit);
      m.erase(bit);
    } else if (kind == 14) {
      const unsigned int to = bit + static_cast<unsigned int>(rng() % 100);
      if (to < bit) continue;
      v.SetFromTo(bit, to);
      for (unsigned int b = bit;; ++b) {
        m.insert(b);
        if (b == to) break;
      }
    } else {
      ASSERT_EQ(v.TestBit(bit), m.count(bit) == 1) << bit;
    }
    if (i % 4096 == 0) {
      ASSERT_EQ(v.Count(), m.size());
    }
  }
}

TEST(BitVectorDifferential, EditsWalksAndCountsMatchTheModel) {
  MemberSource source(11);
  omi_BlkBitVect v;
  Model m;
  for (int round = 0; round < 6; ++round) {
    RunEdits(source, v, m, 50000);
    ExpectSame(v, m);
  }
  omi_BlkBitVect copy(v);
  ExpectSame(copy, m);
  omi_BlkBitVect assigned;
  assigned.SetBit(17);
  assigned = v;
  ExpectSame(assigned, m);
}

Model Apply(const Model& a, const Model& b, char op) {
  Model out;
  auto into = std::inserter(out, out.end());
  switch (op) {
    case '&': std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), into); break;
    case '|': std::set_union(a.begin(), a.end(), b.begin(), b.end(), into); break;
    case '-': std::set_difference(a.begin(), a.end(), b.begin(), b.end(), into); break;
    default: std::set_symmetric_difference(a.begin(), a.end(), b.begin(), b.end(), into); break;
  }
  return out;
}

void ApplyTo(omi_BlkBitVect& a, const omi_BlkBitVect& b, char op) {
  switch (op) {
    case '&': a &= b; break;
    case '|': a |= b; break;
    case '-': a -= b; break;
    default: a ^= b; break;
  }
}

TEST(BitVectorDifferential, SetAlgebraMatchesTheModel) {
  MemberSource source(23);
  for (int round = 0; round < 4; ++round) {
    omi_BlkBitVect a, b;
    Model ma, mb;
    RunEdits(source, a, ma, 12000);
    RunEdits(source, b, mb, 12000 + round * 3000);
    if (round % 2 == 1) {  // share members, so intersections are not empty
      for (unsigned int bit : ma)
        if (source.Rng()() % 2) {
          b.SetBit(bit);
          mb.insert(bit);
        }
    }
    for (char op : {'&', '|', '-', '^'}) {
      omi_BlkBitVect left(a);
      ApplyTo(left, b, op);
      ExpectSame(left, Apply(ma, mb, op));
      ASSERT_EQ(ContainerChecks::CheckBitVectorAfterRecount(left), "") << op;
      omi_BlkBitVect right(b);
      ApplyTo(right, a, op);
      ExpectSame(right, Apply(mb, ma, op));
    }
    EXPECT_EQ(a.Contains(b), std::includes(ma.begin(), ma.end(), mb.begin(), mb.end()));
    omi_BlkBitVect both(a);
    both &= b;
    EXPECT_TRUE(a.Contains(both));
    EXPECT_TRUE(b.Contains(both));
    // After a recount both unions hold the same pages in directories of equal length.
    omi_BlkBitVect ab(a), ba(b);
    ab |= b;
    ba |= a;
    // Both unions grow to the longer directory, so they compare equal.
    EXPECT_TRUE(ab == ba);
    EXPECT_EQ(ab.Compare(ba), 0);
    EXPECT_EQ(ab.Compare(both) > 0, ab.Count() > both.Count());
  }
}

// SetCurrent forward and backward from set bits, clear bits and bits in absent
// pages, then walking on from the placement, against lower/upper bounds.
TEST(BitVectorDifferential, TraversalPlacementMatchesTheModel) {
  MemberSource source(37);
  omi_BlkBitVect v;
  Model m;
  RunEdits(source, v, m, 60000);
  auto& rng = source.Rng();
  omi_BlkBitVectTrav t(&v);
  std::vector<unsigned int> members(m.begin(), m.end());
  for (int i = 0; i < 200000; ++i) {
    unsigned int probe;
    switch (i % 3) {
      case 0: probe = members[rng() % members.size()]; break;  // set bit
      case 1: probe = members[rng() % members.size()] + 1 + static_cast<unsigned int>(rng() % 3); break;
      default: probe = source.Next(); break;  // often in an absent page
    }
    const bool forward = (i & 1) == 0;
    unsigned int b = probe;
    const bool found = t.SetCurrent(b, forward);
    if (forward) {
      auto it = m.lower_bound(probe);
      ASSERT_EQ(found, it != m.end()) << probe;
      if (!found) continue;
      ASSERT_EQ(b, *it) << probe;
      const bool more = t.Next(b);
      ++it;
      ASSERT_EQ(more, it != m.end());
      if (more) {
        ASSERT_EQ(b, *it);
      }
    } else {
      auto it = m.upper_bound(probe);
      ASSERT_EQ(found, it != m.begin()) << probe;
      if (!found) continue;
      --it;
      ASSERT_EQ(b, *it) << probe;
      const bool more = t.Prev(b);
      ASSERT_EQ(more, it != m.begin());
      if (more) {
        ASSERT_EQ(b, *std::prev(it));
      }
    }
  }
}

}  // namespace
