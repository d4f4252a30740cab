// What allocation tracking costs: one workload (power-law sizes up to 64 KiB,
// below the heap's direct-mapping threshold so that system calls do not drown
// the recording; random replacement in a live set, through mem_Malloc/mem_Free) run as a whole
// process untracked, with ZEM_MEM_TRACK, and under heaptrack recording the same
// program. heaptrack sees only the C library's malloc, so its run (and its
// baseline) put the process on the runtime heap (ZMX_CRTMALLOC). Prints the
// time ratios, the time each recorder adds and the bytes it writes per
// transaction; writes tracking_bench.md and tracking_bench.svg.
//   tracking_bench [--quick] [--rounds N] [--out DIR]
//   tracking_bench --child OPERATIONS            one run of the workload (internal)
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <random>
#include <string>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "bench_report.h"

namespace {

ZMXUTI_EARLY_START_UP;

// ------------------------------------------------------------------ child

std::size_t PowerLawSize(std::mt19937_64& rng) {
  const double u = std::uniform_real_distribution<double>(0.0, 1.0)(rng);
  return 8 + static_cast<std::size_t>(std::pow(u, 6.0) * (1u << 16));
}

int Child(long operations) {
  std::mt19937_64 rng(2);
  std::vector<void*> live(1000, nullptr);
  long transactions = 0;
  for (long i = 0; i < operations; ++i) {
    void*& slot = live[rng() % live.size()];
    if (slot != nullptr) mem_Free(slot), ++transactions;
    const std::size_t n = PowerLawSize(rng);
    slot = mem_Malloc(n);
    static_cast<volatile char*>(slot)[0] = 1;
    ++transactions;
  }
  for (void* p : live)
    if (p != nullptr) mem_Free(p), ++transactions;
  if (mem_Tracker_Interface::IsTrackingActive()) MEM_TRACKER_SHUTDOWN();  // the last batch and the phase file
  std::printf("%ld\n", transactions);
  return 0;
}

// ----------------------------------------------------------------- driver

struct Run {
  double seconds = 0;
  long transactions = 0;
};

// Runs `argv` with `env` added and returns its wall time and the count it printed.
Run Start(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
  std::string out = "/tmp/zmx_tracking_bench_out_" + std::to_string(getpid());
  const auto t0 = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    for (const std::string& e : env) putenv(const_cast<char*>(e.c_str()));
    if (!freopen(out.c_str(), "w", stdout) || !freopen("/dev/null", "w", stderr)) _exit(126);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  Run run;
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  if (FILE* f = std::fopen(out.c_str(), "r")) {
    if (std::fscanf(f, "%ld", &run.transactions) != 1) run.transactions = 0;
    std::fclose(f);
  }
  std::remove(out.c_str());
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "tracking_bench: %s failed (status %d)\n", argv[0].c_str(), status);
    std::exit(1);
  }
  return run;
}

// Bytes in the files of `dir` (removing them), for the recorders' output.
double DrainDirectory(const std::string& dir) {
  double bytes = 0;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] == '.') continue;
      const std::string path = dir + "/" + e->d_name;
      struct stat st;
      if (stat(path.c_str(), &st) == 0) bytes += static_cast<double>(st.st_size);
      std::remove(path.c_str());
    }
    closedir(d);
  }
  return bytes;
}

struct Measured {
  Run best;
  double bytes = 0;
};

Measured Best(int rounds, const std::vector<std::string>& argv, const std::vector<std::string>& env,
              const std::string& outputDir) {
  Measured m;
  for (int r = 0; r < rounds; ++r) {
    const Run run = Start(argv, env);
    const double bytes = outputDir.empty() ? 0 : DrainDirectory(outputDir);
    if (r == 0 || run.seconds < m.best.seconds) m.best = run;
    m.bytes = bytes;
  }
  return m;
}

}  // namespace

int main(int argc, char** argv) {
  long operations = 2000000;
  int rounds = 3;
  std::string outDir = ".";
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--child" && i + 1 < argc) return Child(std::atol(argv[i + 1]));
    if (a == "--quick") operations = 300000, rounds = 1;
    if (a == "--rounds" && i + 1 < argc) rounds = std::atoi(argv[++i]);
    if (a == "--out" && i + 1 < argc) outDir = argv[++i];
  }
  char self[4096] = {};
  if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return 1;
  const std::vector<std::string> child = {self, "--child", std::to_string(operations)};

  char dirTemplate[] = "/tmp/zmx_tracking_bench_XXXXXX";
  const std::string work = mkdtemp(dirTemplate) ? dirTemplate : "/tmp";
  const bool haveHeaptrack = std::system("command -v heaptrack >/dev/null 2>&1") == 0;

  const Measured plain = Best(rounds, child, {}, "");
  const Measured tracked = Best(rounds, child, {"ZEM_MEM_TRACK=1", "ZEM_MEM_OUTPUTDIR=" + work}, work);
  const Measured runtime = Best(rounds, child, {"ZMX_CRTMALLOC=1"}, "");
  Measured heaptracked;
  if (haveHeaptrack) {
    std::vector<std::string> ht = {"heaptrack", "-o", work + "/heaptrack.out"};
    ht.insert(ht.end(), child.begin(), child.end());
    heaptracked = Best(rounds, ht, {"ZMX_CRTMALLOC=1"}, work);
  }
  rmdir(work.c_str());

  zmx_bench::Report report("Tracking cost: whole-process time of the power-law workload", false);
  const std::string w = "power-law to 64 KiB, " + std::to_string(plain.best.transactions) + " transactions";
  report.Add(w, "untracked (general heap)", plain.best.seconds, "s");
  report.Add(w, "ZEM_MEM_TRACK (general heap)", tracked.best.seconds, "s");
  report.Add(w, "untracked (runtime heap)", runtime.best.seconds, "s");
  if (haveHeaptrack)
    report.Add(w, "heaptrack (runtime heap)", heaptracked.best.seconds, "s");
  else
    report.AddNote(w, "heaptrack (runtime heap)", "heaptrack not installed");
  report.PrintTable("untracked (general heap)");
  report.WriteMarkdown(outDir + "/tracking_bench.md", "untracked (general heap)");
  report.WriteSvg(outDir + "/tracking_bench.svg", "untracked (general heap)");

  const double tx = static_cast<double>(plain.best.transactions);
  const double trackerAdded = tracked.best.seconds - plain.best.seconds;
  const double heaptrackAdded = heaptracked.best.seconds - runtime.best.seconds;
  std::printf("\n== tracking targets ==\n");
  std::printf("tracked / untracked time          %.2fx   (target <= 1.30x: %s)\n",
              tracked.best.seconds / plain.best.seconds, tracked.best.seconds <= 1.3 * plain.best.seconds ? "met" : "MISSED");
  std::printf("time added: tracker %.3f s, heaptrack %.3f s\n", trackerAdded, heaptrackAdded);
  if (haveHeaptrack)
    std::printf("heaptrack's added time / tracker's %.1fx   (target >= 5x: %s)\n",
                heaptrackAdded / (trackerAdded > 1e-3 ? trackerAdded : 1e-3),
                heaptrackAdded >= 5 * trackerAdded ? "met" : "MISSED");
  std::printf("bytes written per transaction: tracker %.2f, heaptrack %.2f\n", tracked.bytes / tx,
              heaptracked.bytes / tx);
  return 0;
}
