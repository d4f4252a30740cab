// String bridging and numeric helpers: trimming and bounding of fixed-length
// data, list conversions and their refusals, size parsing, the Fortran-like
// double output, and the complex conversions under the floating-point traps.
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ZMXUTI_CoreUtils.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
const double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(Bridging, DatumConversionTrimsBlanksAndKeepsWithinTheBuffer) {
  const std::string hundred(100, 'x');
  struct Case {
    std::string datum;
    unsigned int destSize;  // 0: the fixed 80-character converter
    std::string expected;
  } cases[] = {
      {"abc   ", 0, "abc"},     {" a b  ", 0, " a b"}, {hundred, 0, hundred.substr(0, 79)},
      {"", 0, ""},              {"      ", 0, ""},     {"/tmp/some/file   ", 9, "/tmp/som"},
      {"abc", 4, "abc"},        {"abc", 1, ""},        {hundred, 200, hundred},
  };
  for (const Case& c : cases) {
    char dest[256];
    std::memset(dest, '#', sizeof dest);
    if (c.destSize == 0) omi_fortranStringConvert(dest, c.datum.data(), static_cast<unsigned>(c.datum.size()));
    else omi_fortranFileNameConvert(dest, c.destSize, c.datum.data(), static_cast<unsigned>(c.datum.size()));
    EXPECT_EQ(std::string(dest), c.expected) << c.datum << " into " << c.destSize;
    EXPECT_EQ(dest[c.destSize == 0 ? 80 : c.destSize], '#') << c.datum << ": wrote past the buffer";
  }
  // Size 0 writes nothing; a null source reads as empty; a null destination is ignored.
  char dest[4] = {'#', '#', '#', '#'};
  omi_fortranFileNameConvert(dest, 0, "abc", 3);
  EXPECT_EQ(dest[0], '#');
  omi_fortranStringConvert(dest, nullptr, 5);
  EXPECT_STREQ(dest, "");
  omi_fortranStringConvert(nullptr, "abc", 3);
}

TEST(Bridging, ListConversionsMakeOneStringPerElementOrRefuse) {
  const char data[] = "abcdef  g   ";  // elements of 4: "abcd" needs the byte beyond it
  const std::string longElement = std::string(90, 'L') + std::string(10, ' ');
  using Strings = std::vector<std::string>;
  struct Case {
    int count;
    int stringSize;  // 0: the fixed list
    const char* source;
    unsigned int elemLen;
    bool made;
    Strings expected;
  } cases[] = {
      {3, 0, data, 4, true, {"abcd", "ef", "g"}},
      {3, 3, data, 4, true, {"ab", "ef", "g"}},
      {1, 0, longElement.data(), 100, true, {std::string(79, 'L')}},
      {0, 0, nullptr, 4, true, {}},  // the empty array
      {-1, 0, "abcd", 4, false, {}},
      {2, 0, nullptr, 4, false, {}},
      {-5, 8, "abcd", 4, false, {}},
      {1, -3, "abcd", 4, false, {}},
  };
  for (const Case& c : cases) {
    char** list = c.stringSize == 0 ? omi_fortranStringListConvert(c.count, c.source, c.elemLen)
                                    : omi_fortranStringVarListConvert(c.count, c.stringSize, c.source, c.elemLen);
    ASSERT_EQ(list != nullptr, c.made) << c.count << " elements, size " << c.stringSize;
    if (list == nullptr) continue;
    EXPECT_EQ(Strings(list, list + c.count), c.expected);
    omi_fortranStringListFree(c.count, list);
  }
  EXPECT_EQ(omi_fortranStringVarListConvert(1, 0, "abcd", 4), nullptr);
  omi_fortranStringListFree(-1, nullptr);
}

TEST(Bridging, SizeParsingFollowsThePrefix) {
  struct Case {
    const char* text;
    std::uint64_t expected;
  } cases[] = {
      {"0x10", 16}, {"010", 8}, {"10", 10}, {"junk", 0}, {"  42abc", 42}, {"", 0}, {nullptr, 0},
      {"0xFFFFFFFFFFFFFFFF", UINT64_MAX}, {"99999999999999999999999", UINT64_MAX},
  };
  for (const Case& c : cases) EXPECT_EQ(omi_strtoSizeT(c.text), c.expected) << (c.text ? c.text : "null");
}

// What the stream prints for one value.
std::string Printed(const omn_QVLdouble& d) {
  char* text = nullptr;
  std::size_t size = 0;
  aio_ostream s;
  s.attach(open_memstream(&text, &size), true);
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
      {omn_QVLdouble(1234567, 0, 15), "1.23457e+06"},  // "%lg": the default precision is no field
      {omn_QVLdouble(1234567, 0, 10), "1234567"},
      {omn_QVLdouble(1.5e-7, 10, 2), "   1.5e-07"},
      {omn_QVLdouble(-3e100, 0, 4), "-3e+100"},  // three digits, not beginning with 0
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

// Each conversion on ordinary and extreme input; any trap would end the program.
TEST(Bridging, ComplexConversionsCoverEveryQuadrantAndAxisQuietly) {
  using Conversion = double (OpenComplex::*)() const;
  const Conversion arg = &OpenComplex::ConvertedArgument, mod = &OpenComplex::ConvertedModulus,
                   re = &OpenComplex::ConvertedReal, im = &OpenComplex::ConvertedImag;
  struct Case {
    Conversion conversion;
    std::uint32_t form;
    double first, second, expected;
  } cases[] = {
      {arg, 0, 1, 1, kPi / 4},       {arg, 0, -1, 1, 3 * kPi / 4},        {arg, 0, -1, -1, -3 * kPi / 4},
      {arg, 0, 1, -1, -kPi / 4},     {arg, 0, 2, 0, 0},                   {arg, 0, -2, 0, kPi},
      {arg, 0, 0, 3, kPi / 2},       {arg, 0, 0, -3, -kPi / 2},           {arg, 0, 0, 0, 0},
      {arg, 0, 1e-300, 1e300, kPi / 2}, {arg, 0, -1e-300, -1e300, -kPi / 2}, {arg, 0, HUGE_VAL, HUGE_VAL, kPi / 4},
      {arg, 0, 5e-324, -DBL_MAX, -kPi / 2}, {arg, 0, kNaN, 1, kNaN},      {arg, 1, 2, 0.75, 0.75},
      {mod, 0, 3, 4, 5},             {mod, 0, 3e200, 4e200, 5e200},       {mod, 0, -1e160, 0, 1e160},
      {mod, 0, HUGE_VAL, 1, HUGE_VAL}, {mod, 0, DBL_MAX, DBL_MAX, HUGE_VAL}, {mod, 0, DBL_MAX, 0, DBL_MAX},
      {mod, 2, 7, 1, 7},
      {im, 1, 2, kPi / 2, 2},        {re, 1, 2, kPi / 2, 0},              {im, 1, HUGE_VAL, 0, 0},  // no inf × 0
      {re, 1, 1, HUGE_VAL, kNaN},    {re, 0, 3, 4, 3},                    {im, 0, 3, 4, 4},
  };
  for (const Case& c : cases) {
    const double got = (OpenComplex(c.form, c.first, c.second).*c.conversion)();
    const std::string label = std::to_string(&c - cases) + ": (" + std::to_string(c.first) + ", " +
                              std::to_string(c.second) + ")";
    if (std::isnan(c.expected)) EXPECT_TRUE(std::isnan(got)) << label;
    else if (std::isinf(c.expected)) EXPECT_EQ(got, c.expected) << label;
    else EXPECT_NEAR(got, c.expected, std::fabs(c.expected) * 1e-15 + 1e-15) << label;
  }
}

TEST(Bridging, ComplexEqualityAcrossForms) {
  struct Case {
    omi_complex a, b;
    bool equal;
  } cases[] = {
      {omi_complex(1, 2, 0), omi_complex(0, 2, 0), true},  // polar (2, 0) is 2 + 0i
      {omi_complex(0, 2, 0), omi_complex(7, 2, 0), true},  // every non-zero form is polar
      {omi_complex(1, 2, 0), omi_complex(2, 2, 0), true},
      {omi_complex(1, 2, kPi / 2), omi_complex(0, 0, 2), false},  // cos(π/2) is not exactly 0
      {omi_complex(0, 1, 2), omi_complex(0, 1, 3), false},
      {omi_complex(0, kNaN, 0), omi_complex(0, kNaN, 0), false},
      {omi_complex(1, kNaN, 0), omi_complex(0, 1, 0), false},
      {omi_complex(1, DBL_MAX, 1), omi_complex(0, 1, 1), false},
      {omi_complex(0, 1e300, 1e300), omi_complex(0, 1e300, 1e300), true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.a == c.b, c.equal) << c.a.First() << "," << c.a.Second() << " vs " << c.b.First();
    EXPECT_EQ(c.b == c.a, c.equal);
    EXPECT_EQ(c.a != c.b, !c.equal);
  }
}

}  // namespace
