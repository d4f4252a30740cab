// Fresh-process scenarios for the standard streams: what they do before the
// streams component is up, how start-up attaches them, and that neither
// shut-down nor their destruction detaches or closes the runtime's files.
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "ZMXUTI_CoreUtils.h"
#include "probes/probe_main.h"

namespace {

void Early() {
  // Before start-up: unattached, output only fails.
  aio_cout.print("lost");
  aio_cerr.print_int(1);
  const int inChar = aio_cin.get();
  std::printf("early %u %u %u %d\n", aio_cout.rdstate(), aio_cerr.rdstate(), aio_cin.rdstate(), inChar);
  std::fflush(stdout);
  int depth = 0;
  aio_initialize(depth);
  std::printf("depth %d attached %d %d %d\n", depth, aio_cin.fptr() == stdin, aio_cout.fptr() == stdout,
              aio_cerr.fptr() == stderr);
  std::fflush(stdout);
  // The early failure is sticky, but output now reaches the files.
  aio_cout.print("out ").print_int(aio_cout.rdstate()).put('\n').flush();
  aio_cerr.print("err\n").flush();
  aio_initialize(depth);
  aio_finalize(depth);
  aio_finalize(depth);
  std::printf("down %d\n", depth);
  std::fflush(stdout);
  aio_cout.print("after finalize\n").flush();
}

// Standard input comes from the file named by the extra argument.
const char* g_inputPath = nullptr;

void FromLibrary() {
  const int fd = open(g_inputPath, O_RDONLY);
  if (fd < 0 || dup2(fd, 0) < 0) return;
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
  char line[32];
  aio_cin.getline(line, sizeof line);
  const int n = aio_cin.scan_int();
  aio_cout.print(line).put(' ').print_int(n * 2).put('\n');
  aio_cout.flush();
  UTI_CoreUtils_finalize(depth);
}

// Runs after the library's static destructors: stdout must still be open.
bool g_checkAtExit = false;
__attribute__((destructor)) void AfterStaticDestruction() {
  if (g_checkAtExit) {
    const int r = std::fputs("stdout still open\n", stdout);
    std::fflush(stdout);
    if (r < 0) (void)!write(2, "stdout closed\n", 14);
  }
}

void Destruction() {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
  aio_cout.print("before exit\n").flush();
  g_checkAtExit = true;
}

const zmx_probe::Scenario kScenarios[] = {
    {"early", Early},
    {"from_library", FromLibrary},
    {"destruction", Destruction},
};

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2) g_inputPath = argv[2];
  return zmx_probe::Dispatch(argc, argv, kScenarios);
}
