// omi_Swapper: byte order of each width on the way out and back, the swap
// flag of both byte orders, and the plain copy.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "ZMXUTI_CoreUtils.h"

namespace {

template <typename T>
void RoundTrip(std::mt19937_64& rng) {
  for (int count : {0, 1, 7, 100}) {
    std::vector<T> values(count + 1), back(count + 1, T(0));
    for (T& v : values) v = static_cast<T>(rng());
    std::vector<char> external(sizeof(T) * (count + 1) + 1, '\x5a');
    omi_Swapper::ExternalizeArray(external.data() + 1, values.data(), count);  // unaligned on purpose
    for (int i = 0; i < count; ++i) {
      for (size_t b = 0; b < sizeof(T); ++b) {
        const unsigned char expected = static_cast<unsigned char>(values[i] >> (8 * (sizeof(T) - 1 - b)));
        ASSERT_EQ(static_cast<unsigned char>(external[1 + i * sizeof(T) + b]), expected);
      }
    }
    EXPECT_EQ(external[1 + count * sizeof(T)], '\x5a');  // nothing past the count
    omi_Swapper::InternalizeArray(external.data() + 1, back.data(), count);
    for (int i = 0; i < count; ++i) ASSERT_EQ(back[i], values[i]);
    EXPECT_EQ(back[count], T(0));
    // A negative count does nothing either way.
    omi_Swapper::ExternalizeArray(external.data(), values.data(), -1);
    omi_Swapper::InternalizeArray(external.data(), back.data() + count, -1);
    EXPECT_EQ(external[0], '\x5a');
    EXPECT_EQ(back[count], T(0));
  }
}

TEST(Swapper, EveryWidthReversesItsBytesAndComesBack) {
  std::mt19937_64 rng(7);
  RoundTrip<unsigned short>(rng);
  RoundTrip<unsigned int>(rng);
  RoundTrip<uint64_t>(rng);
}

TEST(Swapper, FlagChoosesBetweenReversingAndCopying) {
  EXPECT_FALSE(omi_Swapper(omi_Swapper::omi_NativeEndian).SwapNeeded());
  EXPECT_TRUE(omi_Swapper(omi_Swapper::omi_SwappedEndian).SwapNeeded());
  const unsigned int values[2] = {0x11223344u, 0xAABBCCDDu};
  char native[8], swapped[8];
  omi_Swapper(omi_Swapper::omi_NativeEndian).Externalize(native, values, 2);
  omi_Swapper(omi_Swapper::omi_SwappedEndian).Externalize(swapped, values, 2);
  EXPECT_EQ(std::memcmp(native, values, 8), 0);
  EXPECT_EQ(std::memcmp(swapped, "\x11\x22\x33\x44\xAA\xBB\xCC\xDD", 8), 0);
  unsigned int back[2] = {0, 0};
  omi_Swapper(omi_Swapper::omi_SwappedEndian).Internalize(swapped, back, 2);
  EXPECT_EQ(back[1], 0xAABBCCDDu);

  char copy[6] = "-----";
  omi_SwapperGuts::CopyBytes(copy, "abcd", 3);
  EXPECT_STREQ(copy, "abc--");
  omi_SwapperGuts::CopyBytes(copy, "zz", 0);
  EXPECT_STREQ(copy, "abc--");
}

}  // namespace
