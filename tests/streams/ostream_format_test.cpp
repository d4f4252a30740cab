// Output formats of aio_ostream, byte for byte: each test writes through a
// stream attached to a temporary file and reads the file back.
#include <gtest/gtest.h>

#include <cinttypes>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "stream_files.h"

namespace {

using stream_test::TempFile;

// A stream attached (not owned) to a fresh temporary file.
struct Out {
  TempFile file;
  aio_ostream s;
  Out() { s.attach(file.get(), false); }
  std::string Text() { return file.Contents(); }
};

TEST(OstreamFormat, DefaultsPrintDoublesWithPrecisionSixInGeneralNotation) {
  Out o;
  EXPECT_EQ(o.s.precision(), 6);
  EXPECT_EQ(o.s.width(), 0);
  EXPECT_EQ(o.s.flags(), 0u);
  o.s.print_double(0.5).put(' ').print_double(1.0 / 3.0).put(' ').print_double(1e21).put(' ').print_double(-0.0);
  EXPECT_EQ(o.Text(), "0.5 0.333333 1e+21 -0");
  EXPECT_TRUE(o.s.good());
}

TEST(OstreamFormat, BaseBitsSelectOctalOrHexOnlyWhenExactlyOneIsSet) {
  Out o;
  o.s.setf(aio_ios::hex, 0);
  o.s.print_int(255).put(' ').print_int(-1).put(' ').print_u_int(0xABCDu).put(' ');
  o.s.setf(aio_ios::oct, aio_ios::oct | aio_ios::hex);
  o.s.print_int(255).put(' ').print_u_int64(UINT64_MAX).put(' ');
  o.s.setf(aio_ios::hex, 0);  // both set: decimal again
  o.s.print_int(255).put(' ').print_int64(INT64_MIN).put(' ').print_u_int64(UINT64_MAX);
  EXPECT_EQ(o.Text(), "ff ffffffff abcd 377 1777777777777777777777 255 -9223372036854775808 18446744073709551615");
}

TEST(OstreamFormat, SetfWithMaskReplacesAndWithoutMaskAdds) {
  aio_ostream s;
  s.setf(aio_ios::oct | aio_ios::left, 0);
  EXPECT_EQ(s.setf(aio_ios::hex, 0x70), unsigned(aio_ios::oct | aio_ios::left));
  EXPECT_EQ(s.flags(), unsigned(aio_ios::hex | aio_ios::left));
  EXPECT_EQ(s.setf(aio_ios::oct, 0), unsigned(aio_ios::hex | aio_ios::left));
  EXPECT_EQ(s.flags(), unsigned(aio_ios::hex | aio_ios::oct | aio_ios::left));
  // Bits outside the mask are not taken over.
  s.setf(aio_ios::fixed | aio_ios::right, aio_ios::fixed);
  EXPECT_EQ(s.flags(), unsigned(aio_ios::hex | aio_ios::oct | aio_ios::left | aio_ios::fixed));
  EXPECT_EQ(s.unsetf(aio_ios::oct | aio_ios::right), s.flags());
  EXPECT_EQ(s.flags(), unsigned(aio_ios::hex | aio_ios::left | aio_ios::fixed));
  aio_setiosflags(s, aio_ios::showpoint);
  aio_resetiosflags(s, aio_ios::hex | aio_ios::fixed);
  EXPECT_EQ(s.flags(), unsigned(aio_ios::left | aio_ios::showpoint));
}

TEST(OstreamFormat, OnceWidthPadsOnlyTheNextOutputAndPersistentWidthPadsAll) {
  Out o;
  aio_setwidth(o.s, 5).print_int(1).print_int(1).put('|');
  EXPECT_EQ(o.s.width(), 0);
  EXPECT_EQ(o.s.flags() & aio_ios::onceWidth, 0u);
  o.s.setwidth(5, true);
  o.s.print_int(1).print_int(1).put('|');
  EXPECT_EQ(o.s.width(), 5);
  o.s.setwidth(0, true);
  // Every formatted member consumes a once-only width.
  aio_setwidth(o.s, 3).print("a").print("b");
  aio_setwidth(o.s, 3).print_u_int(7).print_u_int(7);
  aio_setwidth(o.s, 3).print_int64(7).print_int64(7);
  aio_setwidth(o.s, 3).print_u_int64(7).print_u_int64(7);
  aio_setwidth(o.s, 4).print_double(0.5).print_double(0.5);
  aio_setwidth(o.s, 3).put('c').put('c');
  // The persistent width pads the bar too.
  EXPECT_EQ(o.Text(), "    11|    1    1    |  ab  77  77  77 0.50.5  cc");
}

TEST(OstreamFormat, NewlineIsNeverPaddedAndKeepsTheWidth) {
  Out o;
  aio_setwidth(o.s, 4).put('\n');
  EXPECT_EQ(o.s.width(), 4);
  EXPECT_NE(o.s.flags() & aio_ios::onceWidth, 0u);
  o.s.put('x').put('y');
  EXPECT_EQ(o.Text(), "\n   xy");
}

TEST(OstreamFormat, LeftJustifiesOnlyWhenRightIsNotAlsoSet) {
  Out o;
  o.s.setwidth(4, true);
  o.s.setf(aio_ios::left, 0);
  o.s.print("ab").put('|').print_int(-3).put('|');
  o.s.setf(aio_ios::right, 0);
  o.s.print("ab").put('|').print_int(-3).put('|');
  o.s.unsetf(aio_ios::left);
  o.s.print("ab").put('|');
  EXPECT_EQ(o.Text(), "ab  |   -3  |     ab   |  -3   |  ab   |");
}

TEST(OstreamFormat, ShowpointAppliesOnlyAtPrecisionZero) {
  Out o;
  o.s.setf(aio_ios::showpoint, 0);
  aio_setprecision(o.s, 0).print_double(1.0).put(' ');
  aio_setprecision(o.s, 3).print_double(1.0).put(' ');
  o.s.setf(aio_ios::fixed, aio_ios::fixed | aio_ios::scientific);
  aio_setprecision(o.s, 0).print_double(2.0).put(' ');
  o.s.setf(aio_ios::scientific, aio_ios::fixed | aio_ios::scientific);
  o.s.print_double(3.0);
  EXPECT_EQ(o.Text(), "1. 1 2. 3.e+00");
}

TEST(OstreamFormat, NotationBitsChooseEFOrGAndBothMeanG) {
  Out o;
  aio_setprecision(o.s, 2);
  o.s.setf(aio_ios::scientific, 0);
  o.s.print_double(1234.5).put(' ');
  o.s.setf(aio_ios::fixed, aio_ios::scientific | aio_ios::fixed);
  o.s.print_double(1234.5).put(' ');
  o.s.setf(aio_ios::scientific, 0);
  o.s.print_double(1234.5).put(' ');
  aio_setwidth(o.s, 9).print_double(-1.0);
  EXPECT_EQ(o.Text(), "1.23e+03 1234.50 1.2e+03        -1");
}

TEST(OstreamFormat, AddressPrintsOnlyTheLowHalfInAlternateHex) {
  Out o;
  const void* p = reinterpret_cast<const void*>(std::uintptr_t{0x123456789abcULL});
  o.s.print_address(p).put('|');
  aio_setwidth(o.s, 12).print_address(p).put('|');
  o.s.setf(aio_ios::left, 0);
  aio_setwidth(o.s, 12).print_address(p).put('|');
  o.s.print_address(reinterpret_cast<const void*>(std::uintptr_t{0xdead00000000ULL}));
  EXPECT_EQ(o.Text(), "0x56789abc|  0x56789abc|0x56789abc  |0");
}

TEST(OstreamFormat, WriteAndInsertionOperatorAreRaw) {
  Out o;
  const char bytes[] = {'a', '\0', 'b', '\n', '%', 'd'};
  o.s.write(bytes, 6);
  o.s << "%s" << "|";
  aio_setwidth(o.s, 3);
  o.s << "x";
  EXPECT_EQ(o.Text(), std::string(bytes, 6) + "%s|  x");
  EXPECT_TRUE(o.s.good());
}

// The documented format rule, built as text, applied with snprintf.
std::string ExpectedFormat(bool alternate, unsigned flags, int width, const char* conversion) {
  std::string f = "%";
  if (alternate) f += "#";
  if (width != 0) {
    if ((flags & 6u) == 2u) f += "-";
    f += "*";
  }
  return f + conversion;
}

template <class... Args>
std::string Format(const std::string& format, Args... args) {
  char buf[512];
  const int n = std::snprintf(buf, sizeof buf, format.c_str(), args...);
  return std::string(buf, static_cast<size_t>(n));
}

template <class T>
std::string FormatWithWidth(const std::string& format, int width, T value) {
  return width != 0 ? Format(format, width, value) : Format(format, value);
}

// Random flags, widths, precisions and values against the model, with the
// once-only width dropped exactly where the model drops it.
TEST(OstreamFormat, RandomOutputsMatchTheFormatRuleAppliedBySnprintf) {
  std::mt19937_64 rng(20240611);
  const unsigned interesting[] = {aio_ios::left, aio_ios::right, aio_ios::oct, aio_ios::hex, 0x10,
                                  aio_ios::showpoint, aio_ios::scientific, aio_ios::fixed};
  for (int round = 0; round < 200; ++round) {
    Out o;
    std::string expected;
    unsigned flags = 0;
    int width = 0;
    int precision = 6;
    for (int step = 0; step < 60; ++step) {
      const unsigned choice = rng() % 12;
      if (choice == 0) {
        const unsigned bits = interesting[rng() % 8] | interesting[rng() % 8];
        if (rng() % 2) {
          o.s.setf(static_cast<int>(bits), 0);
          flags |= bits;
        } else {
          o.s.unsetf(static_cast<int>(bits));
          flags &= ~bits;
        }
        continue;
      }
      if (choice == 1) {
        width = static_cast<int>(rng() % 25);
        const bool persistent = rng() % 2;
        o.s.setwidth(width, persistent);
        if (!persistent) flags |= aio_ios::onceWidth;
        continue;
      }
      if (choice == 2) {
        precision = static_cast<int>(rng() % 18);
        aio_setprecision(o.s, precision);
        continue;
      }
      const unsigned baseBits = flags & 0x70u;
      const int base = baseBits == 0x20u ? 1 : baseBits == 0x40u ? 2 : 0;
      const std::uint64_t raw = rng();
      bool usedWidth = width != 0;
      switch (choice) {
        case 3: {
          const int v = static_cast<int>(raw);
          o.s.print_int(v);
          expected += FormatWithWidth(ExpectedFormat(false, flags, width, base == 1 ? "o" : base == 2 ? "x" : "d"), width, v);
          break;
        }
        case 4: {
          const unsigned v = static_cast<unsigned>(raw >> 7);
          o.s.print_u_int(v);
          expected += FormatWithWidth(ExpectedFormat(false, flags, width, base == 1 ? "o" : base == 2 ? "x" : "u"), width, v);
          break;
        }
        case 5: {
          const long long v = static_cast<long long>(raw) >> (raw % 60);
          o.s.print_int64(v);
          expected += FormatWithWidth(ExpectedFormat(false, flags, width, base == 1 ? "llo" : base == 2 ? "llx" : "lld"), width, v);
          break;
        }
        case 6: {
          const unsigned long long v = raw >> (raw % 60);
          o.s.print_u_int64(v);
          expected += FormatWithWidth(ExpectedFormat(false, flags, width, base == 1 ? "llo" : base == 2 ? "llx" : "llu"), width, v);
          break;
        }
        case 7:
        case 8: {
          const double v = std::ldexp(static_cast<double>(static_cast<std::int64_t>(raw)), static_cast<int>(rng() % 80) - 100);
          o.s.print_double(v);
          const unsigned notation = flags & 0x1800u;
          const char* conv = notation == 0x800u ? ".*e" : notation == 0x1000u ? ".*f" : ".*g";
          const std::string f = ExpectedFormat((flags & aio_ios::showpoint) && precision == 0, flags, width, conv);
          expected += width != 0 ? Format(f, width, precision, v) : Format(f, precision, v);
          break;
        }
        case 9: {
          const char text[] = "abcdefgh";
          const char* s = text + raw % 8;
          o.s.print(s);
          expected += FormatWithWidth(ExpectedFormat(false, flags, width, "s"), width, s);
          break;
        }
        case 10: {
          const char c = "xy\n"[raw % 3];
          o.s.put(c);
          if (c == '\n') usedWidth = false;
          expected += c == '\n' ? std::string("\n") : FormatWithWidth(ExpectedFormat(false, flags, width, "c"), width, static_cast<int>(c));
          break;
        }
        default: {
          const void* p = reinterpret_cast<const void*>(static_cast<std::uintptr_t>(raw));
          o.s.print_address(p);
          expected += FormatWithWidth(ExpectedFormat(true, flags, width, "x"), width, static_cast<unsigned>(raw));
          break;
        }
      }
      if (usedWidth && (flags & aio_ios::onceWidth)) {
        width = 0;
        flags &= ~static_cast<unsigned>(aio_ios::onceWidth);
      }
      ASSERT_EQ(o.s.width(), width);
      ASSERT_EQ(o.s.flags(), flags);
    }
    ASSERT_EQ(o.Text(), expected) << "round " << round;
    ASSERT_TRUE(o.s.good());
  }
}

}  // namespace
