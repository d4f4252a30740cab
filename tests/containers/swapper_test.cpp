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
  }
}

TEST(Swapper, EveryWidthReversesItsBytesAndComesBack) {
  std::mt19937_64 rng(7);
  RoundTrip<unsigned short>(rng);
  RoundTrip<unsigned int>(rng);
  RoundTrip<uint64_t>(rng);

  char out[8];
  const unsigned int word = 0x11223344u;
  omi_SwapperGuts::ExternalizeArray(out, &word, 1);
  EXPECT_EQ(std::memcmp(out, "\x11\x22\x33\x44", 4), 0);
  unsigned int wordBack = 0;
  omi_SwapperGuts::InternalizeArray(out, &wordBack, 1);
  EXPECT_EQ(wordBack, 0x11223344u);
  const uint64_t wide = 0x0102030405060708ull;
  omi_SwapperGuts::ExternalizeArray(out, &wide, 1);
  EXPECT_EQ(std::memcmp(out, "\x01\x02\x03\x04\x05\x06\x07\x08", 8), 0);
  const unsigned short half = 0xA1B2;
  omi_SwapperGuts::ExternalizeArray(out, &half, 1);
  EXPECT_EQ(std::memcmp(out, "\xA1\xB2", 2), 0);
  omi_SwapperGuts::ExternalizeArray(out, &half, -1);  // a negative count does nothing
  EXPECT_EQ(std::memcmp(out, "\xA1\xB2", 2), 0);
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
