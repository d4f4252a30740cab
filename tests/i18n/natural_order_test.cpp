// Natural-order comparison: numbers inside names by value, leading zeros as
// fractions, signed bytes, and the symmetry every sort relies on.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "ZMXUTI_CoreUtils.h"

namespace {

TEST(NaturalOrder, EmbeddedNumbersCompareByValue) {
  EXPECT_EQ(strnatcmp("a2", "a10"), -1);
  EXPECT_EQ(strnatcmp("a10", "a2"), 1);
  EXPECT_EQ(strnatcmp("a10", "a10"), 0);
  EXPECT_EQ(strnatcmp("123", "124"), -1);
  EXPECT_EQ(strnatcmp("99", "100"), -1);
  EXPECT_EQ(strnatcmp("x9y", "x10"), -1);
  // Equal numbers: the text behind them decides.
  EXPECT_EQ(strnatcmp("v12b", "v12a"), 1);
  EXPECT_EQ(strnatcmp("1.10", "1.9"), 1);
}

TEST(NaturalOrder, RunsWithALeadingZeroCompareAsFractions) {
  EXPECT_EQ(strnatcmp("x01", "x1"), -1);
  EXPECT_EQ(strnatcmp("x1", "x01"), 1);
  EXPECT_EQ(strnatcmp("x05", "x1"), -1);   // '0' < '1' decides at once
  EXPECT_EQ(strnatcmp("x011", "x01"), 1);  // the longer fraction is larger
  EXPECT_EQ(strnatcmp("x01", "x01a"), -1);
  EXPECT_EQ(strnatcmp("x05", "x025"), 1);   // as integers it would be 5 < 25
  EXPECT_EQ(strnatcmp("1.5", "1.25"), -1);  // no leading zero: 5 < 25
  EXPECT_EQ(strnatcmp("x0", "x00"), -1);
}

TEST(NaturalOrder, BytesAreSignedAndCaseAndSpaceCount) {
  EXPECT_EQ(strnatcmp("A", "a"), -1);
  EXPECT_EQ(strnatcmp("abc", "abcd"), -1);
  EXPECT_EQ(strnatcmp("abcd", "abc"), 1);
  EXPECT_EQ(strnatcmp("", ""), 0);
  EXPECT_EQ(strnatcmp("", "a"), -1);
  EXPECT_EQ(strnatcmp("\xE9t\xE9", "a"), -1);  // bytes above 127 come first
  EXPECT_EQ(strnatcmp("a\xFF", "a"), -1);      // ... even before the end of the other text
  EXPECT_EQ(strnatcmp(" a", "a"), -1);
  EXPECT_EQ(strnatcmp("a 1", "a1"), -1);
}

TEST(NaturalOrder, NumberedNamesSortLikeTheirNumbers) {
  std::mt19937 rng(5);
  std::vector<int> numbers;
  for (int i = 0; i < 300; ++i) numbers.push_back(static_cast<int>(rng() % 100000) + 1);
  std::vector<std::string> names;
  for (int n : numbers) names.push_back("part" + std::to_string(n) + ".inp");
  std::sort(names.begin(), names.end(),
            [](const std::string& a, const std::string& b) { return strnatcmp(a.c_str(), b.c_str()) < 0; });
  std::sort(numbers.begin(), numbers.end());
  for (size_t i = 0; i < numbers.size(); ++i) ASSERT_EQ(names[i], "part" + std::to_string(numbers[i]) + ".inp");
}

TEST(NaturalOrder, IsAntisymmetricAndReflexiveOnRandomTexts) {
  std::mt19937 rng(9);
  const char pool[] = {'0', '0', '1', '5', '9', 'a', 'b', ' ', '.', '\x80', '\xFF'};
  auto randomText = [&]() {
    std::string s;
    const int n = static_cast<int>(rng() % 8);
    for (int i = 0; i < n; ++i) s.push_back(pool[rng() % sizeof pool]);
    return s;
  };
  int seen[3] = {0, 0, 0};
  for (int i = 0; i < 50000; ++i) {
    const std::string a = randomText();
    const std::string b = randomText();
    const int ab = strnatcmp(a.c_str(), b.c_str());
    ASSERT_TRUE(ab >= -1 && ab <= 1);
    ASSERT_EQ(ab, -strnatcmp(b.c_str(), a.c_str())) << '"' << a << "\" \"" << b << '"';
    ASSERT_EQ(strnatcmp(a.c_str(), a.c_str()), 0);
    if (ab == 0) {
      ASSERT_EQ(a, b);  // no two different texts compare equal
    }
    ++seen[ab + 1];
  }
  EXPECT_GT(seen[0], 1000);
  EXPECT_GT(seen[2], 1000);
}

TEST(NaturalOrder, TheSwitchKeepsWhatWasStored) {
  const int before = atr_getNaturalOrder();
  atr_setNaturalOrder(0);
  EXPECT_EQ(atr_getNaturalOrder(), 0);
  atr_setNaturalOrder(1);
  EXPECT_EQ(atr_getNaturalOrder(), 1);
  atr_setNaturalOrder(before);
}

}  // namespace
