// Fuzzes strnatcmp: results only -1, 0, 1; antisymmetric; reflexive. The input
// is split at its first NUL into the two texts.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_library_up.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string all(reinterpret_cast<const char*>(data), size);
  const std::size_t cut = all.find('\0');
  const std::string a = all.substr(0, cut);
  const std::string b = cut == std::string::npos ? std::string() : all.substr(cut + 1);
  const int ab = strnatcmp(a.c_str(), b.c_str());
  const int ba = strnatcmp(b.c_str(), a.c_str());
  if (ab < -1 || ab > 1 || ab != -ba) std::abort();
  if (strnatcmp(a.c_str(), a.c_str()) != 0 || strnatcmp(b.c_str(), b.c_str()) != 0) std::abort();
  return 0;
}
