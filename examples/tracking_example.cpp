// Allocation tracking end to end: a small "solver" that allocates in named
// phases on two threads and leaves some blocks behind. Run it with ZEM_MEM_TRACK
// set (and ZEM_MEM_OUTPUTDIR naming a directory) and read its files with
// zmx_memreport; without ZEM_MEM_TRACK it runs untracked and writes nothing.
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "ZMXUTI_CoreUtils.h"

namespace {

using Tracker = mem_Tracker_Interface;

// Builds a mesh of `cells` blocks; a tenth of them are never released (the leak to find).
void BuildMesh(std::vector<void*>& keep, int cells) {
  Tracker::EnterPhase("mesh", 0);
  for (int i = 0; i < cells; ++i) {
    void* cell = mem_Malloc(64 + 32 * (i % 8));
    std::memset(cell, 0, 64);
    if (i % 10 == 0) continue;  // forgotten
    keep.push_back(cell);
  }
  Tracker::ExitPhase(0);
}

void Assemble(int rows) {
  Tracker::EnterPhase("assemble", 0);
  std::vector<double*> matrix;
  for (int r = 0; r < rows; ++r) matrix.push_back(new double[256]);
  for (double* row : matrix) delete[] row;
  Tracker::ExitPhase(0);
}

void Solve(int steps) {
  Tracker::EnterPhase("solve", 0);
  void* work = mem_Malloc(1024);
  for (int s = 1; s <= steps; ++s) {
    work = mem_Realloc(work, 1024 + 512 * s);  // a growing work area
    Assemble(200);
  }
  mem_Free(work);
  Tracker::ExitPhase(0);
}

}  // namespace

int main() {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
  Tracker::SetOutputName("solver");  // files solver.memT0 ... and solver.phaseStack

  std::vector<void*> mesh;
  BuildMesh(mesh, 20000);
  std::thread output([] {  // a second thread: its records carry thread index 1
    Tracker::EnterPhase("output", 0);
    std::vector<void*> lines;
    for (int i = 0; i < 5000; ++i) lines.push_back(mem_Malloc(120));
    for (std::size_t i = 0; i < lines.size(); i += 2) mem_Free(lines[i]);  // half of them stay
    Tracker::ExitPhase(0);
  });
  Solve(30);
  output.join();
  for (void* cell : mesh) mem_Free(cell);

  std::printf("%d transactions%s\n", Tracker::CurrTransactionId(),
              Tracker::IsTrackingActive() ? ", tracked" : " (set ZEM_MEM_TRACK to track them)");
  MEM_TRACKER_SHUTDOWN();  // writes the last batch and the phase file
  UTI_CoreUtils_finalize(depth);
  return 0;
}
