// A client of the installed library: brings it up, allocates, takes it down.
#include <cstdio>

#include "ZMXUTI_CoreUtils.h"

int main() {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
  const int up = depth;
  int* block = new int[16];
  block[15] = 15;
  void* raw = mem_Malloc(100);
  const bool ok = block[15] == 15 && raw != nullptr;
  mem_Free(raw);
  delete[] block;
  UTI_CoreUtils_finalize(depth);
  std::printf("consumer: depth %d, block %s, depth %d\n", up, ok ? "ok" : "bad", depth);
  return ok ? 0 : 1;
}
