// Fuzzes the UTF-8 converters on arbitrary bytes: validation, UTF-8 -> UCS-4 ->
// UTF-8 round trips, measuring against writing, and ISO 8859-1 both ways.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_library_up.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

// True when every sequence of the valid text is in its shortest form.
bool ShortestForm(const unsigned char* p) {
  while (*p != 0) {
    int len = 0;
    const unsigned int cp = atr_utf8_to_ucs4(p, &len);
    if (atr_utf8_len(cp) != len) return false;
    p += len;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<unsigned char> text(data, data + size);
  text.push_back(0);
  const unsigned char* in = text.data();
  const bool valid = atr_encoding_validate(atr_EncodingUtf8, in);

  // UTF-8 -> UTF-8 through UCS-4: -1 exactly when invalid; identity in shortest form.
  const int measured = atr_utf8_from_encoding(nullptr, atr_EncodingUtf8, in);
  Check((measured == -1) == !valid);
  std::vector<unsigned char> out(6 * text.size() + 1);
  const int written = atr_utf8_from_encoding(out.data(), atr_EncodingUtf8, in);
  Check(written == measured);
  if (valid) {
    Check(out[static_cast<std::size_t>(written)] == 0);
    Check(atr_encoding_validate(atr_EncodingUtf8, out.data()));
    const std::size_t inLength = std::strlen(reinterpret_cast<const char*>(in));
    if (ShortestForm(in)) {
      Check(static_cast<std::size_t>(written) == inLength && std::memcmp(out.data(), in, inLength) == 0);
    } else {
      Check(static_cast<std::size_t>(written) <= inLength);  // overlong forms re-encode shorter
    }
  }

  // UTF-8 -> ISO 8859-1 with and without replacement, and back.
  std::vector<unsigned char> latin(text.size() + 1);
  const int withReplacement = atr_utf8_to_encoding(atr_EncodingLatin1, latin.data(), in, '?');
  Check(valid ? withReplacement >= 0 : withReplacement == -1);
  Check(atr_utf8_to_encoding(atr_EncodingLatin1, nullptr, in, '?') == withReplacement);
  const int strict = atr_utf8_to_encoding(atr_EncodingLatin1, static_cast<unsigned char*>(nullptr), in, 0);
  Check(strict == -1 || strict == -2 || strict == withReplacement);
  std::vector<unsigned char> back(2 * text.size() + 1);
  const int fromLatin = atr_utf8_from_encoding(back.data(), atr_EncodingLatin1, in);
  Check(fromLatin >= 0 && atr_encoding_validate(atr_EncodingUtf8, back.data()));

  // The other rows must not crash either.
  (void)atr_encoding_validate(atr_EncodingLatin1, in);
  (void)atr_encoding_validate(atr_EncodingLocale, in);
  (void)atr_utf8_to_encoding(atr_EncodingLocale, out.data(), in, '?');
  (void)atr_utf8_from_encoding(out.data(), atr_EncodingLocale, in);
  return 0;
}
