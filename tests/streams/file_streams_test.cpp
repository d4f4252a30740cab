// File streams: every printed type written to a named file and read back,
// fresh and appending opens, opens that fail, and seeking from each origin.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "stream_files.h"

namespace {

using stream_test::ReadFile;
using stream_test::ScratchDir;
using stream_test::WriteFile;

std::string Fmt(const char* format, ...) {
  char text[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

struct PrintCase {
  unsigned int flags;
  int precision;
  int width;  // persistent for the one output
  std::function<void(aio_ostream&)> print;
  std::string expected;  // what the runtime's printf gives
};

const int kSomething = 0;

const PrintCase kPrintCases[] = {
    {0, 6, 0, [](aio_ostream& s) { s.print_int(INT_MIN); }, Fmt("%d", INT_MIN)},
    {aio_ios::hex, 6, 0, [](aio_ostream& s) { s.print_int(-2); }, Fmt("%x", -2)},
    {aio_ios::oct, 6, 14, [](aio_ostream& s) { s.print_u_int(UINT_MAX); }, Fmt("%*o", 14, UINT_MAX)},
    {0, 6, 0, [](aio_ostream& s) { s.print_int64(INT64_MIN); }, Fmt("%lld", static_cast<long long>(INT64_MIN))},
    {aio_ios::hex | aio_ios::left, 6, 20, [](aio_ostream& s) { s.print_u_int64(UINT64_MAX); },
     Fmt("%-*llx", 20, static_cast<unsigned long long>(UINT64_MAX))},
    {aio_ios::scientific, 3, 0, [](aio_ostream& s) { s.print_double(-2.5e-7); }, Fmt("%.*e", 3, -2.5e-7)},
    {aio_ios::fixed, 2, 10, [](aio_ostream& s) { s.print_double(1234.5678); }, Fmt("%*.*f", 10, 2, 1234.5678)},
    {aio_ios::showpoint, 0, 0, [](aio_ostream& s) { s.print_double(1.0); }, Fmt("%#.*g", 0, 1.0)},
    {aio_ios::fixed | aio_ios::scientific, 17, 0, [](aio_ostream& s) { s.print_double(1e300); },
     Fmt("%.*g", 17, 1e300)},
    {aio_ios::left, 6, 3, [](aio_ostream& s) { s.put('q'); }, Fmt("%-*c", 3, 'q')},
    {0, 6, 0, [](aio_ostream& s) { s.print("two words"); }, "two words"},
    {0, 6, 12, [](aio_ostream& s) { s << "right"; }, Fmt("%*s", 12, "right")},
    {0, 6, 0, [](aio_ostream& s) { s.print_address(&kSomething); },
     Fmt("%#x", static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(&kSomething)))},
};

void PrintAll(aio_ostream& s) {
  for (const PrintCase& c : kPrintCases) {
    s.setf(static_cast<int>(c.flags), -1);
    aio_setprecision(s, c.precision);
    s.setwidth(c.width, true);
    c.print(s);
    s.setwidth(0, true);
    s.put('\n');
  }
}

TEST(FileStreams, EveryPrintedTypeRoundTripsThroughANamedFile) {
  ScratchDir dir;
  const std::string path = dir.File("printed.txt");
  {
    aio_ofstream out;
    out.open(path.c_str(), true);
    PrintAll(out);
    EXPECT_TRUE(out.good());
  }  // closed by the stream
  aio_ostrstream text;
  PrintAll(text);
  char* fromString = text.adoptString(std::malloc);
  ASSERT_NE(fromString, nullptr);
  EXPECT_EQ(ReadFile(path), fromString);
  std::free(fromString);

  aio_ifstream in;
  in.open(path.c_str());
  ASSERT_NE(in.fptr(), nullptr);
  char line[256];
  for (const PrintCase& c : kPrintCases) {
    in.getline(line, sizeof line);
    EXPECT_EQ(line, c.expected);
  }
  EXPECT_TRUE(in.good());
  in.getline(line, sizeof line);
  EXPECT_EQ(in.rdstate(), 3u);  // nothing left: failure and end of file
}

TEST(FileStreams, FreshOpenRefusesAnExistingFileAndAppendingOpenAddsToIt) {
  ScratchDir dir;
  const std::string path = dir.File("existing.txt");
  WriteFile(path, "old");
  aio_ofstream out;
  out.open(path.c_str(), true);
  EXPECT_EQ(out.rdstate(), 2u);
  EXPECT_EQ(out.fptr(), nullptr);
  EXPECT_EQ(ReadFile(path), "old");

  // Nothing was owned, so the failure survives the next successful open.
  out.open(path.c_str(), false);
  ASSERT_NE(out.fptr(), nullptr);
  EXPECT_EQ(out.rdstate(), 2u);
  out.seekp(0, aio_ios::beg);  // appending writes at the end regardless
  out.print("new");
  EXPECT_FALSE(out.close());
  EXPECT_EQ(ReadFile(path), "oldnew");

  out.open(nullptr, false);
  EXPECT_EQ(out.rdstate(), 2u);
  EXPECT_EQ(out.fptr(), nullptr);
}

TEST(FileStreams, InputOpenOfAMissingFileFailsWithStateTwoAndNothingAttached) {
  ScratchDir dir;
  const std::string present = dir.File("present.txt");
  WriteFile(present, "x");
  aio_ifstream in;
  in.open(dir.File("missing.txt").c_str());
  EXPECT_EQ(in.rdstate(), 2u);
  EXPECT_EQ(in.fptr(), nullptr);
  in.open(nullptr);
  EXPECT_EQ(in.rdstate(), 2u);

  // A failed open sets exactly 2 (end of file cleared) and keeps what was attached.
  in.open(present.c_str());
  FILE* attached = in.fptr();
  in.ignore(2, -1);
  in.open(dir.File("missing.txt").c_str());
  EXPECT_EQ(in.rdstate(), 2u);
  EXPECT_EQ(in.fptr(), attached);
}

struct SeekCase {
  std::int64_t offset;
  aio_ios::seek_dir origin;
  std::int64_t position;  // expected tell after the seek
  const char* text;       // written (output) or expected to be read (input)
};

TEST(FileStreams, SeeksFromEachOriginMoveWhereTellSays) {
  ScratchDir dir;
  const std::string path = dir.File("seek.bin");
  const SeekCase outputCases[] = {
      {0, aio_ios::beg, 0, "abcdefghij"}, {2, aio_ios::beg, 2, "X"}, {-1, aio_ios::end, 9, "Y"},
      {-3, aio_ios::cur, 7, "Z"},         {12, aio_ios::beg, 12, "!"},
  };
  aio_ofstream out;
  out.open(path.c_str(), true);
  for (const SeekCase& c : outputCases) {
    EXPECT_EQ(out.seekp(c.offset, c.origin).tellp(), c.position) << c.text;
    out.print(c.text);
  }
  EXPECT_TRUE(out.good());
  out.close();
  EXPECT_EQ(ReadFile(path), std::string("abXdefgZiY\0\0!", 13));

  const SeekCase inputCases[] = {
      {3, aio_ios::beg, 3, "d"}, {2, aio_ios::cur, 6, "g"}, {-4, aio_ios::end, 9, "Y"}, {0, aio_ios::beg, 0, "a"},
  };
  aio_ifstream in;
  in.open(path.c_str());
  for (const SeekCase& c : inputCases) {
    EXPECT_EQ(in.seekg(c.offset, c.origin).tellg(), c.position);
    EXPECT_EQ(in.get(), c.text[0]);
  }
  EXPECT_TRUE(in.good());
  // Refused seeks fail and leave the position: before the start, unknown origin.
  in.seekg(-1, aio_ios::beg);
  EXPECT_EQ(in.rdstate(), 2u);
  EXPECT_EQ(in.seekg(1, static_cast<aio_ios::seek_dir>(3)).tellg(), 1);
  // Unattached streams only fail.
  aio_ifstream none;
  aio_ofstream noneOut;
  EXPECT_EQ(none.seekg(1, aio_ios::beg).rdstate(), 2u);
  EXPECT_EQ(noneOut.seekp(1, aio_ios::end).rdstate(), 2u);
  EXPECT_EQ(none.tellg() + noneOut.tellp(), -2);
}

TEST(FileStreams, OffsetsBeyondThirtyTwoBitsAreNotCutShort) {
  ScratchDir dir;
  const std::string path = dir.File("sparse.bin");
  const std::int64_t far = 5000000000LL;  // 0x12A05F200: its low 32 bits differ
  aio_ofstream out;
  out.open(path.c_str(), true);
  EXPECT_EQ(out.seekp(far, aio_ios::beg).tellp(), far);
  out.put('x');
  out.close();
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, far + 1);
  aio_ifstream in;
  in.open(path.c_str());
  EXPECT_EQ(in.seekg(-1, aio_ios::end).tellg(), far);
  EXPECT_EQ(in.get(), 'x');
}

}  // namespace
