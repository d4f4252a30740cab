// zmx_memreport: the command-line report on a memory-tracking run's output
// files. Exit status 0 on success, 2 on bad usage or bad input.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "memreport.h"

namespace {

const char kUsage[] = "usage: zmx_memreport [--json] [--svg FILE] [--top N] <name>\n"
                      "  reads <name>.memT0, <name>.memT1, ... and <name>.phaseStack\n";

[[noreturn]] void Fail(const std::string& message, bool usage = false) {
  std::cerr << "zmx_memreport: error: " << message << "\n";
  if (usage) std::cerr << kUsage;
  std::exit(2);
}

struct Arguments {
  bool json = false;
  std::string svg;
  std::size_t top = 10;
  std::string name;
};

std::size_t ParseCount(const char* text) {
  char* end = nullptr;
  unsigned long long value = std::strtoull(text, &end, 10);
  if (*text < '0' || *text > '9' || *end != '\0' || value > 1000000000ULL)
    Fail(std::string("--top needs a number, not '") + text + "'", true);
  return static_cast<std::size_t>(value);
}

Arguments Parse(int argc, char** argv) {
  Arguments args;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    bool hasValue = i + 1 < argc;
    if (arg == "--json") {
      args.json = true;
    } else if (arg == "--svg" || arg == "--top") {
      if (!hasValue) Fail(arg + " needs a value", true);
      if (arg == "--svg")
        args.svg = argv[++i];
      else
        args.top = ParseCount(argv[++i]);
    } else if (arg == "--help" || arg == "-h") {
      std::cout << kUsage;
      std::exit(0);
    } else if (arg.size() > 1 && arg[0] == '-') {
      Fail("unknown option " + arg, true);
    } else if (!args.name.empty()) {
      Fail("more than one output name given", true);
    } else {
      args.name = arg;
    }
  }
  if (args.name.empty()) Fail("no output name given", true);
  return args;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments args = Parse(argc, argv);
  memreport::Report report;
  try {
    report = memreport::AnalyzeRun(args.name);
  } catch (const memreport::InputError& e) {
    Fail(e.what());
  } catch (const std::bad_alloc&) {
    Fail("out of memory while reading " + args.name);
  }
  for (const std::string& warning : report.warnings) std::cerr << "zmx_memreport: warning: " << warning << "\n";
  if (!args.svg.empty()) {
    std::ofstream svg(args.svg);
    if (svg) memreport::WriteSvg(report, svg);
    if (!svg || !svg.flush()) Fail("cannot write " + args.svg);
  }
  if (args.json)
    memreport::WriteJson(report, std::cout, args.top);
  else
    memreport::WriteText(report, std::cout, args.top);
  return std::cout.flush() ? 0 : 2;
}
