// Throughput of UTF-8 validation and UTF-8 -> ISO 8859-1 conversion against
// glibc iconv on ASCII-heavy and multi-byte texts, dictionary load time for
// 10^5 entries, and a three-argument translation against snprintf.
#include <iconv.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "bench_report.h"

namespace {

struct LibraryUp {
  LibraryUp() {
    int depth = 0;
    UTI_CoreUtils_initialize(depth);
  }
};
LibraryUp g_up __attribute__((init_priority(101)));

double Seconds(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Repeats a sentence to about `bytes` bytes.
std::string Text(const char* sentence, std::size_t bytes) {
  std::string s;
  while (s.size() < bytes) s += sentence;
  return s;
}

volatile long g_sink = 0;

template <class F>
double MegabytesPerSecond(std::size_t bytes, int repeats, F f) {
  f();  // warm up
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < repeats; ++i) f();
  return static_cast<double>(bytes) * repeats / Seconds(start) / 1e6;
}

// iconv over the whole text; returns the bytes produced (or -1).
long Iconv(iconv_t cd, const std::string& in, std::vector<char>& out) {
  iconv(cd, nullptr, nullptr, nullptr, nullptr);
  char* src = const_cast<char*>(in.data());
  std::size_t srcLeft = in.size();
  char* dst = out.data();
  std::size_t dstLeft = out.size();
  if (iconv(cd, &src, &srcLeft, &dst, &dstLeft) == static_cast<std::size_t>(-1)) return -1;
  return static_cast<long>(out.size() - dstLeft);
}

void Encodings(zmx_bench::Report& report) {
  const std::size_t size = 16 << 20;
  const std::string ascii = Text("The quick brown fox jumps over the lazy dog; results written to file 42.\n", size);
  const std::string french =
      Text("\xC3\x80 la f\xC3\xAAte, l'\xC3\xA9l\xC3\xA8ve na\xC3\xAF" "f d\xC3\xA9" "cida: \xC3\xA7" "a ira.\n", size);
  struct Workload {
    const char* name;
    const std::string* text;
  } workloads[] = {{"ASCII", &ascii}, {"French (multi-byte)", &french}};
  std::vector<char> out(size * 4 + 16);
  iconv_t toUcs4 = iconv_open("UTF-32LE", "UTF-8");
  iconv_t toLatin1 = iconv_open("ISO-8859-1", "UTF-8");
  for (const Workload& w : workloads) {
    const std::string& t = *w.text;
    const std::string v = std::string("validate ") + w.name;
    report.Add(v, "atr_encoding_validate", MegabytesPerSecond(t.size(), 20, [&] {
      g_sink += atr_encoding_validate(atr_EncodingUtf8, t.c_str()) ? 1 : 0;
    }), "MB/s");
    report.Add(v, "iconv (glibc)", MegabytesPerSecond(t.size(), 5, [&] { g_sink += Iconv(toUcs4, t, out); }),
               "MB/s");
    const std::string c = std::string("to Latin-1 ") + w.name;
    report.Add(c, "atr_utf8_to_encoding", MegabytesPerSecond(t.size(), 10, [&] {
      g_sink += atr_utf8_to_encoding(atr_EncodingLatin1, out.data(), t.c_str(), '?');
    }), "MB/s");
    report.Add(c, "iconv (glibc)", MegabytesPerSecond(t.size(), 5, [&] { g_sink += Iconv(toLatin1, t, out); }),
               "MB/s");
  }
  iconv_close(toUcs4);
  iconv_close(toLatin1);
}

void DictionaryLoad(zmx_bench::Report& report) {
  char dir[] = "/tmp/zmx_bench_dict_XXXXXX";
  if (mkdtemp(dir) == nullptr) return;
  const std::string path = std::string(dir) + "/d.py";
  std::FILE* f = std::fopen(path.c_str(), "w");
  for (int i = 0; i < 100000; ++i) {
    std::fprintf(f, "m['Message number %d with \\\"%%s\\\" and %%d'] = r'Message num\xC3\xA9ro %d avec \xC2\xAB %%s \xC2\xBB et %%d'\n",
                 (i * 7919) % 100000, (i * 7919) % 100000);
  }
  std::fclose(f);
  setenv("ZEMRIX_SUPPORTED_LOCALE", "1", 1);
  setenv("ZEMRIX_TRANSLATION_DICTIONARY", "d.py", 1);
  setenv("ZEMRIX_LANG", "C.UTF-8", 1);
  setenv("ZEM_PATH", dir, 1);
  double best = 1e9;
  for (int round = 0; round < 5; ++round) {
    const auto start = std::chrono::steady_clock::now();
    atr_tr_enable(true);
    best = std::min(best, Seconds(start));
    atr_tr_enable(false);
  }
  // What reading the same file line by line costs, for scale.
  double read = 1e9;
  for (int round = 0; round < 5; ++round) {
    const auto start = std::chrono::steady_clock::now();
    std::FILE* in = std::fopen(path.c_str(), "r");
    char line[8192];
    while (std::fgets(line, sizeof line, in) != nullptr) g_sink += line[0];
    std::fclose(in);
    read = std::min(read, Seconds(start));
  }
  report.Add("load 10^5 entries", "atr_tr_enable(true)", best * 1e3, "ms");
  report.Add("load 10^5 entries", "fgets over the file", read * 1e3, "ms");
  std::remove(path.c_str());
  rmdir(dir);
  atr_tr_enable(true);  // keep the dictionary for the translation workload
}

void Translation(zmx_bench::Report& report) {
  const int n = 1000000;
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < n; ++i) {
    atr_translate t("Found %d errors in %s after %f seconds");
    atr_SubstituteFormat(t, 1, i);
    atr_SubstituteFormat(t, 2, "model.inp");
    atr_SubstituteFormat(t, 3, 1.5);
    g_sink += static_cast<long>(t.Result().Length());
  }
  report.Add("3 arguments", "atr_translate", n / Seconds(start) / 1e6, "Mmsg/s");
  start = std::chrono::steady_clock::now();
  for (int i = 0; i < n; ++i) {
    char buffer[128];
    g_sink += std::snprintf(buffer, sizeof buffer, "Found %d errors in %s after %f seconds", i, "model.inp", 1.5);
  }
  report.Add("3 arguments", "snprintf", n / Seconds(start) / 1e6, "Mmsg/s");
  start = std::chrono::steady_clock::now();
  for (int i = 0; i < n; ++i) {
    atr_translate t("Message number 4711 with \"%s\" and %d");  // a dictionary hit
    atr_SubstituteFormat(t, 1, "x");
    atr_SubstituteFormat(t, 2, i);
    g_sink += static_cast<long>(t.Result().Length());
  }
  report.Add("3 arguments", "atr_translate (dictionary hit, 2 args)", n / Seconds(start) / 1e6, "Mmsg/s");
}

}  // namespace

int main(int argc, char** argv) {
  const std::string prefix = argc > 1 ? argv[1] : "i18n";
  zmx_bench::Report throughput("UTF-8 validation and conversion", true);
  Encodings(throughput);
  throughput.PrintTable("iconv (glibc)");
  zmx_bench::Report load("Dictionary load", false);
  DictionaryLoad(load);
  load.PrintTable("fgets over the file");
  zmx_bench::Report translate("Translation", true);
  Translation(translate);
  translate.PrintTable("snprintf");
  throughput.WriteMarkdown(prefix + "_utf8.md", "iconv (glibc)");
  throughput.WriteSvg(prefix + "_utf8.svg", "iconv (glibc)");
  translate.WriteMarkdown(prefix + "_translate.md", "snprintf");
  std::printf("\nwrote %s_utf8.md/.svg and %s_translate.md\n", prefix.c_str(), prefix.c_str());
  return 0;
}
