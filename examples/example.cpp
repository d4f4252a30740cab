// A tour of the library for a new client: bring it up, allocate through each
// entry point of the front door, report what the heap did, take it down.
#include <cstdio>
#include <cstring>
#include <new>

#include "ZMXUTI_CoreUtils.h"

namespace {

// A small class using the small-object operators, and a large one using the general ones.
struct Point : mem_AllocationOperatorsTiny {
  double x, y, z;
};
struct Matrix : mem_AllocationOperators {
  double cells[16][16];
};

void Say(const char* what, const void* block) {
  std::printf("  %-46s %s\n", what, block != nullptr ? "ok" : "FAILED");
}

}  // namespace

int main() {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
  std::printf("ZMXUTI_CoreUtils is up (depth %d), serving from the %s.\n", depth,
              mem_UseDL() ? "general heap" : "runtime heap");

  std::printf("Allocating through each entry point:\n");
  int* numbers = new int[1000];
  Say("new int[1000]", numbers);
  auto* text = static_cast<char*>(mem_Malloc(64));
  Say("mem_Malloc(64)", text);
  std::strcpy(text, "grown with mem_Realloc");
  text = static_cast<char*>(mem_Realloc(text, 4096));
  Say("mem_Realloc(.., 4096) keeps the text", std::strcmp(text, "grown with mem_Realloc") == 0 ? text : nullptr);
  auto* zeros = static_cast<long*>(mem_Calloc(128, sizeof(long)));
  Say("mem_Calloc(128, 8) is zeroed", zeros != nullptr && zeros[127] == 0 ? zeros : nullptr);
  void* direct = mem_cMalloc(200);
  Say("mem_cMalloc(200)", direct);
  auto* point = new Point();
  Say("new Point (mem_AllocationOperatorsTiny)", point);
  auto* matrix = new Matrix();
  Say("new Matrix (mem_AllocationOperators)", matrix);
  void* builtin = new (mem_BuiltIn) char[0];
  Say("new (mem_BuiltIn) char[0]", builtin);
  void* nothrow = ::operator new(1 << 20, std::nothrow);
  Say("operator new(1 MiB, nothrow)", nothrow);
  std::printf("  operator new(2^62) without a new handler gives %s\n",
              ::operator new(std::size_t{1} << 62, std::nothrow) == nullptr ? "null (no exception)" : "a block?!");
  try {
    mem_OperatorNewThrow(std::size_t{1} << 62);
  } catch (const std::bad_alloc& e) {
    std::printf("  mem_OperatorNewThrow(2^62) throws std::bad_alloc: \"%s\"\n", e.what());
  }

  const mem_DLMallinfoRec info = mem_DLMallinfo();
  std::printf("Heap: footprint %zu bytes (max %zu), in use %llu, free %llu, largest free chunk %zu\n",
              mem_Footprint(), mem_MaxFootprint(), static_cast<unsigned long long>(info.uordblks),
              static_cast<unsigned long long>(info.fordblks), mem_FragmentationInfo());

  ::operator delete(nothrow);
  delete[] static_cast<char*>(builtin);
  delete matrix;
  delete point;
  mem_cFree(direct);
  mem_Free(zeros);
  mem_Free(text);
  delete[] numbers;

  UTI_CoreUtils_finalize(depth);
  std::printf("Down again (depth %d).\n", depth);
  return 0;
}
