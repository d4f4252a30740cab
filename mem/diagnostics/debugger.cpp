// The debugger singleton: one process-wide instance that announces its
// creation and destruction on standard output.
#include <cstdio>
#include <cstdlib>
#include <new>

#include "mem/diagnostics/diagnostics.h"
#include "streams/standard_streams.h"

namespace {

mem_Debugger* g_instance = nullptr;

// Output written so far reaches its files before the debugger's own lines.
void FlushAllOutput() {
  aio_cout.flush();
  aio_cerr.flush();
  std::fflush(nullptr);
}

}  // namespace

mem_Debugger::mem_Debugger() { std::fputs("Created mem_Debugger\n", stdout); }

mem_Debugger::~mem_Debugger() { std::fputs("Destroyed mem_Debugger\n", stdout); }

mem_Debugger& mem_Debugger::Instance() {
  if (g_instance == nullptr) {
    g_instance = new (std::nothrow) mem_Debugger();
    if (g_instance == nullptr) {
      std::fputs("ERROR: mem_Debugger: no memory for the debugger object\n", stderr);
      std::abort();
    }
  }
  return *g_instance;
}

void mem_Debugger::Initialize() {
  std::fputs("Initializing\n", stdout);
  FlushAllOutput();
  Instance();
}

void mem_Debugger::Finalize() {
  std::fputs("Finalizing\n", stdout);
  FlushAllOutput();
  delete g_instance;
  g_instance = nullptr;
}
