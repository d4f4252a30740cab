// String bridging and numeric helpers: trimming and bounding of fixed-length
// data, list conversions and their refusals, size parsing, the Fortran-like
// double output, and the complex conversions under the floating-point traps.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "ZMXUTI_CoreUtils.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
const double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(Bridging, DatumConversionTrimsBlanksAndKeepsWithinTheBuffer) {
  const std::string hundred(100, 'x');
  struct Case {
    const char* what;
    std::string datum;
    unsigned int destSize;  // 0: the fixed 80-character converter
    std::string expected;
  } cases[] = {
      {"trailing blanks", "abc   ", 0, "abc"},
      {"inner and leading blanks stay", " a b  ", 0, " a b"},
      {"100 characters keep 79", hundred, 0, hundred.substr(0, 79)},
      {"empty", "", 0, ""},
      {"all blanks", "      ", 0, ""},
      {"file name cut at size - 1", "/tmp/some/file   ", 9, "/tmp/som"},
      {"file name fits exactly", "abc", 4, "abc"},
      {"file name size 1 holds only the terminator", "abc", 1, ""},
      {"file name longer than 80", hundred, 200, hundred},
  };
  for (const Case& c : cases) {
    char dest[256];
    std::memset(dest, '#', sizeof dest);
    if (c.destSize == 0) omi_fortranStringConvert(dest, c.datum.data(), static_cast<unsigned>(c.datum.size()));
    else omi_fortranFileNameConvert(dest, c.destSize, c.datum.data(), static_cast<unsigned>(c.datum.size()));
    EXPECT_EQ(std::string(dest), c.expected) << c.what;
    const std::size_t bound = c.destSize == 0 ? 80 : c.destSize;
    EXPECT_EQ(dest[bound], '#') << c.what << ": wrote past the buffer";
  }
  // Refusals: nothing written for size 0, a null source reads as empty.
  char dest[4] = {'#', '#', '#', '#'};
  omi_fortranFileNameConvert(dest, 0, "abc", 3);
  EXPECT_EQ(dest[0], '#');
  omi_fortranStringConvert(dest, nullptr, 5);
  EXPECT_STREQ(dest, "");
  omi_fortranStringConvert(nullptr, "abc", 3);  // must not crash
}

TEST(Bridging, ListConversionsMakeOneStringPerElement) {
  // Elements of 4 characters: unpadded "abcd" needs the byte beyond the element.
  const char data[] = "abcdef  g   ";
  char** list = omi_fortranStringListConvert(3, data, 4);
  ASSERT_NE(list, nullptr);
  EXPECT_STREQ(list[0], "abcd");
  EXPECT_STREQ(list[1], "ef");
  EXPECT_STREQ(list[2], "g");
  omi_fortranStringListFree(3, list);

  char** var = omi_fortranStringVarListConvert(3, 3, data, 4);
  ASSERT_NE(var, nullptr);
  EXPECT_STREQ(var[0], "ab");
  EXPECT_STREQ(var[1], "ef");
  EXPECT_STREQ(var[2], "g");
  omi_fortranStringListFree(3, var);

  const std::string longElement = std::string(90, 'L') + std::string(10, ' ');
  char** capped = omi_fortranStringListConvert(1, longElement.data(), 100);
  ASSERT_NE(capped, nullptr);
  EXPECT_EQ(std::string(capped[0]), std::string(79, 'L'));
  omi_fortranStringListFree(1, capped);
}

TEST(Bridging, ListConversionsRefuseBadCountsSizesAndSources) {
  char** empty = omi_fortranStringListConvert(0, nullptr, 4);
  EXPECT_NE(empty, nullptr);  // the empty array
  omi_fortranStringListFree(0, empty);
  char** emptyVar = omi_fortranStringVarListConvert(0, 0, nullptr, 4);
  EXPECT_NE(emptyVar, nullptr);
  omi_fortranStringListFree(0, emptyVar);

  EXPECT_EQ(omi_fortranStringListConvert(-1, "abcd", 4), nullptr);
  EXPECT_EQ(omi_fortranStringVarListConvert(-5, 8, "abcd", 4), nullptr);
  EXPECT_EQ(omi_fortranStringVarListConvert(1, 0, "abcd", 4), nullptr);
  EXPECT_EQ(omi_fortranStringVarListConvert(1, -3, "abcd", 4), nullptr);
  EXPECT_EQ(omi_fortranStringListConvert(2, nullptr, 4), nullptr);
  omi_fortranStringListFree(-1, nullptr);
}

TEST(Bridging, SizeParsingFollowsThePrefix) {
  struct Case {
    const char* text;
    std::uint64_t expected;
  } cases[] = {
      {"0x10", 16},           {"010", 8},   {"10", 10}, {"junk", 0}, {"  42abc", 42},
      {"0xFFFFFFFFFFFFFFFF", UINT64_MAX}, {"99999999999999999999999", UINT64_MAX}, {"", 0},
  };
  for (const Case& c : cases) EXPECT_EQ(omi_strtoSizeT(c.text), c.expected) << c.text;
  EXPECT_EQ(omi_strtoSizeT(nullptr), 0u);
}

// What the stream prints for one value.
std::string Printed(const omn_QVLdouble& d) {
  char* text = nullptr;
  std::size_t size = 0;
  FILE* memory = open_memstream(&text, &size);
  aio_ostream s;
  s.attach(memory, true);
  s << d;
  s.close();
  std::string result(text, size);
  std::free(text);
  return result;
}

TEST(Bridging, QvlDoubleOutputKeepsTheWidthWithATwoDigitExponent) {
  struct Case {
    omn_QVLdouble value;
    std::string expected;
  } cases[] = {
      {omn_QVLdouble(150000, 12, 2), "     1.5e+05"},
      {omn_QVLdouble(150000), "150000"},                 // "%lg"
      {omn_QVLdouble(1234567), "1.23457e+06"},           // "%lg": six digits
      {omn_QVLdouble(1234567, 0, 15), "1.23457e+06"},    // the default precision is no field
      {omn_QVLdouble(1234567, 0, 10), "1234567"},
      {omn_QVLdouble(2.5, 8, 3), "     2.5"},            // no exponent
      {omn_QVLdouble(0.00012345, 12, 3), "    0.000123"},
      {omn_QVLdouble(1.5e-7, 10, 2), "   1.5e-07"},      // negative exponent
      {omn_QVLdouble(-3e100, 0, 4), "-3e+100"},          // three digits, not beginning with 0
      {omn_QVLdouble(1.0, 1000, 1000), std::string(99, ' ') + "1"},  // fields capped at 100
  };
  for (const Case& c : cases) EXPECT_EQ(Printed(c.value), c.expected) << c.value.value;
}

// Opens the conversions for testing.
class OpenComplex : public omi_complex {
 public:
  OpenComplex(std::uint32_t form, double first, double second) : omi_complex(form, first, second) {}
  using omi_complex::ConvertedArgument;
  using omi_complex::ConvertedImag;
  using omi_complex::ConvertedModulus;
  using omi_complex::ConvertedReal;
};

TEST(Bridging, ComplexArgumentByQuadrantAndOnTheAxes) {
  struct Case {
    double re, im, argument;
  } cases[] = {
      {1, 1, kPi / 4},      {-1, 1, 3 * kPi / 4}, {-1, -1, -3 * kPi / 4}, {1, -1, -kPi / 4},
      {2, 0, 0},            {-2, 0, kPi},         {0, 3, kPi / 2},        {0, -3, -kPi / 2},
      {0, 0, 0},            {1e-300, 1e300, kPi / 2}, {-1e-300, -1e300, -kPi / 2},
      {HUGE_VAL, HUGE_VAL, kPi / 4},
  };
  for (const Case& c : cases) {
    EXPECT_NEAR(OpenComplex(0, c.re, c.im).ConvertedArgument(), c.argument, 1e-15) << c.re << " " << c.im;
  }
  EXPECT_TRUE(std::isnan(OpenComplex(0, kNaN, 1).ConvertedArgument()));
  EXPECT_EQ(OpenComplex(1, 2, 0.75).ConvertedArgument(), 0.75);
}

TEST(Bridging, ComplexConversionsAndEquality) {
  EXPECT_DOUBLE_EQ(OpenComplex(0, 3, 4).ConvertedModulus(), 5.0);
  EXPECT_DOUBLE_EQ(OpenComplex(0, 3e200, 4e200).ConvertedModulus(), 5e200);  // beyond the squares' range
  EXPECT_DOUBLE_EQ(OpenComplex(0, -1e160, 0).ConvertedModulus(), 1e160);
  EXPECT_EQ(OpenComplex(0, HUGE_VAL, 1).ConvertedModulus(), HUGE_VAL);
  EXPECT_DOUBLE_EQ(OpenComplex(1, 2, kPi / 2).ConvertedImag(), 2.0);
  EXPECT_NEAR(OpenComplex(1, 2, kPi / 2).ConvertedReal(), 0.0, 1e-15);
  EXPECT_EQ(OpenComplex(1, HUGE_VAL, 0).ConvertedImag(), 0.0);  // no inf × 0
  EXPECT_TRUE(std::isnan(OpenComplex(1, 1, HUGE_VAL).ConvertedReal()));

  struct Case {
    omi_complex a, b;
    bool equal;
  } cases[] = {
      {omi_complex(1, 2, 0), omi_complex(0, 2, 0), true},  // polar (2, 0) is 2 + 0i
      {omi_complex(0, 2, 0), omi_complex(7, 2, 0), true},  // every non-zero form is polar
      {omi_complex(1, 2, 0), omi_complex(2, 2, 0), true},
      {omi_complex(0, 1, 2), omi_complex(0, 1, 3), false},
      {omi_complex(0, kNaN, 0), omi_complex(0, kNaN, 0), false},
      {omi_complex(1, kNaN, 0), omi_complex(0, 1, 0), false},
      {omi_complex(0, 1e300, 1e300), omi_complex(0, 1e300, 1e300), true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.a == c.b, c.equal) << c.a.First() << "," << c.a.Second() << " vs " << c.b.First();
    EXPECT_EQ(c.b == c.a, c.equal);
  }
}

}  // namespace
