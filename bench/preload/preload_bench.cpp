// preload_bench [--rounds N] [--out DIR]
// Wall time of real programs that were never written for the library — a
// coreutils pipeline (sort, uniq, awk), python3 building dicts, strings and
// JSON on 8 threads, cmake configuring a small C project — run plainly on
// glibc, under zmx_run (default, --small-objects, the heap's thread cache), and with mimalloc and
// jemalloc in LD_PRELOAD. Best of N rounds (default 3); a contender whose
// library is not installed is noted and skipped. Writes DIR/preload_bench.md
// and DIR/preload_bench.svg (DIR defaults to the current directory).
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "bench_report.h"

extern char** environ;

namespace {

struct Contender {
  std::string name;
  std::vector<std::string> prefix;  // words before the command
  std::string preload;              // LD_PRELOAD value, empty for none
  std::string missing;              // why it cannot run, empty when it can
};

struct Workload {
  std::string name;
  std::vector<std::string> command;
  std::string before;  // a shell command run untimed before each round
};

const char kBaseline[] = "glibc";

[[noreturn]] void Fail(const std::string& message) {
  std::fprintf(stderr, "preload_bench: %s\n", message.c_str());
  std::exit(1);
}

// Runs `argv` with LD_PRELOAD = `preload` (when set), output discarded; the
// exit status, or -1 when it could not start.
int Spawn(const std::vector<std::string>& argv, const std::string& preload) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e)
    if (std::strncmp(*e, "LD_PRELOAD=", 11) != 0) env.emplace_back(*e);
  if (!preload.empty()) env.push_back("LD_PRELOAD=" + preload);
  std::vector<char*> args, envp;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  for (auto& e : env) envp.push_back(&e[0]);
  args.push_back(nullptr);
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

double BestSeconds(const Workload& w, const Contender& c, int rounds) {
  double best = 1e30;
  for (int r = 0; r < rounds; ++r) {
    if (!w.before.empty() && Spawn({"/bin/sh", "-c", w.before}, "") != 0) Fail("set-up failed: " + w.before);
    std::vector<std::string> argv = c.prefix;
    argv.insert(argv.end(), w.command.begin(), w.command.end());
    const auto start = std::chrono::steady_clock::now();
    const int status = Spawn(argv, c.preload);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (status != 0) Fail(w.name + " under " + c.name + " failed with status " + std::to_string(status));
    if (seconds < best) best = seconds;
  }
  return best;
}

std::string FirstExisting(const std::vector<std::string>& paths) {
  struct stat info;
  for (const auto& p : paths)
    if (stat(p.c_str(), &info) == 0) return p;
  return "";
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  if (!out.flush()) Fail("cannot write " + path);
}

std::vector<Workload> MakeWorkloads(const std::string& dir) {
  std::string lines;
  for (unsigned i = 0; i < 600000; ++i) lines += "w" + std::to_string((i * 2654435761u) % 50021) + "\n";
  WriteFile(dir + "/input.txt", lines);
  WriteFile(dir + "/work.py", R"(
import gc, hashlib, json, threading
table = {"k%d" % i: [i, str(i) * 3, {"x": i}] for i in range(200000)}
text = "".join(str(v[0]) for v in table.values())
sizes = []
def work(n):
    parts = [("t%d-%d" % (n, j)) * (j % 7) for j in range(60000)]
    sizes.append(sum(len(p) for p in parts))
threads = [threading.Thread(target=work, args=(n,)) for n in range(8)]
for t in threads: t.start()
for t in threads: t.join()
back = json.loads(json.dumps(table))
gc.collect()
print(hashlib.sha256((text + str(sorted(sizes)) + str(len(back))).encode()).hexdigest())
)");
  WriteFile(dir + "/CMakeLists.txt", "cmake_minimum_required(VERSION 3.16)\nproject(x C)\nadd_executable(x main.c)\n");
  WriteFile(dir + "/main.c", "int main(void) { return 0; }\n");
  return {
      {"coreutils pipeline",
       {"/bin/sh", "-c", "sort " + dir + "/input.txt | uniq -c | sort -n | awk '{s+=$1} END {print s, NR}'"}, ""},
      {"python3 script", {"python3", dir + "/work.py"}, ""},
      {"cmake configure", {"cmake", "-S", dir, "-B", dir + "/build"}, "rm -rf " + dir + "/build"},
  };
}

std::vector<Contender> MakeContenders() {
  const std::string zmxRun = ZMX_RUN_SCRIPT;
  const std::string lib = "/usr/lib/x86_64-linux-gnu/";
  const std::string mimalloc = FirstExisting({lib + "libmimalloc.so.2", lib + "libmimalloc.so"});
  const std::string jemalloc = FirstExisting({lib + "libjemalloc.so.2", lib + "libjemalloc.so"});
  return {
      {kBaseline, {}, "", ""},
      {"zmx_run", {zmxRun, "--"}, "", ""},
      {"zmx_run --small-objects", {zmxRun, "--small-objects", "--"}, "", ""},
      {"zmx_run, thread cache", {"env", "ZMX_HEAP_THREAD_CACHE=1", zmxRun, "--"}, "", ""},
      {"mimalloc", {}, mimalloc, mimalloc.empty() ? "libmimalloc.so not installed" : ""},
      {"jemalloc", {}, jemalloc, jemalloc.empty() ? "libjemalloc.so not installed" : ""},
  };
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = 3;
  std::string outDir = ".";
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--rounds" && i + 1 < argc) {
      rounds = std::atoi(argv[++i]);
      if (rounds < 1) Fail("--rounds needs a positive number");
    } else if (a == "--out" && i + 1 < argc) {
      outDir = argv[++i];
    } else {
      Fail("usage: preload_bench [--rounds N] [--out DIR]");
    }
  }
  char pattern[] = "/tmp/zmx_preload_bench_XXXXXX";
  if (mkdtemp(pattern) == nullptr) Fail("cannot make a scratch directory");
  const std::string dir = pattern;
  const std::vector<Workload> workloads = MakeWorkloads(dir);
  const std::vector<Contender> contenders = MakeContenders();

  zmx_bench::Report report("Real programs under zmx_run, mimalloc and jemalloc (wall time, best of " +
                               std::to_string(rounds) + ")",
                           false);
  for (const Workload& w : workloads) {
    for (const Contender& c : contenders) {
      if (!c.missing.empty()) {
        report.AddNote(w.name, c.name, c.missing);
        continue;
      }
      const double seconds = BestSeconds(w, c, rounds);
      std::fprintf(stderr, "%-20s %-24s %.3f s\n", w.name.c_str(), c.name.c_str(), seconds);
      report.Add(w.name, c.name, seconds, "s");
    }
  }
  Spawn({"rm", "-rf", dir}, "");
  report.PrintTable(kBaseline);
  if (!report.WriteMarkdown(outDir + "/preload_bench.md", kBaseline)) Fail("cannot write " + outDir + "/preload_bench.md");
  if (!report.WriteSvg(outDir + "/preload_bench.svg", kBaseline)) Fail("cannot write " + outDir + "/preload_bench.svg");
  return 0;
}
