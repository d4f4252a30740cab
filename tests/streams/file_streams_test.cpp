// File streams: text written to a named file and read back, fresh and
// appending opens, opens that fail, and seeking from each origin, also past
// 32 bits.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "stream_files.h"

namespace {

using stream_test::ReadFile;
using stream_test::ScratchDir;
using stream_test::WriteFile;

TEST(FileStreams, TextRoundTripsThroughANamedFile) {
  ScratchDir dir;
  const std::string path = dir.File("printed.txt");
  {
    aio_ofstream out;
    out.open(path.c_str(), true);
    out.print("n = ").print_int(-42);
    out.put('\n');
    aio_setwidth(out, 6) << "pad";
    out.print_double(0.5).put('\n');
    EXPECT_TRUE(out.good());
  }  // closed by the stream
  EXPECT_EQ(ReadFile(path), "n = -42\n   pad0.5\n");

  aio_ifstream in;
  in.open(path.c_str());
  char line[16];
  EXPECT_STREQ(in.getline(line, sizeof line).good() ? line : "", "n = -42");
  EXPECT_STREQ(in.getline(line, sizeof line).good() ? line : "", "   pad0.5");
  in.getline(line, sizeof line);
  EXPECT_EQ(in.rdstate(), 3u);  // nothing left: failure and end of file
}

TEST(FileStreams, FreshOpensRefuseExistingFilesAppendingOpensAddAndMissingInputFails) {
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

  // An input open of a missing file sets exactly state two.
  const std::string missing = dir.File("missing.txt");
  aio_ifstream in;
  EXPECT_EQ(in.open(missing.c_str()).rdstate(), 2u);
  EXPECT_EQ(in.fptr(), nullptr);
  EXPECT_EQ(in.open(nullptr).rdstate(), 2u);
  // End of file is cleared and what was attached stays.
  FILE* attached = in.open(path.c_str()).fptr();
  in.ignore(2, -1);
  EXPECT_EQ(in.open(missing.c_str()).rdstate(), 2u);
  EXPECT_EQ(in.fptr(), attached);
}

TEST(FileStreams, SeeksFromEachOriginMoveWhereTellSays) {
  ScratchDir dir;
  const std::string path = dir.File("seek.bin");
  struct Case {
    std::int64_t offset;
    aio_ios::seek_dir origin;
    std::int64_t position;  // tell after the seek
    char text;              // written (output) or expected to be read (input)
  };
  const Case outputCases[] = {{2, aio_ios::beg, 2, 'X'}, {-1, aio_ios::end, 9, 'Y'},
                              {-3, aio_ios::cur, 7, 'Z'}, {12, aio_ios::beg, 12, '!'}};
  aio_ofstream out;
  out.open(path.c_str(), true);
  out.print("abcdefghij");
  for (const Case& c : outputCases) {
    EXPECT_EQ(out.seekp(c.offset, c.origin).tellp(), c.position) << c.text;
    out.put(c.text);
  }
  EXPECT_TRUE(out.good());
  out.close();
  EXPECT_EQ(ReadFile(path), std::string("abXdefgZiY\0\0!", 13));

  const Case inputCases[] = {{3, aio_ios::beg, 3, 'd'}, {2, aio_ios::cur, 6, 'g'}, {-4, aio_ios::end, 9, 'Y'}};
  aio_ifstream in;
  in.open(path.c_str());
  for (const Case& c : inputCases) {
    EXPECT_EQ(in.seekg(c.offset, c.origin).tellg(), c.position);
    EXPECT_EQ(in.get(), c.text);
  }
  EXPECT_TRUE(in.good());
  // Refused seeks (before the start, unknown origin) fail and leave the position.
  in.seekg(-1, aio_ios::beg);
  EXPECT_EQ(in.rdstate(), 2u);
  EXPECT_EQ(in.seekg(1, static_cast<aio_ios::seek_dir>(3)).tellg(), 10);
  // Unattached streams only fail.
  aio_ifstream none;
  aio_ofstream noneOut;
  EXPECT_EQ(none.seekg(1, aio_ios::beg).rdstate(), 2u);
  EXPECT_EQ(noneOut.seekp(1, aio_ios::end).rdstate(), 2u);
  EXPECT_EQ(none.tellg() + noneOut.tellp(), -2);
}

// Why a 5 GB hole cannot be made here without writing gigabytes, or "" when it can.
std::string NoRoomForAHole(const std::string& dir, std::int64_t size) {
  struct rlimit limit {};
  if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
      limit.rlim_cur < static_cast<rlim_t>(size))
    return "the file size limit is too small";
  // A 16 MiB hole must take next to no blocks, else holes are filled in.
  const std::string probe = dir + "/hole-probe";
  FILE* f = std::fopen(probe.c_str(), "wb");
  if (f == nullptr) return "cannot write a probe file";
  const bool written = std::fseek(f, 16L << 20, SEEK_SET) == 0 && std::fputc('x', f) == 'x';
  std::fclose(f);
  struct stat st {};
  const bool sparse = written && stat(probe.c_str(), &st) == 0 && st.st_blocks * 512 < (1 << 20);
  std::remove(probe.c_str());
  struct statvfs fs {};
  if (!sparse) return "the file system does not keep holes";
  if (statvfs(dir.c_str(), &fs) != 0 || fs.f_bavail * fs.f_frsize < (64u << 20)) return "the disk is nearly full";
  return "";
}

TEST(FileStreams, OffsetsBeyondThirtyTwoBitsAreNotCutShort) {
  ScratchDir dir;
  const std::int64_t far = 5000000000LL;  // 0x12A05F200: its low 32 bits differ
  const std::string why = NoRoomForAHole(dir.path(), far + 1);
  if (!why.empty()) GTEST_SKIP() << why;
  const std::string path = dir.File("sparse.bin");
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
