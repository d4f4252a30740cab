// The string stream and its temporary files: adoptString against a model,
// bad allocators, where the files go and what they are called, taken names,
// and the messages when no file can be made.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>
#include <regex>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "stream_files.h"
#include "streams/internal/temp_file.h"

namespace {

using stream_test::ScratchDir;
using stream_test::WriteFile;
using zmx::streams_internal::CreateTempFileFrom;

std::size_t g_requested = 0;
void* RecordingAlloc(std::size_t n) {
  g_requested = n;
  return std::malloc(n);
}
void* RefusingAlloc(std::size_t) { return nullptr; }

// What /proc shows for the file's descriptor: "<name> (deleted)" once unlinked.
std::string LinkOf(FILE* f) {
  char link[64], target[512] = {};
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fileno(f));
  const ssize_t n = readlink(link, target, sizeof target - 1);
  return n > 0 ? std::string(target, static_cast<std::size_t>(n)) : std::string();
}

// Random text and binary pieces against a model string; every so often the
// whole text is adopted (after bad allocators, which get nothing and lose nothing).
TEST(StringStream, AdoptStringReturnsEverythingWrittenSinceConstruction) {
  std::mt19937 rng(20240611);
  std::string model;
  aio_ostrstream s;
  while (model.size() < (1u << 20)) {
    std::string piece(rng() % 5000, '\0');
    for (char& c : piece) c = static_cast<char>(rng());  // NUL bytes included
    if (rng() % 4 == 0) {
      piece.resize(std::strlen(piece.c_str()));  // text for print
      s.print(piece.c_str());
    } else {
      s.write(piece.data(), static_cast<int>(piece.size()));
    }
    model += piece;
    if (rng() % 64 == 0 || model.size() >= (1u << 20)) {
      ASSERT_EQ(s.adoptString(nullptr), nullptr);
      ASSERT_EQ(s.adoptString(RefusingAlloc), nullptr);
      char* text = s.adoptString(RecordingAlloc);
      ASSERT_NE(text, nullptr);
      ASSERT_EQ(g_requested, model.size() + 1);
      ASSERT_EQ(std::memcmp(text, model.data(), model.size()), 0) << "after " << model.size() << " bytes";
      ASSERT_EQ(text[model.size()], '\0');
      std::free(text);
    }
  }
  EXPECT_TRUE(s.good());
}

TEST(TempFiles, NamesFollowTheTmpDirAndTheFirstNumber) {
  ScratchDir dir;
  const std::string longDir = "/" + std::string(300, 'd');
  const struct {
    bool set;  // TMPDIR set at all, and to what
    std::string tmpDir;
    unsigned int first;  // first unique number
    std::string where, name;  // expected directory and file name
  } cases[] = {
      {true, dir.path(), 0x1AB, dir.path(), "utl01AB.TMP"},
      {true, dir.path() + "//", 0x1FFFF, dir.path(), "utlFFFF.TMP"},
      {true, "", 0xBEEF, "/tmp", "utlBEEF.TMP"},
      {true, longDir, 0xBEEF, "/tmp", "utlBEEF.TMP"},
      {false, "", 0, "/tmp", "utl0000.TMP"},
  };
  for (const auto& c : cases) {
    if (c.set) dir.UseAsTmpDir(c.tmpDir);
    else unsetenv("TMPDIR");
    FILE* f = CreateTempFileFrom(c.first);
    ASSERT_NE(f, nullptr) << c.tmpDir;
    EXPECT_EQ(LinkOf(f), c.where + "/" + c.name + " (deleted)");
    struct stat st {};
    fstat(fileno(f), &st);
    EXPECT_EQ(st.st_mode & 0777, 0600u);  // its owner's only
    std::fclose(f);
  }
  EXPECT_TRUE(dir.Names().empty());
}

TEST(TempFiles, TakenNamesAreDeletedAndTheNextNumbersTried) {
  ScratchDir dir;
  dir.UseAsTmpDir();
  WriteFile(dir.File("utlFFFE.TMP"), "stale");
  WriteFile(dir.File("utlFFFF.TMP"), "stale");
  WriteFile(dir.File("utl0001.TMP"), "kept");  // after the free number: untouched
  FILE* f = CreateTempFileFrom(0xFFFE);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(LinkOf(f), dir.File("utl0000.TMP") + " (deleted)");
  EXPECT_EQ(dir.Names(), std::vector<std::string>{"utl0001.TMP"});
  std::fclose(f);
}

TEST(TempFiles, TheStringStreamLeavesNoFileBehind) {
  ScratchDir dir;
  dir.UseAsTmpDir();
  int fd = -1;
  {
    aio_ostrstream s;
    s.print("kept only in the open file");
    s.flush();
    fd = s.fd();
    EXPECT_EQ(LinkOf(s.fptr()).rfind(dir.File("utl"), 0), 0u);
    EXPECT_TRUE(dir.Names().empty());
  }
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // the stream closed it
  EXPECT_TRUE(dir.Names().empty());
}

TEST(TempFiles, AnUnusableDirectoryIsReportedAndTheStringStreamFails) {
  ScratchDir dir;
  const std::string notADir = dir.File("plain");
  WriteFile(notADir, "");
  dir.UseAsTmpDir(notADir);
  testing::internal::CaptureStderr();
  errno = 0;
  EXPECT_EQ(CreateTempFileFrom(0x2A), nullptr);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to create " + notADir + "/utl002A.TMP\n");

  testing::internal::CaptureStderr();
  aio_ostrstream s;
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(std::regex_match(err, std::regex("Failed to create " + notADir +
                                               "/utl[0-9A-F]{4}\\.TMP\naio_ostrstream: Not a directory\n")))
      << err;
  EXPECT_EQ(s.rdstate(), 2u);
  EXPECT_EQ(s.fptr(), nullptr);
  EXPECT_EQ(s.adoptString(std::malloc), nullptr);
  EXPECT_EQ(s.print("lost").rdstate(), 2u);
}

// Runs CreateTempFileFrom(first) in a child that must not write into the
// temporary directory (root drops to an unprivileged user first); returns the
// child's stderr. *childErrno: its errno, 100 when it kept its privileges, 101
// when it made a file after all.
std::string CreateAsUnprivilegedChild(unsigned int first, int* childErrno) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return "";
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(pipeFds[1], 2);
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(100);
    FILE* f = CreateTempFileFrom(first);
    _exit(f == nullptr ? errno : 101);
  }
  close(pipeFds[1]);
  std::string err;
  char block[256];
  ssize_t got;
  while ((got = read(pipeFds[0], block, sizeof block)) > 0) err.append(block, static_cast<std::size_t>(got));
  close(pipeFds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  *childErrno = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return err;
}

TEST(TempFiles, RefusedAccessIsRetriedOnceWithTheNextNumber) {
  ScratchDir dir;  // private to its owner: an unprivileged root child is refused too
  const std::string locked = dir.File("locked");
  ASSERT_EQ(mkdir(locked.c_str(), 0500), 0);
  dir.UseAsTmpDir(locked);
  int childErrno = 0;
  const std::string err = CreateAsUnprivilegedChild(0xFFFF, &childErrno);
  if (childErrno == 100) GTEST_SKIP() << "cannot drop privileges";
  if (childErrno == 101) GTEST_SKIP() << "this user may write into a read-only directory";
  EXPECT_EQ(childErrno, EACCES);
  EXPECT_EQ(err, "Failed to create " + locked + "/utl0000.TMP\n");
}

}  // namespace
