// A program that knows nothing of the library, run plain and under zmx_run by
// the preload tests: one scenario per argument.
//   lifecycle PLUGIN  the allocation functions' contracts, threads, fork, exec of
//                     itself, dlopen/dlclose of PLUGIN, blocks freed at exit
//   leaks             three blocks left live, each in a phase of its own when the
//                     tracker's phase entry points are there, many more freed
//   limit             allocates 1 MiB blocks until refused: exit 7 when refused
//                     with ENOMEM, 1 when never refused within 1 GiB
// What the scenario found goes to standard output; standard error says only
// whether the library's front door serves malloc ("routed=1").
#include <dlfcn.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

int g_failures = 0;

void Check(bool ok, const char* what) {
  if (!ok) {
    std::printf("FAILED: %s\n", what);
    ++g_failures;
  }
}

bool AlignedTo(const void* p, std::size_t alignment) {
  return reinterpret_cast<std::uintptr_t>(p) % alignment == 0;
}

void ReportRouting() {
  using Owns = int (*)(const void*);
  auto owns = reinterpret_cast<Owns>(dlsym(RTLD_DEFAULT, "mem_OwnsBlock"));
  void* block = std::malloc(100);
  std::fprintf(stderr, "routed=%d\n", owns != nullptr ? owns(block) : 0);
  std::free(block);
}

void CheckContracts() {
  void* p = nullptr;
  Check(posix_memalign(&p, 24, 10) == EINVAL, "posix_memalign rejects an alignment that is no power of two");
  Check(posix_memalign(&p, 4, 10) == EINVAL, "posix_memalign rejects an alignment below a pointer's");
  Check(posix_memalign(&p, 256, 1000) == 0 && AlignedTo(p, 256), "posix_memalign(256)");
  std::free(p);
  void* blocks[] = {aligned_alloc(4096, 4096), memalign(48, 10), valloc(10), pvalloc(1)};
  Check(AlignedTo(blocks[0], 4096) && AlignedTo(blocks[1], 64), "aligned_alloc and memalign align");
  Check(AlignedTo(blocks[2], 4096) && AlignedTo(blocks[3], 4096), "valloc and pvalloc align to the page");
  Check(malloc_usable_size(blocks[3]) >= 4096, "pvalloc rounds up to a page");
  for (void* b : blocks) std::free(b);
  volatile std::size_t huge = SIZE_MAX / 2;  // hidden from the compiler's size check
  errno = 0;
  Check(std::calloc(huge, 3) == nullptr && errno == ENOMEM, "calloc overflow: null and ENOMEM");
  errno = 0;
  Check(reallocarray(nullptr, huge, 3) == nullptr && errno == ENOMEM, "reallocarray overflow");
  Check(malloc_usable_size(nullptr) == 0, "malloc_usable_size(null) is 0");
  void* zero1 = std::malloc(0);
  void* zero2 = std::malloc(0);
  Check(zero1 != nullptr && zero2 != nullptr && zero1 != zero2, "malloc(0) gives distinct blocks");
  std::free(zero1);
  std::free(zero2);
  Check(std::realloc(std::malloc(10), 0) == nullptr, "realloc(p, 0) frees and returns null");
}

void CheckBlocks() {
  std::vector<unsigned char*> kept;
  for (std::size_t n = 1; n < 3000; n += 7) {
    auto* b = static_cast<unsigned char*>(n % 3 == 0 ? std::calloc(1, n) : std::malloc(n));
    if (n % 3 == 0) Check(b[0] == 0 && b[n - 1] == 0, "calloc zero-fills");
    Check(n < 16 || AlignedTo(b, 16), "malloc aligns to 16 bytes");
    Check(malloc_usable_size(b) >= n, "malloc_usable_size covers the request");
    std::memset(b, static_cast<int>(n & 0xff), n);
    kept.push_back(b);
  }
  for (std::size_t i = 0; i < kept.size(); ++i) {
    const std::size_t n = 1 + 7 * i;
    auto* grown = static_cast<unsigned char*>(std::realloc(kept[i], n * 2 + 5));
    Check(grown[0] == (n & 0xff) && grown[n - 1] == (n & 0xff), "realloc keeps the contents");
    std::free(grown);
  }
}

// Blocks made on one thread and freed on another, strings and vectors alike.
void RunThreads() {
  std::vector<std::vector<std::string>> made(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t, &made] {
      for (int i = 0; i < 20000; ++i) {
        made[t].push_back(std::string(static_cast<std::size_t>(i % 200), 'a'));
        if (made[t].size() > 500) made[t].erase(made[t].begin(), made[t].begin() + 250);
      }
    });
  for (auto& th : threads) th.join();
  std::size_t total = 0;
  for (auto& strings : made) total += strings.size();
  std::printf("threads: %zu strings kept\n", total);
  made.clear();
}

void ForkChild() {
  const pid_t pid = fork();
  if (pid == 0) {
    std::vector<std::string> words;
    for (int i = 0; i < 10000; ++i) words.push_back(std::to_string(i));
    void* block = std::malloc(12345);
    std::free(block);
    std::exit(words.size() == 10000 ? 0 : 3);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  std::printf("fork: child %s\n", WIFEXITED(status) && WEXITSTATUS(status) == 0 ? "exited 0" : "failed");
}

void UsePlugin(const char* path) {
  for (int round = 0; round < 2; ++round) {
    void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      std::printf("dlopen failed: %s\n", dlerror());
      ++g_failures;
      return;
    }
    using Work = long (*)(int);
    auto work = reinterpret_cast<Work>(dlsym(handle, "plugin_work"));
    std::printf("plugin: %ld\n", work != nullptr ? work(3000) : -1L);
    dlclose(handle);
  }
}

// Freed by the exit handler, after main has returned.
std::vector<std::string>* g_atExit = nullptr;

int Lifecycle(int argc, char** argv) {
  ReportRouting();
  g_atExit = new std::vector<std::string>(1000, std::string(100, 'z'));
  std::atexit([] { delete g_atExit; });
  if (argc > 3 && std::strcmp(argv[3], "exec'd") == 0) {
    std::printf("after exec: %zu\n", g_atExit->size());
    return 0;
  }
  CheckContracts();
  CheckBlocks();
  RunThreads();
  ForkChild();
  UsePlugin(argv[2]);
  std::printf("failures: %d\n", g_failures);
  std::fflush(stdout);
  char* const again[] = {argv[0], argv[1], argv[2], const_cast<char*>("exec'd"), nullptr};
  execv("/proc/self/exe", again);
  std::printf("exec failed\n");
  return 1;
}

void EnterPhase(const char* name) {
  using Enter = void (*)(int*, const char*, int);
  if (auto enter = reinterpret_cast<Enter>(dlsym(RTLD_DEFAULT, "MEM_TRACKER_ENTERPHASE"))) {
    int print = 0;
    enter(&print, name, static_cast<int>(std::strlen(name)));
  }
}

void ExitPhase() {
  using Exit = void (*)(int*);
  if (auto leave = reinterpret_cast<Exit>(dlsym(RTLD_DEFAULT, "MEM_TRACKER_EXITPHASE"))) {
    int print = 0;
    leave(&print);
  }
}

void* volatile g_leaks[3];

int Leaks() {
  // More records than one batch of the tracker holds, so that batches are
  // written from inside operator new/delete and malloc/free calls.
  std::vector<void*> freed(5000);
  for (int round = 0; round < 14; ++round) {
    for (int i = 0; i < 5000; ++i)
      freed[static_cast<std::size_t>(i)] = i % 2 ? std::malloc(static_cast<std::size_t>(i % 500)) : new char[i % 500 + 1];
    for (int i = 0; i < 5000; ++i) {
      if (i % 2) std::free(freed[static_cast<std::size_t>(i)]);
      else delete[] static_cast<char*>(freed[static_cast<std::size_t>(i)]);
    }
  }
  std::vector<void*>().swap(freed);
  EnterPhase("leakMalloc");
  g_leaks[0] = std::malloc(1111);
  ExitPhase();
  EnterPhase("leakCalloc");
  g_leaks[1] = std::calloc(2, 1111);
  ExitPhase();
  EnterPhase("leakRealloc");
  g_leaks[2] = std::realloc(std::malloc(10), 4444);
  ExitPhase();
  return 0;
}

int Limit() {
  std::vector<void*> blocks;
  for (int i = 0; i < 1024; ++i) {
    errno = 0;
    void* block = std::malloc(std::size_t{1} << 20);
    if (block == nullptr) {
      const bool noMemory = errno == ENOMEM;
      for (void* b : blocks) std::free(b);
      std::printf("refused after %d MiB%s\n", i, noMemory ? " with ENOMEM" : "");
      return noMemory ? 7 : 1;
    }
    blocks.push_back(block);
  }
  for (void* b : blocks) std::free(b);
  std::printf("never refused\n");
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string scenario = argc > 1 ? argv[1] : "";
  if (scenario == "lifecycle" && argc > 2) return Lifecycle(argc, argv);
  if (scenario == "leaks") return Leaks();
  if (scenario == "limit") return Limit();
  std::fprintf(stderr, "usage: preload_helper lifecycle PLUGIN | leaks | limit\n");
  return 2;
}
