// The dispatch shared by the probe programs: a probe is started with a
// scenario name as its first argument (any further arguments belong to the
// scenario), runs that scenario and exits 0; an unknown name exits 2.
#ifndef ZMXUTI_TESTS_PROBES_PROBE_MAIN_H
#define ZMXUTI_TESTS_PROBES_PROBE_MAIN_H

#include <cstdio>
#include <cstring>

namespace zmx_probe {

struct Scenario {
  const char* name;
  void (*run)();
};

struct Arguments {
  int count = 0;
  char** values = nullptr;
};

// The probe's command line, for scenarios that take arguments.
inline Arguments& CommandLine() {
  static Arguments arguments;
  return arguments;
}
inline int ArgCount() { return CommandLine().count; }
inline const char* Arg(int i) { return i < CommandLine().count ? CommandLine().values[i] : ""; }

// Brings the library (or one part of it) up from the outermost depth.
inline void BringUp(void (*initialize)(int& depth)) {
  int depth = 0;
  initialize(depth);
}

template <int N>
int Dispatch(int argc, char** argv, const Scenario (&scenarios)[N]) {
  CommandLine() = Arguments{argc, argv};
  if (argc < 2) return 2;
  for (const Scenario& s : scenarios) {
    if (std::strcmp(argv[1], s.name) == 0) {
      s.run();
      return 0;
    }
  }
  std::fprintf(stderr, "unknown scenario %s\n", argv[1]);
  return 2;
}

}  // namespace zmx_probe

#endif  // ZMXUTI_TESTS_PROBES_PROBE_MAIN_H
