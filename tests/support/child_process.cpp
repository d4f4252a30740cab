// Fresh-process runner for tests: posix_spawn with standard output and error
// captured in temporary files.
#include "support/child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

extern char** environ;

namespace zmx_test {

namespace {

bool IsLibraryVariable(const char* entry) {
  static const char* const kPrefixes[] = {"ZMX_", "ZEM_", "ZEMRIX_", "QVL_", "ATR_", "UnitTestVerbose="};
  for (const char* prefix : kPrefixes)
    if (std::strncmp(entry, prefix, std::strlen(prefix)) == 0) return true;
  return false;
}

std::string TempPath(const char* tag) {
  char pattern[256];
  std::snprintf(pattern, sizeof pattern, "/tmp/zmx_child_%s_XXXXXX", tag);
  const int fd = mkstemp(pattern);
  if (fd >= 0) close(fd);
  return pattern;
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

ChildResult RunProgram(const std::string& program, const std::vector<std::string>& args, const EnvVars& env) {
  std::vector<std::string> envStrings;
  for (char** e = environ; *e != nullptr; ++e)
    if (!IsLibraryVariable(*e)) envStrings.emplace_back(*e);
  for (const auto& kv : env) envStrings.push_back(kv.first + "=" + kv.second);

  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (auto& s : envStrings) envp.push_back(&s[0]);
  envp.push_back(nullptr);

  const std::string outPath = TempPath("out");
  const std::string errPath = TempPath("err");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_TRUNC, 0600);

  ChildResult result;
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    result.err = "cannot start " + program + ": " + std::strerror(rc);
  } else {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
    }
    if (WIFEXITED(status)) {
      result.exited = true;
      result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
      result.signal = WTERMSIG(status);
    }
    result.out = Slurp(outPath);
    result.err = Slurp(errPath);
  }
  std::remove(outPath.c_str());
  std::remove(errPath.c_str());
  return result;
}

ChildResult RunProbe(const std::string& probe, const std::string& scenario, const EnvVars& env,
                     const std::vector<std::string>& extraArgs) {
  std::vector<std::string> args{scenario};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());
  return RunProgram(std::string(ZMX_PROBE_DIR) + "/" + probe, args, env);
}

std::string Describe(const ChildResult& result) {
  std::ostringstream text;
  if (result.exited)
    text << "exit " << result.exitCode;
  else
    text << "signal " << result.signal;
  text << "\n--- stdout ---\n" << result.out << "\n--- stderr ---\n" << result.err;
  return text.str();
}

::testing::AssertionResult ExitedCleanly(const ChildResult& result) {
  if (result.exited && result.exitCode == 0) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << Describe(result);
}

}  // namespace zmx_test
