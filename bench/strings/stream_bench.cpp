// Formatted output through aio_ostream against fprintf and std::ostream: the
// same values, the same sequence of calls, into /dev/null through a 64 KiB
// buffer, best of several rounds, in one process.
// Usage: bench_streams [operations] [out-prefix]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iomanip>
#include <ostream>
#include <string>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "bench_report.h"

namespace {

// The library comes up before anything of the program allocates.
ZMXUTI_EARLY_START_UP;

constexpr int kRounds = 7;
constexpr std::size_t kBuffer = 1 << 16;

FILE* OpenSink() {
  FILE* f = std::fopen("/dev/null", "wb");
  if (!f) {
    std::perror("/dev/null");
    std::exit(1);
  }
  std::setvbuf(f, nullptr, _IOFBF, kBuffer);
  return f;
}

struct Values {
  std::vector<int> ints;
  std::vector<unsigned> words;
  std::vector<double> doubles;
  explicit Values(long n) {
    unsigned long long s = 88172645463325252ULL;
    for (long i = 0; i < n; ++i) {
      s ^= s << 13;
      s ^= s >> 7;
      s ^= s << 17;
      ints.push_back(static_cast<int>(s) >> (s % 24));
      words.push_back(static_cast<unsigned>(s >> 32));
      doubles.push_back(static_cast<double>(static_cast<long long>(s % 2000000)) / 1024.0 - 900.0);
    }
  }
};

using Body = std::function<void(long)>;
struct Contender {
  const char* name;
  Body body;
};

// Operations per second of each contender over n values. Rounds alternate
// between the contenders so that a busy machine slows them alike; each keeps
// its best round.
void Measure(zmx_bench::Report& report, const char* workload, long n, const std::vector<Contender>& contenders) {
  std::vector<double> best(contenders.size(), 0.0);
  for (int r = 0; r < kRounds; ++r) {
    for (std::size_t c = 0; c < contenders.size(); ++c) {
      const auto start = std::chrono::steady_clock::now();
      contenders[c].body(n);
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      if (n / seconds > best[c]) best[c] = n / seconds;
    }
  }
  for (std::size_t c = 0; c < contenders.size(); ++c) report.Add(workload, contenders[c].name, best[c] / 1e6, "Mops/s");
}

void RunAll(zmx_bench::Report& report, const Values& v, long n) {
  FILE* cf = OpenSink();
  FILE* af = OpenSink();
  aio_ostream out;
  out.attach(af, true);
  std::vector<char> streamBuffer(kBuffer);
  std::ofstream os;
  os.rdbuf()->pubsetbuf(streamBuffer.data(), static_cast<std::streamsize>(streamBuffer.size()));
  os.open("/dev/null", std::ios::binary);

  Measure(report, "int + space", n,
          {{"fprintf",
            [&](long m) {
              for (long i = 0; i < m; ++i) {
                std::fprintf(cf, "%d", v.ints[i]);
                std::fputc(' ', cf);
              }
            }},
           {"aio_ostream", [&](long m) { for (long i = 0; i < m; ++i) out.print_int(v.ints[i]).put(' '); }},
           {"std::ostream", [&](long m) { for (long i = 0; i < m; ++i) os << v.ints[i] << ' '; }}});

  Measure(report, "double %.6g + newline", n,
          {{"fprintf",
            [&](long m) {
              for (long i = 0; i < m; ++i) {
                std::fprintf(cf, "%.*g", 6, v.doubles[i]);
                std::fputc('\n', cf);
              }
            }},
           {"aio_ostream", [&](long m) { for (long i = 0; i < m; ++i) out.print_double(v.doubles[i]).put('\n'); }},
           {"std::ostream", [&](long m) { for (long i = 0; i < m; ++i) os << v.doubles[i] << '\n'; }}});

  Measure(report, "hex width 8", n,
          {{"fprintf", [&](long m) { for (long i = 0; i < m; ++i) std::fprintf(cf, "%*x", 8, v.words[i]); }},
           {"aio_ostream",
            [&](long m) {
              out.setf(aio_ios::hex, 0x70);
              for (long i = 0; i < m; ++i) aio_setwidth(out, 8).print_u_int(v.words[i]);
              out.setf(0, 0x70);
            }},
           {"std::ostream",
            [&](long m) {
              os << std::hex;
              for (long i = 0; i < m; ++i) os << std::setw(8) << v.words[i];
              os << std::dec;
            }}});

  // A record line built field by field; "fprintf, one call" formats it in one go.
  Measure(report, "record line", n,
          {{"fprintf",
            [&](long m) {
              for (long i = 0; i < m; ++i) {
                std::fputs("item ", cf);
                std::fprintf(cf, "%d", v.ints[i]);
                std::fputs(" value ", cf);
                std::fprintf(cf, "%.*g", 6, v.doubles[i]);
                std::fputc('\n', cf);
              }
            }},
           {"aio_ostream",
            [&](long m) {
              for (long i = 0; i < m; ++i) {
                out << "item ";
                out.print_int(v.ints[i]) << " value ";
                out.print_double(v.doubles[i]).put('\n');
              }
            }},
           {"std::ostream",
            [&](long m) { for (long i = 0; i < m; ++i) os << "item " << v.ints[i] << " value " << v.doubles[i] << '\n'; }},
           {"fprintf, one call",
            [&](long m) {
              for (long i = 0; i < m; ++i) std::fprintf(cf, "item %d value %.*g\n", v.ints[i], 6, v.doubles[i]);
            }}});

  std::fclose(cf);
  if (!out.good()) std::fprintf(stderr, "aio_ostream failed: state %u\n", out.rdstate());
}

}  // namespace

int main(int argc, char** argv) {
  const long n = argc > 1 ? std::atol(argv[1]) : 2000000;
  const std::string prefix = argc > 2 ? argv[2] : "streams";
  const Values values(n);
  zmx_bench::Report report("Formatted output: aio_ostream, fprintf, std::ostream", true);
  RunAll(report, values, n);
  report.PrintTable("fprintf");
  report.WriteMarkdown(prefix + ".md", "fprintf");
  report.WriteSvg(prefix + ".svg", "fprintf");
  std::printf("\nwrote %s.md and %s.svg\n", prefix.c_str(), prefix.c_str());
  return 0;
}
