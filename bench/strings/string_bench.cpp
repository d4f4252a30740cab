// Copy-on-write strings against std::string on the same workloads in one run:
// copying, passing by value, copy-then-edit and building by appends, for a
// short (10-byte) and a long (1000-byte) text. Both contenders allocate through
// the library's operator new, so the comparison is of the string designs.
// Usage: bench_strings [scale] [out-prefix]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "bench_report.h"
#include "tests/strings/test_string.h"

namespace {

// The library comes up before anything of the program allocates.
ZMXUTI_EARLY_START_UP;

// Keeps a value alive in the eyes of the optimiser.
template <class T>
inline void Keep(const T& value) {
  asm volatile("" : : "r"(&value) : "memory");
}

__attribute__((noinline)) int TakeByValue(TestString s) { return s.Length(); }
__attribute__((noinline)) int TakeByValue(std::string s) { return static_cast<int>(s.size()); }

// Nanoseconds per operation: best of three timed rounds of `ops` operations.
template <class Body>
double NanosPerOp(long ops, Body body) {
  double best = 1e300;
  for (int round = 0; round < 3; ++round) {
    const auto start = std::chrono::steady_clock::now();
    body(ops);
    const double ns = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
    best = std::min(best, ns / static_cast<double>(ops));
  }
  return best;
}

struct Texts {
  std::string text;
  TestString handle;
  explicit Texts(std::size_t n) : text(n, 'a'), handle(text.c_str()) {}
};

void RunSize(zmx_bench::Report& report, const char* label, std::size_t n, long ops) {
  const Texts t(n);
  const std::string name = std::string(" ") + label;
  const char* const kSuffix = "-suffix";

  report.Add("copy" + name, "atr_StringBase", NanosPerOp(ops, [&](long k) {
               for (long i = 0; i < k; ++i) {
                 TestString copy(t.handle);
                 Keep(copy);
               }
             }), "ns/op");
  report.Add("copy" + name, "std::string", NanosPerOp(ops, [&](long k) {
               for (long i = 0; i < k; ++i) {
                 std::string copy(t.text);
                 Keep(copy);
               }
             }), "ns/op");

  report.Add("pass by value" + name, "atr_StringBase", NanosPerOp(ops, [&](long k) {
               int sum = 0;
               for (long i = 0; i < k; ++i) sum += TakeByValue(t.handle);
               Keep(sum);
             }), "ns/op");
  report.Add("pass by value" + name, "std::string", NanosPerOp(ops, [&](long k) {
               int sum = 0;
               for (long i = 0; i < k; ++i) sum += TakeByValue(t.text);
               Keep(sum);
             }), "ns/op");

  // Copy, then edit the copy: the copy-on-write string pays its copy here.
  report.Add("copy + append" + name, "atr_StringBase", NanosPerOp(ops, [&](long k) {
               for (long i = 0; i < k; ++i) {
                 TestString copy(t.handle);
                 copy.append(kSuffix, 7, 0, 7);
                 Keep(copy);
               }
             }), "ns/op");
  report.Add("copy + append" + name, "std::string", NanosPerOp(ops, [&](long k) {
               for (long i = 0; i < k; ++i) {
                 std::string copy(t.text);
                 copy.append(kSuffix, 7);
                 Keep(copy);
               }
             }), "ns/op");

  report.Add("copy + upper case" + name, "atr_StringBase", NanosPerOp(ops, [&](long k) {
               for (long i = 0; i < k; ++i) {
                 TestString copy(t.handle);
                 copy.ToUpper();
                 Keep(copy);
               }
             }), "ns/op");
  report.Add("copy + upper case" + name, "std::string", NanosPerOp(ops, [&](long k) {
               for (long i = 0; i < k; ++i) {
                 std::string copy(t.text);
                 for (char& c : copy) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
                 Keep(copy);
               }
             }), "ns/op");
}

// Building a text one byte at a time: no geometric growth in the string
// representation, so long texts reallocate on every append (by design).
void RunBuild(zmx_bench::Report& report, const char* label, int bytes, long ops) {
  const std::string name = std::string("append 1 byte x") + std::to_string(bytes) + " " + label;
  report.Add(name, "atr_StringBase", NanosPerOp(ops, [&](long k) {
               for (long i = 0; i < k; ++i) {
                 TestString s;
                 for (int b = 0; b < bytes; ++b) s.append("x", 1, 0, 1);
                 Keep(s);
               }
             }), "ns/op");
  report.Add(name, "std::string", NanosPerOp(ops, [&](long k) {
               for (long i = 0; i < k; ++i) {
                 std::string s;
                 for (int b = 0; b < bytes; ++b) s.append("x", 1);
                 Keep(s);
               }
             }), "ns/op");
}

}  // namespace

int main(int argc, char** argv) {
  const double scale = argc > 1 ? std::atof(argv[1]) : 1.0;
  const std::string prefix = argc > 2 ? argv[2] : "strings";
  const long ops = static_cast<long>(2000000 * scale);
  zmx_bench::Report report("Strings: atr_StringBase against std::string (ns per operation)", false);
  RunSize(report, "(10 B)", 10, ops);
  RunSize(report, "(1000 B)", 1000, ops / 4);
  RunBuild(report, "(short)", 100, ops / 50);
  RunBuild(report, "(long)", 2000, ops / 1000);
  report.PrintTable("std::string");
  report.WriteMarkdown(prefix + ".md", "std::string");
  report.WriteSvg(prefix + ".svg", "std::string");
  std::printf("\nwrote %s.md and %s.svg; copy of a long string: %.1fx faster than std::string (target 5x)\n",
              prefix.c_str(), prefix.c_str(), report.Ratio("copy (1000 B)", "atr_StringBase", "std::string"));
  return 0;
}
