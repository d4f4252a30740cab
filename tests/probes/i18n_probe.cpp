// Fresh-process scenarios for the internationalisation services: switches read
// from the environment at start-up, locale set-up and the dictionary's warnings.
// Prints one line per observation.
#include <cstdio>
#include <cstring>

#include "ZMXUTI_CoreUtils.h"

namespace {

void LibraryUp() {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
}

void NaturalOrder() {
  std::printf("before %d\n", atr_getNaturalOrder());
  int depth = 0;
  atr_initialize(depth);
  std::printf("after %d\n", atr_getNaturalOrder());
  atr_setNaturalOrder(5);
  atr_initialize(depth);  // only counted: the switch keeps the stored value
  std::printf("counted %d\n", atr_getNaturalOrder());
  atr_finalize(depth);
  atr_finalize(depth);
  atr_initialize(depth);  // acts again
  std::printf("again %d\n", atr_getNaturalOrder());
}

struct Scenario {
  const char* name;
  void (*run)();
};

const Scenario kScenarios[] = {
    {"natural_order", NaturalOrder},
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  for (const Scenario& s : kScenarios) {
    if (std::strcmp(argv[1], s.name) == 0) {
      if (std::strcmp(s.name, "natural_order") != 0) LibraryUp();
      s.run();
      return 0;
    }
  }
  std::fprintf(stderr, "unknown scenario %s\n", argv[1]);
  return 2;
}
