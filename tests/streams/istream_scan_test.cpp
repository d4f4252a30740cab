// Input of aio_istream from files with known contents: numbers in each base,
// characters and words, lines, peeking, pushing back, raw reads and skipping.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "platform/fpu.h"
#include "stream_files.h"

namespace {

using stream_test::TempFile;

struct In {
  TempFile file;
  aio_istream s;
  explicit In(const std::string& text) : file(text) { s.attach(file.get(), false); }
};

TEST(IstreamScan, IntegersFollowTheBaseFlags) {
  In in("42 -17 ff 777 4294967295 -9223372036854775808 18446744073709551615 7fffffffffffffff 10");
  EXPECT_EQ(in.s.scan_int(), 42);
  EXPECT_EQ(in.s.scan_int(), -17);
  in.s.setf(aio_ios::hex, 0);
  EXPECT_EQ(in.s.scan_int(), 255);
  in.s.setf(aio_ios::oct, 0x70);
  EXPECT_EQ(in.s.scan_u_int(), 0777u);
  in.s.unsetf(aio_ios::oct);
  EXPECT_EQ(in.s.scan_u_int(), 4294967295u);
  EXPECT_EQ(in.s.scan_int64(), INT64_MIN);
  EXPECT_EQ(in.s.scan_u_int64(), UINT64_MAX);
  in.s.setf(aio_ios::hex, 0);
  EXPECT_EQ(in.s.scan_int64(), INT64_MAX);
  in.s.setf(aio_ios::oct, 0);  // both bits: decimal
  EXPECT_EQ(in.s.scan_int(), 10);
  EXPECT_TRUE(in.s.good());
  EXPECT_EQ(in.s.scan_int(), 0);  // nothing left
  EXPECT_EQ(in.s.rdstate(), 3u);
}

TEST(IstreamScan, FloatingPointCharactersAndWords) {
  In in("  2.5e3 -0.125 inf x  word1\tword2\n");
  EXPECT_EQ(in.s.scan_double(), 2500.0);
  EXPECT_EQ(in.s.scan_float(), -0.125f);
  EXPECT_TRUE(std::isinf(in.s.scan_double()));
  EXPECT_EQ(in.s.scan_char(), ' ');  // "%c" does not skip white space
  EXPECT_EQ(in.s.scan_char(), 'x');
  char word[16];
  in.s.scan_string(word);
  EXPECT_STREQ(word, "word1");
  in.s.scan_string(word);
  EXPECT_STREQ(word, "word2");
  EXPECT_TRUE(in.s.good());
  in.s.scan_string(word);  // only white space left: end of file
  EXPECT_STREQ(word, "");
  EXPECT_EQ(in.s.rdstate(), 3u);
  EXPECT_EQ(in.s.scan_char(), 0);
}

// The process runs with the overflow trap on: out-of-range text must come back
// as the runtime's value, with the floating-point state left as it was.
TEST(IstreamScan, OutOfRangeNumbersComeBackWithoutTrapping) {
  const unsigned control = zmx::platform::ReadSseControl();
  In in("1e999 -1e999 1e-999 1e300");
  EXPECT_EQ(in.s.scan_double(), HUGE_VAL);
  EXPECT_EQ(in.s.scan_double(), -HUGE_VAL);
  EXPECT_EQ(in.s.scan_double(), 0.0);
  EXPECT_EQ(in.s.scan_float(), HUGE_VALF);
  EXPECT_TRUE(in.s.good());
  EXPECT_EQ(zmx::platform::ReadSseControl(), control);
}

TEST(IstreamScan, AMismatchKeepsThePartialValueAndFails) {
  In in("12abc 0x");
  EXPECT_EQ(in.s.scan_int(), 12);
  EXPECT_TRUE(in.s.good());
  EXPECT_EQ(in.s.scan_double(), 0.0);
  EXPECT_EQ(in.s.rdstate(), 2u);
}

TEST(IstreamScan, GetlineStripsTheNewlineAndFailsOnLongOrUnterminatedLines) {
  In in("first\nabcdef\n\nlast");
  char buf[16] = {};  // getline also looks at the bytes behind the terminator
  in.s.getline(buf, 16);
  EXPECT_STREQ(buf, "first");
  EXPECT_TRUE(in.s.good());
  in.s.getline(buf, 4);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(in.s.rdstate(), 3u);  // failure and end of file, although data remains
  in.s.getline(buf, 16);
  EXPECT_STREQ(buf, "def");
  in.s.getline(buf, 16);
  EXPECT_STREQ(buf, "");
  in.s.getline(buf, 16);
  EXPECT_STREQ(buf, "last");
  EXPECT_EQ(in.s.rdstate(), 3u);
  std::strcpy(buf, "untouched");
  in.s.getline(buf, 16);  // fgets returns nothing
  EXPECT_STREQ(buf, "untouched");
}

TEST(IstreamScan, GetlineClearsNewlinesBehindTheTerminatorUpToTheBufferEnd) {
  In in("ab");
  char buf[8];
  std::memcpy(buf, "zz\n\nq\n\n\n", 8);
  in.s.getline(buf, 7);
  EXPECT_EQ(std::string(buf, 8), std::string("ab\0\0q\0\0\n", 8));
  EXPECT_EQ(in.s.rdstate(), 3u);
}

TEST(IstreamScan, GetlineWithRoomForOnlyTheTerminatorFailsAsEmpty) {
  In in("text\n");
  char buf[4] = "xyz";
  in.s.getline(buf, 1);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(in.s.rdstate(), 3u);
  EXPECT_EQ(in.s.get(), 't');
}

TEST(IstreamScan, PeekGetAndPutback) {
  In in("ab");
  EXPECT_EQ(in.s.peek(), 'a');
  EXPECT_EQ(in.s.get(), 'a');
  in.s.putback('Z');
  EXPECT_EQ(in.s.get(), 'Z');
  EXPECT_EQ(in.s.get(), 'b');
  EXPECT_TRUE(in.s.good());
  EXPECT_EQ(in.s.peek(), -1);
  EXPECT_EQ(in.s.rdstate(), 3u);

  In high("\xfe\xff");
  EXPECT_EQ(high.s.get(), 0xFE);  // characters come back unsigned
  high.s.putback('\x80');
  EXPECT_TRUE(high.s.good());
  EXPECT_EQ(high.s.get(), 0x80);
  high.s.putback('\xff');  // sign-extended to EOF: always refused
  EXPECT_EQ(high.s.rdstate(), 2u);
  EXPECT_EQ(high.s.get(), 0xFF);
}

TEST(IstreamScan, ReadTerminatesShortReadsAndFails) {
  In in("0123456789");
  char buf[16];
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(in.s.read(buf, 4), 4);
  EXPECT_EQ(std::string(buf, 5), "0123#");  // a full read writes no terminator
  EXPECT_TRUE(in.s.good());
  EXPECT_EQ(in.s.read(buf, 10), 6);
  EXPECT_EQ(std::string(buf, 7), std::string("456789\0", 7));
  EXPECT_EQ(in.s.rdstate(), 3u);
  EXPECT_EQ(in.s.read(buf, 0), 0);
}

TEST(IstreamScan, IgnoreStopsAfterTheDelimiterOrTheCount) {
  In in("skip;rest\nxyz");
  in.s.ignore(0, ';');
  EXPECT_EQ(in.s.peek(), 's');
  in.s.ignore(100, ';');
  EXPECT_EQ(in.s.get(), 'r');
  in.s.ignore(2, '\n');
  EXPECT_EQ(in.s.get(), 't');
  in.s.ignore(100, '\n');
  EXPECT_EQ(in.s.get(), 'x');
  EXPECT_TRUE(in.s.good());
  in.s.ignore(100, '\n');  // runs into end of file: only that bit
  EXPECT_EQ(in.s.rdstate(), 1u);
  EXPECT_FALSE(in.s.fail());
}

// Random numbers written in each base and notation and read back, against sscanf of the same text.
TEST(IstreamScan, RandomNumbersMatchSscanfOfTheSameText) {
  std::mt19937_64 rng(77);
  std::string text;
  std::vector<std::uint64_t> values;
  for (int i = 0; i < 3000; ++i) {
    const std::uint64_t v = rng() >> (rng() % 64);
    values.push_back(v);
    char buf[40];
    switch (i % 6) {
      case 4: std::snprintf(buf, sizeof buf, " %.17g", static_cast<double>(static_cast<std::int64_t>(v)) / 3e7); break;
      case 5: std::snprintf(buf, sizeof buf, "  %.9e", static_cast<double>(static_cast<std::int64_t>(v)) * 1e-12); break;
      case 0: std::snprintf(buf, sizeof buf, " %d", static_cast<int>(v)); break;
      case 1: std::snprintf(buf, sizeof buf, "\t%x", static_cast<unsigned>(v)); break;
      case 2: std::snprintf(buf, sizeof buf, "\n%llo", static_cast<unsigned long long>(v)); break;
      case 3: std::snprintf(buf, sizeof buf, " %lld", static_cast<long long>(v)); break;
    }
    text += buf;
  }
  In in(text);
  const char* cursor = text.c_str();
  for (int i = 0; i < 3000; ++i) {
    int consumed = 0;
    switch (i % 6) {
      case 4: {
        double expected = 0;
        std::sscanf(cursor, "%lg%n", &expected, &consumed);
        ASSERT_EQ(in.s.scan_double(), expected);
        break;
      }
      case 5: {
        float expected = 0;
        std::sscanf(cursor, "%e%n", &expected, &consumed);
        ASSERT_EQ(in.s.scan_float(), expected);
        break;
      }
      case 0: {
        in.s.setf(0, 0x70);
        int expected = 0;
        std::sscanf(cursor, "%d%n", &expected, &consumed);
        ASSERT_EQ(in.s.scan_int(), expected);
        break;
      }
      case 1: {
        in.s.setf(aio_ios::hex, 0x70);
        unsigned expected = 0;
        std::sscanf(cursor, "%x%n", &expected, &consumed);
        ASSERT_EQ(in.s.scan_u_int(), expected);
        break;
      }
      case 2: {
        in.s.setf(aio_ios::oct, 0x70);
        unsigned long long expected = 0;
        std::sscanf(cursor, "%llo%n", &expected, &consumed);
        ASSERT_EQ(in.s.scan_u_int64(), expected);
        break;
      }
      case 3: {
        in.s.setf(0, 0x70);
        long long expected = 0;
        std::sscanf(cursor, "%lld%n", &expected, &consumed);
        ASSERT_EQ(in.s.scan_int64(), expected);
        break;
      }
    }
    cursor += consumed;
  }
  EXPECT_TRUE(in.s.good());
}

}  // namespace
