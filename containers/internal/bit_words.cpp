// Page kernels of the bit vector. The population count instruction gives the
// same numbers as the byte table; it is picked at load time where the CPU has it.
#include "containers/internal/bit_words.h"

#include <cstdint>
#include <cstring>

namespace zmx {
namespace containers_internal {

const unsigned char kBitsInByte[256] = {
#define ZMX_B2(n) n, n + 1, n + 1, n + 2
#define ZMX_B4(n) ZMX_B2(n), ZMX_B2(n + 1), ZMX_B2(n + 1), ZMX_B2(n + 2)
#define ZMX_B6(n) ZMX_B4(n), ZMX_B4(n + 1), ZMX_B4(n + 1), ZMX_B4(n + 2)
    ZMX_B6(0), ZMX_B6(1), ZMX_B6(1), ZMX_B6(2)
#undef ZMX_B6
#undef ZMX_B4
#undef ZMX_B2
};

namespace {

#if defined(__GNUC__) && defined(__x86_64__) && !defined(__clang__)
#define ZMX_PAGE_KERNEL __attribute__((target_clones("popcnt", "default")))
#else
#define ZMX_PAGE_KERNEL
#endif

struct AndOp {
  static std::uint64_t Apply(std::uint64_t a, std::uint64_t b) { return a & b; }
};
struct OrOp {
  static std::uint64_t Apply(std::uint64_t a, std::uint64_t b) { return a | b; }
};
struct AndNotOp {
  static std::uint64_t Apply(std::uint64_t a, std::uint64_t b) { return a & ~b; }
};
struct XorOp {
  static std::uint64_t Apply(std::uint64_t a, std::uint64_t b) { return a ^ b; }
};

// Two 32-bit words at a time; the pair's layout in memory does not matter for
// a bitwise operation or a count. An odd last word is done on its own.
template <typename Op>
inline unsigned int CombinePage(unsigned int* target, const unsigned int* source, unsigned int words) {
  unsigned int total = 0;
  unsigned int i = 0;
  for (; i + 2 <= words; i += 2) {
    std::uint64_t a;
    std::uint64_t b;
    std::memcpy(&a, target + i, sizeof a);
    std::memcpy(&b, source + i, sizeof b);
    a = Op::Apply(a, b);
    std::memcpy(target + i, &a, sizeof a);
    total += static_cast<unsigned int>(__builtin_popcountll(a));
  }
  if (i < words) {
    target[i] = static_cast<unsigned int>(Op::Apply(target[i], source[i]));
    total += static_cast<unsigned int>(__builtin_popcount(target[i]));
  }
  return total;
}

}  // namespace

ZMX_PAGE_KERNEL unsigned int CountPageBits(const unsigned int* page, unsigned int words) {
  unsigned int total = 0;
  unsigned int i = 0;
  for (; i + 2 <= words; i += 2) {
    std::uint64_t a;
    std::memcpy(&a, page + i, sizeof a);
    total += static_cast<unsigned int>(__builtin_popcountll(a));
  }
  if (i < words) total += static_cast<unsigned int>(__builtin_popcount(page[i]));
  return total;
}

ZMX_PAGE_KERNEL unsigned int AndPage(unsigned int* target, const unsigned int* source, unsigned int words) {
  return CombinePage<AndOp>(target, source, words);
}
ZMX_PAGE_KERNEL unsigned int OrPage(unsigned int* target, const unsigned int* source, unsigned int words) {
  return CombinePage<OrOp>(target, source, words);
}
ZMX_PAGE_KERNEL unsigned int AndNotPage(unsigned int* target, const unsigned int* source, unsigned int words) {
  return CombinePage<AndNotOp>(target, source, words);
}
ZMX_PAGE_KERNEL unsigned int XorPage(unsigned int* target, const unsigned int* source, unsigned int words) {
  return CombinePage<XorOp>(target, source, words);
}

unsigned int CountPageBitsByTable(const unsigned int* page, unsigned int words) {
  unsigned int total = 0;
  for (unsigned int i = 0; i < words; ++i) {
    if (page[i] != 0) total += CountBitsByTable(page[i]);
  }
  return total;
}

}  // namespace containers_internal
}  // namespace zmx
