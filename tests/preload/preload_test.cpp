// Programs that were never written for the library, run under zmx_run (the
// preload library routing their malloc family through the front door): their
// output must be the same as in a plain run. Real programs (coreutils, python3,
// cmake) and a helper of ours for fork, exec, dlopen, the allocation functions'
// contracts, tracking and the memory limit.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/child_process.h"

namespace {

using zmx_test::ChildResult;
using zmx_test::Describe;
using zmx_test::EnvVars;

const std::string kZmxRun = std::string(ZMX_BINARY_DIR) + "/zmx_run";
const char* const kTimeout = "/usr/bin/timeout";  // every run is bounded
const char* const kSeconds = "60";

// Runs `command`, plainly when `options` is null, else under zmx_run with them.
ChildResult RunTimed(const std::vector<std::string>& command, const std::vector<std::string>* options,
                const EnvVars& env = {}) {
  std::vector<std::string> args{kSeconds};
  if (options != nullptr) {
    args.push_back(kZmxRun);
    args.insert(args.end(), options->begin(), options->end());
    args.push_back("--");
  }
  args.insert(args.end(), command.begin(), command.end());
  return zmx_test::RunProgram(kTimeout, args, env);
}

std::string Words(const std::vector<std::string>& options) {
  std::string text;
  for (const auto& o : options) text += (text.empty() ? "" : " ") + o;
  return text.empty() ? "(default)" : text;
}

const std::vector<std::vector<std::string>> kOptionSets = {{}, {"--small-objects"}, {"--guarded"}};

// A scratch directory removed with its contents at the end of the test.
class ScratchDir {
 public:
  ScratchDir() {
    char pattern[] = "/tmp/zmx_preload_XXXXXX";
    path_ = mkdtemp(pattern) != nullptr ? pattern : "";
  }
  ~ScratchDir() { zmx_test::RunProgram("/bin/rm", {"-rf", path_}); }
  const std::string& path() const { return path_; }
  std::string Write(const std::string& name, const std::string& text) const {
    const std::string file = path_ + "/" + name;
    std::ofstream(file) << text;
    return file;
  }

 private:
  std::string path_;
};

// Each option set gives the plain run's output, status and (for the helper's
// "routed" line apart) nothing unexpected on standard error.
void ExpectSameAsPlain(const std::vector<std::string>& command, const std::vector<std::vector<std::string>>& sets) {
  const ChildResult plain = RunTimed(command, nullptr);
  ASSERT_TRUE(zmx_test::ExitedCleanly(plain));
  ASSERT_FALSE(plain.out.empty());
  for (const auto& options : sets) {
    SCOPED_TRACE(Words(options));
    const ChildResult preloaded = RunTimed(command, &options);
    EXPECT_TRUE(zmx_test::ExitedCleanly(preloaded));
    EXPECT_EQ(preloaded.out, plain.out);
    EXPECT_EQ(preloaded.err, plain.err) << Describe(preloaded);
  }
}

TEST(RealPrograms, CoreutilsPipelineGivesThePlainOutput) {
  ScratchDir dir;
  std::string lines;
  for (unsigned i = 0; i < 200000; ++i) lines += "w" + std::to_string((i * 2654435761u) % 5003) + "\n";
  const std::string input = dir.Write("input.txt", lines);
  ExpectSameAsPlain({"/bin/sh", "-c",
                     "sort " + input + " | uniq -c | sort -n -k1,1 -k2,2 | awk '{n[$1]++; s+=$1} "
                     "END {for (k in n) c++; print s, c, NR; print $0}'"},
                    kOptionSets);
}

TEST(RealPrograms, PythonWithThreadsGivesThePlainOutput) {
  const ChildResult which = RunTimed({"/bin/sh", "-c", "command -v python3"}, nullptr);
  if (!which.exited || which.exitCode != 0) GTEST_SKIP() << "python3 is not installed";
  ScratchDir dir;
  const std::string script = dir.Write("work.py", R"(
import gc, hashlib, json, sys, threading
table = {"k%d" % i: [i, str(i) * 3, {"x": i}] for i in range(60000)}
text = "".join(str(v[0]) for v in table.values())
sizes = []
def work(n):
    parts = [("t%d-%d" % (n, j)) * (j % 7) for j in range(15000)]
    sizes.append(sum(len(p) for p in parts))
threads = [threading.Thread(target=work, args=(n,)) for n in range(8)]
for t in threads: t.start()
for t in threads: t.join()
class Node: pass
for i in range(20000):
    a, b = Node(), Node()
    a.other, b.other = b, a
collected = gc.collect()
back = json.loads(json.dumps(table))
print(len(back), sorted(sizes)[0], collected > 0)
print(hashlib.sha256((text + str(sorted(sizes)) + str(len(back))).encode()).hexdigest())
)");
  ExpectSameAsPlain({"python3", script}, {{}, {"--small-objects"}});
}

TEST(RealPrograms, CmakeConfiguresASmallProject) {
  ScratchDir dir;
  dir.Write("CMakeLists.txt", "cmake_minimum_required(VERSION 3.16)\nproject(x C)\nadd_executable(x main.c)\n");
  dir.Write("main.c", "int main(void) { return 0; }\n");
  const char* const kStable[] = {"-- The C compiler identification", "-- Configuring done", "-- Generating done"};
  auto stableLines = [&](const std::string& out) {
    std::istringstream in(out);
    std::string line, kept;
    while (std::getline(in, line))
      for (const char* prefix : kStable)
        if (line.rfind(prefix, 0) == 0) kept += line.substr(0, line.find(" (")) + "\n";
    return kept;
  };
  std::string plainLines;
  for (const std::string& kind : {std::string("plain"), std::string("preloaded")}) {
    SCOPED_TRACE(kind);
    const std::string build = dir.path() + "/build-" + kind;
    const std::vector<std::string> command{"cmake", "-S", dir.path(), "-B", build};
    const std::vector<std::string> noOptions;
    const ChildResult result = RunTimed(command, kind == "plain" ? nullptr : &noOptions);
    ASSERT_TRUE(zmx_test::ExitedCleanly(result));
    struct stat info;
    EXPECT_EQ(stat((build + "/CMakeCache.txt").c_str(), &info), 0);
    EXPECT_EQ(stat((build + "/Makefile").c_str(), &info), 0);
    if (kind == "plain") plainLines = stableLines(result.out);
    EXPECT_EQ(stableLines(result.out), plainLines);
  }
  EXPECT_NE(plainLines.find("-- Generating done"), std::string::npos) << plainLines;
}

// Threads, fork, exec of itself, dlopen/dlclose and frees at exit, plus the
// contracts of every allocation function (the helper prints what failed).
TEST(ForeignProgram, LifecycleRunsAsPlainOnTheFrontDoor) {
  const std::vector<std::string> command{ZMX_PRELOAD_HELPER, "lifecycle", ZMX_PRELOAD_PLUGIN};
  const ChildResult plain = RunTimed(command, nullptr);
  ASSERT_TRUE(zmx_test::ExitedCleanly(plain));
  EXPECT_NE(plain.out.find("failures: 0\n"), std::string::npos) << plain.out;
  EXPECT_NE(plain.out.find("fork: child exited 0\nplugin: "), std::string::npos) << plain.out;
  EXPECT_NE(plain.out.find("after exec: 1000\n"), std::string::npos) << plain.out;
  EXPECT_EQ(plain.err, "routed=0\nrouted=0\n");
  for (const auto& options : kOptionSets) {
    SCOPED_TRACE(Words(options));
    const ChildResult preloaded = RunTimed(command, &options);
    EXPECT_TRUE(zmx_test::ExitedCleanly(preloaded));
    EXPECT_EQ(preloaded.out, plain.out);
    EXPECT_EQ(preloaded.err, "routed=1\nrouted=1\n");  // before and after the exec
  }
}

// The report names exactly the three leaks, whether the files go to a
// temporary directory or to one the user gives (where they stay).
TEST(ForeignProgram, TrackedRunReportsExactlyTheKnownLeaks) {
  ScratchDir dir;
  for (const bool givenDir : {false, true}) {
    SCOPED_TRACE(givenDir ? "given directory" : "temporary directory");
    const std::vector<std::string> options{"--track", "leaky"};
    const ChildResult run = RunTimed({ZMX_PRELOAD_HELPER, "leaks"}, &options,
                                     givenDir ? EnvVars{{"ZEM_MEM_OUTPUTDIR", dir.path()}} : EnvVars{});
    ASSERT_TRUE(zmx_test::ExitedCleanly(run));
    EXPECT_NE(run.err.find("live at end: 7777 bytes in 3 blocks\n"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("leaks by phase:\n"
                           "  4444 bytes in 1 blocks  ROOT->leakRealloc\n"
                           "  2222 bytes in 1 blocks  ROOT->leakCalloc\n"
                           "  1111 bytes in 1 blocks  ROOT->leakMalloc\n"
                           "leaks by thread:\n"),
              std::string::npos)
        << run.err;
  }
  struct stat info;
  EXPECT_EQ(stat((dir.path() + "/leaky.memT0").c_str(), &info), 0);
  EXPECT_EQ(stat((dir.path() + "/leaky.phaseStack").c_str(), &info), 0);
}

TEST(ForeignProgram, MemoryLimitRefusesWithNoMemoryAndTheStatusComesBack) {
  const std::vector<std::string> limited{"--limit", "67108864"};
  const ChildResult run = RunTimed({ZMX_PRELOAD_HELPER, "limit"}, &limited);
  EXPECT_TRUE(run.exited && run.exitCode == 7) << Describe(run);
  EXPECT_EQ(run.out.find("refused after "), 0u) << run.out;
  EXPECT_NE(run.out.find(" MiB with ENOMEM\n"), std::string::npos) << run.out;
}

TEST(ZmxRun, RejectsBadUsageWithStatusTwo) {
  struct Case {
    std::vector<std::string> args;
    std::string message;
  };
  const Case cases[] = {
      {{"--limit", "12x", "--", "true"}, "zmx_run: --limit needs a number of bytes from 1 to 2147483647, not '12x'\n"},
      {{"--limit", "2147483648", "--", "true"}, "zmx_run: --limit needs a number of bytes from 1 to 2147483647, not '2147483648'\n"},
      {{"--limit", "0", "true"}, "zmx_run: --limit needs a number of bytes from 1 to 2147483647, not '0'\n"},
      {{"--bogus", "--", "true"}, "zmx_run: unknown option '--bogus'\nusage: zmx_run [options] [--] program [args...]\n"},
      {{"--track", "a/b", "--", "true"}, "zmx_run: --track needs a plain name without '/', not 'a/b'\n"},
      {{"--small-objects"}, "zmx_run: no program given\nusage: zmx_run [options] [--] program [args...]\n"},
  };
  for (const Case& c : cases) {
    const ChildResult run = zmx_test::RunProgram(kZmxRun, c.args);
    EXPECT_TRUE(run.exited && run.exitCode == 2) << Describe(run);
    EXPECT_EQ(run.err.substr(0, c.message.size()), c.message);
  }
  const ChildResult status = zmx_test::RunProgram(kZmxRun, {"--", "/bin/sh", "-c", "exit 5"});
  EXPECT_TRUE(status.exited && status.exitCode == 5) << Describe(status);
}

}  // namespace
