// Fuzzes atr_translate with arbitrary keys and substitutions, and the
// translatable string's extraction and wrapping. The input is the key up to
// its first NUL, then bytes that choose argument types and values.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_library_up.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string all(reinterpret_cast<const char*>(data), size);
  const std::size_t cut = all.find('\0');
  const std::string key = all.substr(0, cut);
  const std::string rest = cut == std::string::npos ? std::string() : all.substr(cut + 1);
  atr_translate t(key.c_str());
  std::size_t r = 0;
  auto next = [&]() -> unsigned { return r < rest.size() ? static_cast<unsigned char>(rest[r++]) : 0u; };
  for (int position = 0; position <= 8; ++position) {
    const unsigned kind = next() % 9;
    const unsigned v = next() | (next() << 8);
    switch (kind) {
      case 0: atr_SubstituteFormat(t, position, static_cast<int>(v) - 30000); break;
      case 1: atr_SubstituteFormat(t, position, v * 65537u); break;
      case 2: atr_SubstituteFormat(t, position, static_cast<std::int64_t>(v * -123456789LL)); break;
      case 3: atr_SubstituteFormat(t, position, static_cast<std::uint64_t>(v) << 40); break;
      case 4: atr_SubstituteFormat(t, position, static_cast<double>(v) * 1e300 / 3); break;
      case 5: atr_SubstituteFormat(t, position, static_cast<float>(v) / 7.0f); break;
      case 6: atr_SubstituteFormat(t, position, rest.c_str() + (r < rest.size() ? r : rest.size())); break;
      case 7: atr_SubstituteFormat(t, position, reinterpret_cast<const void*>(static_cast<std::uintptr_t>(v))); break;
      default: t.AddSubstitution(position, "text", t.Format(position)); break;
    }
  }
  const atr_String result = t.Result();
  const atr_String raw = atr_raw(key.c_str());
  const char sep = static_cast<char>(next());
  (void)raw.extract(static_cast<int>(next() % 5), sep);
  (void)raw.extract(static_cast<int>(next() % 5), sep, static_cast<char>(next()));
  const std::size_t width = next() % 40 + 1;
  (void)atr_String::BreakLineString(raw, width);
  (void)atr_String::AddLineBreaks(result, width, (next() & 1) != 0);
  return 0;
}
