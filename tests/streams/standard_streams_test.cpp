// The standard streams: attached by start-up to the runtime's standard files,
// never owned, failing quietly before start-up.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "support/child_process.h"

namespace {

using zmx_test::ExitedCleanly;
using zmx_test::RunProbe;

TEST(StandardStreams, AreAttachedToTheRuntimeFilesOnceTheLibraryIsUp) {
  EXPECT_EQ(aio_cin.fptr(), stdin);
  EXPECT_EQ(aio_cout.fptr(), stdout);
  EXPECT_EQ(aio_cerr.fptr(), stderr);
  EXPECT_EQ(aio_cout.precision(), 6);
  EXPECT_EQ(aio_cerr.flags(), 0u);
  // Another start-up of the component only counts: depth unchanged.
  int depth = 0;
  aio_initialize(depth);
  EXPECT_EQ(depth, 0);
  aio_finalize(depth);
  EXPECT_EQ(depth, 0);
  EXPECT_EQ(aio_cout.fptr(), stdout);
}

TEST(StandardStreams, OutputBeforeStartUpOnlyFailsAndStartUpAttaches) {
  const auto r = RunProbe("streams_probe", "early");
  ASSERT_TRUE(ExitedCleanly(r));
  EXPECT_EQ(r.out, "early 2 2 2 -1\ndepth 1 attached 1 1 1\nout 2\ndown 0\nafter finalize\n");
  EXPECT_EQ(r.err, "err\n");
}

TEST(StandardStreams, ReadAndWriteTheProcessFilesThroughTheLibraryStartUp) {
  const std::string input = ::testing::TempDir() + "streams_probe_input.txt";
  FILE* f = std::fopen(input.c_str(), "w");
  ASSERT_NE(f, nullptr);
  std::fputs("hello world\n  21\n", f);
  std::fclose(f);
  const auto r = RunProbe("streams_probe", "from_library", {}, {input});
  std::remove(input.c_str());
  ASSERT_TRUE(ExitedCleanly(r));
  EXPECT_EQ(r.out, "hello world 42\n");
}

TEST(StandardStreams, DestructionDoesNotCloseTheRuntimeFiles) {
  const auto r = RunProbe("streams_probe", "destruction");
  ASSERT_TRUE(ExitedCleanly(r));
  EXPECT_EQ(r.out, "before exit\nstdout still open\n");
  EXPECT_EQ(r.err, "");
}

}  // namespace
