// UTF-8 lengths, code points, validation and conversion, checked against a
// small independent model of the encodings and on hand-picked texts.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <clocale>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "strings/internal/utf8_walk.h"

namespace {

using Bytes = std::vector<unsigned char>;

// ---- the model: leading ones of the lead byte decide the length ----
int ModelLength(unsigned char lead) {
  int ones = 0;
  while (ones < 8 && (lead & (0x80 >> ones)) != 0) ++ones;
  if (ones == 0) return 1;
  if (ones == 1 || ones > 6) return 0;
  return ones;
}

// Decodes one sequence; false when it is malformed.
bool ModelDecode(const unsigned char* s, unsigned int* value, int* length) {
  const int n = ModelLength(s[0]);
  *length = n;
  if (n == 0) return false;
  unsigned int v = n == 1 ? s[0] : (s[0] & ((1u << (7 - n)) - 1));
  for (int k = 1; k < n; ++k) {
    if (s[k] < 0x80 || s[k] > 0xBF) return false;
    v = v * 64 + (s[k] - 0x80);
  }
  *value = v;
  return true;
}

bool ModelValidate(const unsigned char* s) {
  while (*s != 0) {
    unsigned int v;
    int n;
    if (!ModelDecode(s, &v, &n)) return false;
    s += n;
  }
  return true;
}

// UTF-8 to ISO 8859-1 as the converter should do it: -1, -2 or the bytes.
int ModelToLatin1(const unsigned char* s, unsigned char replacement, Bytes* out) {
  out->clear();
  while (*s != 0) {
    unsigned int v;
    int n;
    if (!ModelDecode(s, &v, &n)) return -1;
    s += n;
    if (v > 255) {
      if (replacement == 0) return -2;
      v = replacement;
    }
    out->push_back(static_cast<unsigned char>(v));
  }
  return static_cast<int>(out->size());
}

// A random text biased towards the interesting bytes; NUL-terminated.
Bytes RandomText(std::mt19937& rng, int maxLength) {
  static const unsigned char kPool[] = {'a', 'Z', ' ', '7', 0x7F, 0x80, 0xA9, 0xBF, 0xC0, 0xC3,
                                        0xDF, 0xE2, 0xEF, 0xF0, 0xF7, 0xF8, 0xFB, 0xFC, 0xFD, 0xFE, 0xFF};
  std::uniform_int_distribution<int> length(0, maxLength);
  std::uniform_int_distribution<int> pick(0, static_cast<int>(sizeof(kPool)) - 1);
  std::uniform_int_distribution<int> mode(0, 3);
  Bytes text;
  const int n = length(rng);
  for (int i = 0; i < n; ++i) {
    if (mode(rng) == 0) {
      // A well-formed sequence of a random length.
      unsigned char buf[8];
      const unsigned int cp = static_cast<unsigned int>(rng()) >> (rng() % 31 + 1);
      const int len = atr_utf8_from_ucs4(buf, cp == 0 ? 1 : cp);
      text.insert(text.end(), buf, buf + len);
    } else {
      text.push_back(kPool[pick(rng)]);
    }
  }
  text.push_back(0);
  return text;
}

const unsigned char* U(const char* s) { return reinterpret_cast<const unsigned char*>(s); }

std::string ToLatin1(const char* utf8, char replacement, int* result) {
  char out[256];
  std::memset(out, 'Z', sizeof out);
  *result = atr_utf8_to_encoding(atr_EncodingLatin1, out, utf8, replacement);
  return *result >= 0 ? std::string(out) : std::string();
}

// Switches LC_CTYPE for one test and puts the previous one back.
class CtypeLocale {
 public:
  explicit CtypeLocale(const char* name) : saved_(std::setlocale(LC_CTYPE, nullptr)) {
    ok_ = std::setlocale(LC_CTYPE, name) != nullptr;
  }
  ~CtypeLocale() { std::setlocale(LC_CTYPE, saved_.c_str()); }
  bool ok() const { return ok_; }

 private:
  std::string saved_;
  bool ok_;
};

TEST(Utf8Lengths, LeadBytesAndCodePointsFollowTheSixByteScheme) {
  for (int b = 0; b < 256; ++b) {
    const unsigned char c = static_cast<unsigned char>(b);
    EXPECT_EQ(atr_utf8_len(&c), ModelLength(c)) << "lead byte " << b;
  }
  const unsigned int limits[] = {0x80, 0x800, 0x10000, 0x200000, 0x4000000, 0x80000000u};
  for (int k = 0; k < 6; ++k) {
    EXPECT_EQ(atr_utf8_len(limits[k] - 1), k + 1);
    if (k < 5) {
      EXPECT_EQ(atr_utf8_len(limits[k]), k + 2);
    }
  }
  EXPECT_EQ(atr_utf8_len(0xFFFFFFFFu), 6);
}

TEST(Utf8CodePoints, EncodeDecodeRoundTripInEveryLengthClass) {
  std::mt19937 rng(7);
  for (int i = 0; i < 20000; ++i) {
    const unsigned int cp = static_cast<unsigned int>(rng()) >> (i % 31 + 1);
    unsigned char buf[8] = {0};
    const int n = atr_utf8_from_ucs4(buf, cp);
    ASSERT_EQ(n, atr_utf8_len(cp));
    ASSERT_EQ(atr_utf8_len(buf), n);
    unsigned int model;
    int modelLength;
    ASSERT_TRUE(ModelDecode(buf, &model, &modelLength));
    ASSERT_EQ(model, cp);
    int len = -1;
    ASSERT_EQ(atr_utf8_to_ucs4(buf, &len), cp);
    ASSERT_EQ(len, n);
  }
  unsigned char six[8];
  ASSERT_EQ(atr_utf8_from_ucs4(six, 0x7FFFFFFF), 6);
  EXPECT_EQ(six[0], 0xFD);
  for (int k = 1; k < 6; ++k) EXPECT_EQ(six[k], 0xBF);
  unsigned char euro[4];
  ASSERT_EQ(atr_utf8_from_ucs4(euro, 0x20AC), 3);
  EXPECT_EQ(std::memcmp(euro, "\xE2\x82\xAC", 3), 0);
}

TEST(Utf8CodePoints, MalformedSequencesGiveTheErrorValueAndStillReportTheLength) {
  int len = -1;
  EXPECT_EQ(atr_utf8_to_ucs4(U("\x80"), &len), 0xFFFFFFFFu);
  EXPECT_EQ(len, 0);
  EXPECT_EQ(atr_utf8_to_ucs4(U("\xC3" "A"), &len), 0xFFFFFFFFu);
  EXPECT_EQ(len, 2);
  // A NUL inside a sequence ends it: nothing behind the NUL is read.
  EXPECT_EQ(atr_utf8_to_ucs4(U("\xE2\x82"), &len), 0xFFFFFFFFu);
  EXPECT_EQ(len, 3);
  EXPECT_EQ(atr_utf8_to_ucs4(U("\xFE\x80"), &len), 0xFFFFFFFFu);
  EXPECT_EQ(len, 0);
  EXPECT_EQ(atr_utf8_to_ucs4(U("\xC3\xA9"), nullptr), 0xE9u);
  // Overlong forms are accepted by design.
  EXPECT_EQ(atr_utf8_to_ucs4(U("\xC1\x81"), &len), 0x41u);
  EXPECT_EQ(atr_utf8_to_ucs4(U("\xED\xA0\x80"), &len), 0xD800u);  // a surrogate, not rejected
}

TEST(Utf8Validation, AgreesWithTheModelOnRandomTexts) {
  std::mt19937 rng(11);
  int valid = 0;
  for (int i = 0; i < 20000; ++i) {
    const Bytes text = RandomText(rng, 24);
    const bool expected = ModelValidate(text.data());
    valid += expected ? 1 : 0;
    ASSERT_EQ(atr_encoding_validate(atr_EncodingUtf8, text.data()), expected) << "case " << i;
    ASSERT_EQ(atr_encoding_validate(atr_EncodingUtf8, reinterpret_cast<const char*>(text.data())), expected);
  }
  EXPECT_GT(valid, 1000);  // both outcomes are exercised
  EXPECT_LT(valid, 18000);
}

TEST(Utf8Validation, OneBadByteIsFoundAtEveryOffsetAndAlignmentOfALongAsciiText) {
  // The ASCII fast path reads aligned blocks: every position relative to a block
  // boundary must still be seen, as must the NUL that ends the text.
  std::vector<unsigned char> buffer(256 + 128);
  for (int start = 0; start < 64; ++start) {
    for (int length = 0; length < 100; ++length) {
      unsigned char* text = buffer.data() + start;
      std::memset(text, 'x', static_cast<size_t>(length));
      text[length] = 0;
      text[length + 1] = 0x80;  // garbage behind the NUL must not matter
      ASSERT_TRUE(atr_encoding_validate(atr_EncodingUtf8, text));
      ASSERT_EQ(zmx::strings_internal::AsciiRunLength(text), static_cast<size_t>(length));
      for (int bad = 0; bad < length; bad += 7) {
        text[bad] = 0xBF;
        ASSERT_FALSE(atr_encoding_validate(atr_EncodingUtf8, text)) << start << " " << length << " " << bad;
        ASSERT_EQ(zmx::strings_internal::AsciiRunLength(text), static_cast<size_t>(bad));
        text[bad] = 'x';
      }
    }
  }
}

TEST(Utf8Validation, ATextEndingRightBeforeAnUnreadablePageIsReadSafely) {
  // The block reads must stay inside the page that holds the terminating NUL.
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* map = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(map, MAP_FAILED);
  unsigned char* base = static_cast<unsigned char*>(map);
  ASSERT_EQ(mprotect(base + page, page, PROT_NONE), 0);
  std::memset(base, 'a', page);
  for (size_t tail = 1; tail <= 80; ++tail) {
    unsigned char* text = base + page - tail;
    text[tail - 1] = 0;
    ASSERT_TRUE(atr_encoding_validate(atr_EncodingUtf8, base + page - 100 - tail));
    ASSERT_EQ(zmx::strings_internal::AsciiRunLength(text), tail - 1);
    if (tail >= 3) {
      text[tail - 3] = 0xC3;
      text[tail - 2] = 0xA9;
      ASSERT_EQ(atr_utf8_to_encoding(atr_EncodingLatin1, nullptr, text, 0), static_cast<int>(tail) - 2);
      text[tail - 3] = 'a';
      text[tail - 2] = 'a';
    }
    text[tail - 1] = 'a';
  }
  munmap(map, 2 * page);
}

TEST(Latin1, ValidationRejectsDelAndTheC1RangeOnly) {
  EXPECT_FALSE(atr_encoding_validate(atr_EncodingLatin1, "a\x85z"));
  EXPECT_TRUE(atr_encoding_validate(atr_EncodingLatin1, "a\xA0z"));
  EXPECT_FALSE(atr_encoding_validate(atr_EncodingLatin1, "\x7F"));
  EXPECT_FALSE(atr_encoding_validate(atr_EncodingLatin1, "\x9F"));
  EXPECT_TRUE(atr_encoding_validate(atr_EncodingLatin1, "~\xFF\xE9"));
  EXPECT_TRUE(atr_encoding_validate(atr_EncodingLatin1, ""));
}

TEST(Conversion, Utf8ToLatin1OnTheDocumentedCases) {
  int result = 0;
  char out[4] = {'Z', 'Z', 'Z', 'Z'};
  EXPECT_EQ(atr_utf8_to_encoding(atr_EncodingLatin1, out, "", '?'), 0);
  EXPECT_EQ(out[0], '\0');
  EXPECT_EQ(atr_utf8_to_encoding(atr_EncodingLatin1, static_cast<char*>(nullptr), "", 0), 0);

  EXPECT_EQ(ToLatin1("\xC3\xA9", 0, &result), "\xE9");
  EXPECT_EQ(result, 1);
  ToLatin1("x\xE2\x82\xAC", 0, &result);
  EXPECT_EQ(result, atr_ConvertUnencodable);
  EXPECT_EQ(result, -2);
  EXPECT_EQ(ToLatin1("x\xE2\x82\xAC", '?', &result), "x?");
  EXPECT_EQ(result, 2);
  ToLatin1("\x80", '?', &result);
  EXPECT_EQ(result, -1);
  ToLatin1("\xC3" "A", '?', &result);
  EXPECT_EQ(result, -1);
  // Invalid input wins over a replacement, even behind an unencodable character.
  ToLatin1("\xE2\x82\xAC\xFF", '?', &result);
  EXPECT_EQ(result, -1);
  // An overlong 'A' re-encodes as the plain byte.
  EXPECT_EQ(ToLatin1("\xC1\x81", 0, &result), "A");
}

TEST(Conversion, Utf8ToLatin1AgreesWithTheModelAndMeasuringAgreesWithWriting) {
  std::mt19937 rng(23);
  for (int i = 0; i < 20000; ++i) {
    const Bytes text = RandomText(rng, 40);
    const unsigned char replacement = (i & 1) != 0 ? '?' : 0;
    Bytes expected;
    const int model = ModelToLatin1(text.data(), replacement, &expected);
    std::vector<unsigned char> out(text.size() + 1, 0xEE);
    const int measured = atr_utf8_to_encoding(atr_EncodingLatin1, nullptr, text.data(), replacement);
    const int written = atr_utf8_to_encoding(atr_EncodingLatin1, out.data(), text.data(), replacement);
    ASSERT_EQ(measured, model) << "case " << i;
    ASSERT_EQ(written, model);
    if (model >= 0) {
      ASSERT_EQ(Bytes(out.begin(), out.begin() + model), expected);
      ASSERT_EQ(out[static_cast<size_t>(model)], 0);
    }
  }
}

TEST(Conversion, Latin1ToUtf8AndBackIsTheIdentity) {
  unsigned char all[256];
  for (int b = 1; b < 256; ++b) all[b - 1] = static_cast<unsigned char>(b);
  all[255] = 0;
  unsigned char utf8[512];
  ASSERT_EQ(atr_utf8_from_encoding(nullptr, atr_EncodingLatin1, all), 127 + 2 * 128);
  ASSERT_EQ(atr_utf8_from_encoding(utf8, atr_EncodingLatin1, all), 127 + 2 * 128);
  EXPECT_TRUE(atr_encoding_validate(atr_EncodingUtf8, utf8));
  EXPECT_EQ(std::memcmp(utf8 + 127, "\xC2\x80", 2), 0);
  unsigned char back[256];
  ASSERT_EQ(atr_utf8_to_encoding(atr_EncodingLatin1, back, utf8, 0), 255);
  EXPECT_EQ(std::memcmp(back, all, 256), 0);
}

TEST(Conversion, UnknownIdsBehaveAsTheEncodingThatAcceptsNothing) {
  for (int id : {0, 4, 5, -1, 1000}) {
    EXPECT_FALSE(atr_encoding_validate(id, "abc")) << id;
    EXPECT_FALSE(atr_encoding_validate(id, "")) << id;
    char out[8];
    EXPECT_EQ(atr_utf8_to_encoding(id, out, "ab", 0), -2) << id;
    EXPECT_EQ(atr_utf8_to_encoding(id, out, "ab", '#'), 2) << id;
    EXPECT_STREQ(out, "##");
    EXPECT_EQ(atr_utf8_to_encoding(id, out, "\xFF", '#'), -1) << id;
    unsigned char u[8];
    EXPECT_EQ(atr_utf8_from_encoding(u, id, U("a")), -1) << id;
    EXPECT_EQ(atr_utf8_from_encoding(u, id, U("")), 0) << id;
  }
  unsigned char copy[16];
  EXPECT_EQ(atr_utf8_from_encoding(copy, atr_EncodingUtf8, U("\xC3\xA9t\xC3\xA9")), 5);
  EXPECT_STREQ(reinterpret_cast<char*>(copy), "\xC3\xA9t\xC3\xA9");
}

TEST(Conversion, TheLocaleEncodingFollowsTheRuntimeLocale) {
  {
    CtypeLocale utf8("C.UTF-8");
    ASSERT_TRUE(utf8.ok());
    EXPECT_TRUE(atr_encoding_validate(atr_EncodingLocale, "gr\xC3\xBC\xC3\x9F"));
    EXPECT_FALSE(atr_encoding_validate(atr_EncodingLocale, "gr\xFC"));
    char out[16];
    EXPECT_EQ(atr_utf8_to_encoding(atr_EncodingLocale, out, "\xE2\x82\xAC!", 0), 4);
    EXPECT_STREQ(out, "\xE2\x82\xAC!");
    unsigned char u[16];
    EXPECT_EQ(atr_utf8_from_encoding(u, atr_EncodingLocale, U("\xC3\xA9")), 2);
    EXPECT_EQ(atr_utf8_from_encoding(u, atr_EncodingLocale, U("\xC3")), -1);
    // A surrogate passes our UTF-8 but the runtime's encoder refuses it.
    EXPECT_EQ(atr_utf8_to_encoding(atr_EncodingLocale, out, "a\xED\xA0\x80", 0), -2);
    EXPECT_EQ(atr_utf8_to_encoding(atr_EncodingLocale, out, "a\xED\xA0\x80", '?'), 2);
    EXPECT_STREQ(out, "a?");
  }
  {
    CtypeLocale plain("C");
    ASSERT_TRUE(plain.ok());
    char out[16];
    EXPECT_EQ(atr_utf8_to_encoding(atr_EncodingLocale, out, "abc", 0), 3);
    EXPECT_EQ(atr_utf8_to_encoding(atr_EncodingLocale, out, "a\xE2\x82\xAC", 0), -2);
    EXPECT_EQ(atr_utf8_to_encoding(atr_EncodingLocale, out, "a\xE2\x82\xAC", '?'), 2);
    EXPECT_STREQ(out, "a?");
  }
}

TEST(Utf8Walk, StepsForwardAndBackOverTheSameCharacterStarts) {
  const unsigned char* text = U("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z\xFD\xBF\xBF\xBF\xBF\xBF!");
  const unsigned char* end = text + std::strlen(reinterpret_cast<const char*>(text));
  std::vector<const unsigned char*> starts;
  for (const unsigned char* p = text; p < end; p = zmx::strings_internal::Utf8Next(p)) starts.push_back(p);
  ASSERT_EQ(starts.size(), 7u);
  const unsigned char* p = end;
  for (size_t k = starts.size(); k-- > 0;) {
    p = zmx::strings_internal::Utf8Prev(text, p);
    ASSERT_EQ(p, starts[k]) << k;
  }
  // Stray continuation bytes step back one byte at a time; so does a lead byte
  // whose sequence would not end where we stand.
  const unsigned char* stray = U("ab\x80\x80");
  EXPECT_EQ(zmx::strings_internal::Utf8Prev(stray, stray + 4), stray + 3);
  const unsigned char* shortLead = U("\xE2\x82");
  EXPECT_EQ(zmx::strings_internal::Utf8Prev(shortLead, shortLead + 2), shortLead + 1);
  const unsigned char* continuation = U("\x80\x80");
  EXPECT_EQ(zmx::strings_internal::Utf8Next(continuation), continuation + 1);
}

}  // namespace
