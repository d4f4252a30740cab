// Crash reports and the client's exception handler, each case a crashing child
// process that runs in a folder of its own, where its report lands.
#include <dlfcn.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/child_process.h"

namespace {

using zmx_test::ChildResult;
using zmx_test::Describe;
using zmx_test::EnvVars;

// The folders made here go when the test program ends.
struct Folders {
  std::vector<std::string> made;
  ~Folders() { for (const auto& folder : made) std::filesystem::remove_all(folder); }
};
Folders g_folders;

std::string MakeFolder(const std::string& below = "") {
  std::string pattern = below.empty() ? "/tmp/zmx_crash_XXXXXX" : below + "/XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) return "";
  if (below.empty()) g_folders.made.push_back(pattern);
  return pattern;
}

std::vector<std::string> LinesOf(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The file the dynamic loader finds for `library` (the one holding `entry`),
// or "" when the system has none.
std::string SystemLibrary(const char* library, const char* entry) {
  void* handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  void* address = handle != nullptr ? dlsym(handle, entry) : nullptr;
  Dl_info info;
  return address != nullptr && dladdr(address, &info) != 0 && info.dli_fname != nullptr ? info.dli_fname : "";
}

// Symbols of functions that are not exported, and source lines, need libdw.
#define SKIP_WITHOUT_LIBDW()                                      \
  if (SystemLibrary("libdw.so.1", "dwfl_begin").empty())          \
  GTEST_SKIP() << "libdw.so.1 is not installed (tools/setup.sh installs libdw1)"

struct Report {
  std::string firstLine;
  std::vector<std::string> frames;   // "0x..." lines
  std::vector<std::string> modules;  // lines after the empty one
};

Report Parse(const std::string& path) {
  Report report;
  const auto lines = LinesOf(path);
  std::size_t i = 0;
  if (i < lines.size()) report.firstLine = lines[i++];
  for (; i < lines.size() && !lines[i].empty(); ++i) report.frames.push_back(lines[i]);
  for (++i; i < lines.size(); ++i) report.modules.push_back(lines[i]);
  return report;
}

struct Crash {
  ChildResult child;
  bool reported = false;
  std::string folder;
  Report report;
};

// Runs a scenario in a fresh folder; ZEM_PATH is that folder unless `env` says otherwise.
Crash RunCrash(const std::string& scenario, EnvVars env = {}, std::vector<std::string> args = {},
               bool withZemPath = true) {
  Crash crash;
  crash.folder = MakeFolder();
  if (withZemPath) env.emplace_back("ZEM_PATH", crash.folder);
  args.insert(args.begin(), crash.folder);
  crash.child = zmx_test::RunProbe("crash_probe", scenario, env, args);
  const std::string path = crash.folder + "/crash_probe.dmp";
  crash.reported = access(path.c_str(), F_OK) == 0;
  crash.report = Parse(path);
  return crash;
}

// The line of the probe's source that holds `text`, as the report prints it.
std::string SourceLineOf(const std::string& text) {
  const auto lines = LinesOf(std::string(ZMX_SOURCE_DIR) + "/tests/probes/crash_probe.cpp");
  for (std::size_t i = 0; i < lines.size(); ++i)
    if (lines[i].find(text) != std::string::npos) {
      char number[32];
      std::snprintf(number, sizeof number, "%04zu", i + 1);
      return number;
    }
  return "?";
}

bool HasModule(const Report& report, const std::string& name) {
  const std::regex line("([^:]+):\t[0-9A-F]{8} - [0-9A-F]{8}");
  for (const auto& module : report.modules) {
    std::smatch match;
    if (std::regex_match(module, match, line) && match[1].str().compare(0, name.size(), name) == 0) return true;
  }
  return false;
}

int CountFramesWith(const Report& report, const std::string& text) {
  int n = 0;
  for (const auto& frame : report.frames) n += frame.find(text) != std::string::npos;
  return n;
}

TEST(CrashReport, EachFaultIsNamedAtItsFunctionAndSourceLine) {
  SKIP_WITHOUT_LIBDW();
  const struct {
    const char* scenario;
    int signal;
    const char *exception, *module;
    const char* function;    // the faulting one; its definition line is the faulting line
    const char* definition;  // or empty when the fault is not on that line
    const char* caller;      // a frame further out
  } cases[] = {
      {"null", SIGSEGV, "EXCEPTION_ACCESS_VIOLATION", "crash_probe", "NullDeref", "int NullDeref()",
       "(anonymous namespace)::CallerOfNullDeref()+"},
      {"int_divide", SIGFPE, "EXCEPTION_INT_DIVIDE_BY_ZERO", "crash_probe", "IntDivide", "int IntDivide()",
       "(anonymous namespace)::IntDivideScenario()+"},
      {"float_divide", SIGFPE, "EXCEPTION_FLT_DIVIDE_BY_ZERO", "crash_probe", "FloatDivide",
       "double FloatDivide()", "(anonymous namespace)::FloatDivideScenario()+"},
      {"overflow", SIGSEGV, "EXCEPTION_STACK_OVERFLOW", "crash_probe", "Overflow", "", "(anonymous namespace)::Overflow()+"},
      {"abort", SIGABRT, "Aborted", "libc.so.6", "", "", "(anonymous namespace)::AbortScenario()+"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.scenario);
    const Crash crash = RunCrash(c.scenario);
    EXPECT_EQ(crash.child.signal, c.signal) << Describe(crash.child);
    ASSERT_TRUE(crash.reported);
    const Report& r = crash.report;
    std::smatch head;
    ASSERT_TRUE(std::regex_search(r.firstLine, head,
                                  std::regex("^crash_probe caused an ([^,]+) in module (\\S+) at ([0-9A-F]{16})")))
        << r.firstLine;
    EXPECT_EQ(head[1].str(), c.exception);
    EXPECT_EQ(head[2].str(), c.module);
    if (c.function[0] != '\0') {
      EXPECT_NE(r.firstLine.find(std::string(", (anonymous namespace)::") + c.function + "()+"), std::string::npos)
          << r.firstLine;
    }
    if (c.definition[0] != '\0') {
      EXPECT_NE(r.firstLine.find("crash_probe.cpp, line " + SourceLineOf(c.definition)), std::string::npos)
          << r.firstLine;
    }
    // The first stack line describes the faulting instruction exactly as line 1 does.
    ASSERT_FALSE(r.frames.empty());
    EXPECT_EQ(r.frames[0], "0x" + head[3].str() + " " + c.module + head.suffix().str());
    EXPECT_GE(CountFramesWith(r, c.caller), 1) << r.frames.size();
    EXPECT_EQ(CountFramesWith(r, "@"), 0) << "symbol versions are no part of the names";
    EXPECT_GE(CountFramesWith(r, "crash_probe.cpp, line "), c.module == std::string("crash_probe") ? 2 : 1);
    EXPECT_TRUE(HasModule(r, "crash_probe")) << r.modules.size();
    EXPECT_TRUE(HasModule(r, "libZMXUTI_CoreUtils.so"));
  }
}

TEST(CrashReport, ASecondThreadFaultingDuringTheReportLetsItEnd) {
  const Crash crash = RunCrash("two_threads");
  EXPECT_EQ(crash.child.signal, SIGSEGV) << Describe(crash.child);
  EXPECT_EQ(crash.report.firstLine.find("crash_probe caused an EXCEPTION_ACCESS_VIOLATION"), 0u);
  EXPECT_TRUE(HasModule(crash.report, "libZMXUTI_CoreUtils.so")) << crash.report.modules.size();
}

TEST(CrashReport, StartUpTakesBackASignalAClientTookOver) {
  // The client's handler chains back to the library's. Brought up again, the
  // library sees the fault first; passing it on (pop-ups wanted) reaches the
  // client's handler once, and its call back ends the process.
  for (const bool popup : {false, true}) {
    SCOPED_TRACE(popup);
    const Crash crash = RunCrash("taken_over", popup ? EnvVars{{"QVL_DEBUG_POPUP", "1"}} : EnvVars{});
    EXPECT_EQ(crash.child.signal, SIGSEGV) << Describe(crash.child);
    EXPECT_EQ(crash.child.out, popup ? "client\n" : "");
    EXPECT_TRUE(crash.reported);
  }
}

TEST(CrashReport, StackLinesStopAtTwoHundredForTheWholeProcess) {
  SKIP_WITHOUT_LIBDW();
  // 300 nested calls: the faulting frame and 199 of them.
  const Crash deep = RunCrash("deep");
  ASSERT_EQ(deep.report.frames.size(), 200u) << Describe(deep.child);
  EXPECT_EQ(CountFramesWith(deep.report, "(anonymous namespace)::Deep()+"), 199);
  EXPECT_FALSE(deep.report.modules.empty());

  // With debug pop-ups wanted the filter passes the fault on; the probe's own
  // handler recovers, so a second report follows with what is left of the 200.
  const Crash twice = RunCrash("two_reports", {{"QVL_DEBUG_POPUP", "1"}});
  ASSERT_TRUE(twice.child.exited) << Describe(twice.child);
  EXPECT_EQ(twice.child.out, "recovered twice\n");
  const Report first = Parse(twice.folder + "/first.dmp");
  EXPECT_GT(first.frames.size(), 150u);
  EXPECT_EQ(first.frames.size() + twice.report.frames.size(), 200u);
  EXPECT_NE(twice.report.firstLine.find("NullDeref()+"), std::string::npos);
}

TEST(CrashReport, ASymbolReachingPastColumn718EndsTheLine) {
  SKIP_WITHOUT_LIBDW();
  // The name fits the 1,024-character line but not before column 718: it is
  // copied as it is and neither its displacement nor the source line follows.
  const Crash crash = RunCrash("long_name");
  ASSERT_TRUE(crash.reported) << Describe(crash.child);
  const std::string name = "int (anonymous namespace)::CrashInLongName<(anonymous namespace)::Wrap<";
  for (const std::string& line : {crash.report.firstLine, crash.report.frames.at(0)}) {
    const std::size_t at = line.find(", " + name);
    ASSERT_NE(at, std::string::npos) << line.substr(0, 200);
    EXPECT_LT(at + 2, 718u);
    EXPECT_GT(line.size(), 718u);
    EXPECT_LT(line.size(), 1023u);
    EXPECT_EQ(line.back(), '>') << "nothing after the name";
    EXPECT_EQ(line.find("()+"), std::string::npos);
  }
}

TEST(CrashReport, SymbolLibraryIsSearchedThroughZemPath) {
  const std::string libdw = SystemLibrary("libdw.so.1", "dwfl_begin"),
                    libelf = SystemLibrary("libelf.so.1", "elf_version");
  if (libdw.empty() || libelf.empty()) GTEST_SKIP() << "libdw.so.1 or libelf.so.1 is not installed";
  const std::string root = MakeFolder();
  const std::string empty = MakeFolder(root), linked = MakeFolder(root), broken = MakeFolder(root),
                    other = MakeFolder(root);
  for (const std::string& dir : {linked, broken, other}) mkdir((dir + "/External").c_str(), 0700);
  ASSERT_EQ(symlink(libdw.c_str(), (linked + "/External/libdw.so.1").c_str()), 0);
  // A library without the entry points: symbols then come from the dynamic symbol tables.
  ASSERT_EQ(symlink(libelf.c_str(), (other + "/External/libdw.so.1").c_str()), 0);
  std::ofstream(broken + "/External/libdw.so.1") << "not a library\n";

  const struct {
    const char* what;
    std::string zemPath;  // empty: the run's own folder
    std::string stderrStart;
    bool sourceLines;
  } cases[] = {
      {"second element holds it", empty + ";" + linked, "", true},
      {"none holds it: the system's", "", "libdw.so.1 not found in ZEM_PATH", true},
      {"a broken one ends the search", broken + ";" + linked, "Unexpected error " + broken, true},
      {"one without the entry points", other, "", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Crash crash = RunCrash("null", c.zemPath.empty() ? EnvVars{} : EnvVars{{"ZEM_PATH", c.zemPath}}, {},
                                 c.zemPath.empty());
    EXPECT_EQ(crash.child.signal, SIGSEGV);
    // Where the system's library is used the message is printed once, with no line end.
    const bool whole = c.zemPath.empty() || c.stderrStart.empty();
    EXPECT_EQ(whole ? crash.child.err : crash.child.err.substr(0, c.stderrStart.size()), c.stderrStart)
        << crash.child.err;
    if (c.sourceLines) {
      EXPECT_NE(crash.report.firstLine.find("crash_probe.cpp, line "), std::string::npos) << crash.report.firstLine;
    } else {
      // The probe's own functions are not exported; the C runtime's are.
      EXPECT_TRUE(std::regex_match(crash.report.firstLine,
                                   std::regex("crash_probe caused an EXCEPTION_ACCESS_VIOLATION in module "
                                              "crash_probe at [0-9A-F]{16}")))
          << crash.report.firstLine;
      EXPECT_EQ(CountFramesWith(crash.report, "libc.so.6, __libc_start_main()+"), 1);
      EXPECT_EQ(CountFramesWith(crash.report, ", line "), 0);
    }
  }

  const Crash silent = RunCrash("null", {}, {}, false);
  EXPECT_EQ(silent.child.signal, SIGSEGV);
  EXPECT_FALSE(silent.reported);
  EXPECT_EQ(silent.child.err, "");
  const Crash popup = RunCrash("null", {{"QVL_DEBUG_POPUP", "1"}});
  EXPECT_EQ(popup.child.signal, SIGSEGV) << "pop-ups wanted: the default action follows the report";
  EXPECT_TRUE(popup.reported);
}

TEST(CrashReport, ClientHandlerSeesFaultsBeforeTheReport) {
  const Crash resumed = RunCrash("resume");
  EXPECT_EQ(resumed.child.out, "refused 0\ninstalled 1\nresumed 42\nrestored 1\n");
  EXPECT_EQ(resumed.child.signal, SIGSEGV);
  EXPECT_TRUE(resumed.reported) << "restoring puts the report filter back";

  // SSE faults in two threads at one instruction, then an x87 fault: each is
  // named by its own cause, and the status flags set before it survive.
  const Crash fpe = RunCrash("float_continue");
  EXPECT_EQ(fpe.child.out, "divides 4001 misnamed 0 flags lost 0\n") << Describe(fpe.child);
  EXPECT_TRUE(fpe.child.exited);

  // The symbol library's absence from ZEM_PATH is told only when a report needs it.
  const std::string row = "!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!\n";
  const struct {
    const char *registered, *fault;
    const char* handlerSays;  // empty: the handler is not asked and the report is written
    std::string err;
  } cases[] = {
      {"none", "null", "handler C0000005\n", ""},
      {"probe", "null", "handler C0000005\n", ""},
      {"library", "null", "", "libdw.so.1 not found in ZEM_PATH"},
      {"again", "null", "handler C0000005\n", ""},
      {"none", "overflow", "handler C00000FD\n", row + "EXCEPTION_STACK_OVERFLOW occurred\n" + row},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.registered) + " " + c.fault);
    const Crash crash = RunCrash("dispatch", {}, {c.registered, c.fault});
    EXPECT_EQ(crash.child.signal, SIGSEGV);
    EXPECT_EQ(crash.child.out, c.handlerSays);
    EXPECT_EQ(crash.reported, c.handlerSays[0] == '\0');
    EXPECT_EQ(crash.child.err, c.err);
  }
}

}  // namespace
