// Case changes under changing character locales: every result is checked
// against a byte-by-byte model that asks the runtime for each character's
// length and class, while the process locale switches between a single-byte
// Latin-1 locale, UTF-8 and "C", and while a thread runs under a locale of its
// own. A Latin-1 locale is compiled for the test with localedef.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cctype>
#include <locale.h>
#include <random>
#include <string>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

#include "strings/test_string.h"

namespace {

// The plain walk: character lengths from mblen (at most 4 bytes, an invalid
// sequence or NUL counting as one byte), and every one-byte character that
// islower (isupper) holds for moved by 32.
std::string ModelChangeCase(const std::string& text, bool toUpper, bool firstOnly) {
  std::string out = text;
  std::mblen(nullptr, 0);
  std::size_t i = 0;
  while (i < out.size()) {
    const std::size_t left = out.size() - i;
    int k = std::mblen(out.data() + i, left < 4 ? left : 4);
    if (k <= 0) {
      std::mblen(nullptr, 0);
      k = 1;
    }
    const int c = static_cast<unsigned char>(out[i]);
    if (k == 1 && (toUpper ? std::islower(c) : std::isupper(c))) out[i] = static_cast<char>(toUpper ? c - 32 : c + 32);
    if (firstOnly) break;
    i += static_cast<std::size_t>(k);
  }
  return out;
}

// Bytes a case walk has to tell apart: letters, their neighbours in the ASCII
// table, Latin-1 letters, UTF-8 sequences whole and broken.
std::string RandomText(std::mt19937& rng) {
  static const char* const kPieces[] = {"a", "z", "A", "Z", "m", "Q", "@", "[", "`", "{", " ", "0", "\x7f",
                                        "\xe9", "\xc9", "\xff", "\xdf", "\xd7", "\xf7", "\xc3\xa9", "\xe2\x82\xac",
                                        "\xc3", "\x80", "abcdefghijklmnop", "ABCDEFGHIJKLMNOP"};
  const int pieces = static_cast<int>(rng() % 40);
  std::string text;
  for (int i = 0; i < pieces; ++i) text += kPieces[rng() % (sizeof kPieces / sizeof kPieces[0])];
  return text;
}

class CaseUnderLocales : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char dir[] = "/tmp/zmx_case_locale_XXXXXX";
    if (mkdtemp(dir) == nullptr) return;
    s_dir = dir;
    const std::string command =
        "localedef -c -f ISO-8859-1 -i fr_FR '" + s_dir + "/fr_FR.ISO-8859-1' >/dev/null 2>&1";
    s_built = std::system(command.c_str()) == 0;
  }
  static void TearDownTestSuite() {
    if (!s_dir.empty()) std::system(("rm -rf '" + s_dir + "'").c_str());
  }

  void SetUp() override {
    m_previous = std::setlocale(LC_CTYPE, nullptr);
    if (!s_built) GTEST_SKIP() << "localedef could not build a Latin-1 locale (package 'locales' missing?)";
    setenv("LOCPATH", s_dir.c_str(), 1);
    ASSERT_NE(std::setlocale(LC_CTYPE, "fr_FR.ISO-8859-1"), nullptr);
  }
  void TearDown() override {
    std::setlocale(LC_CTYPE, m_previous.c_str());
    unsetenv("LOCPATH");
  }

  static std::string s_dir;
  static bool s_built;
  std::string m_previous;
};

std::string CaseUnderLocales::s_dir;
bool CaseUnderLocales::s_built = false;

TEST_F(CaseUnderLocales, EveryOperationMatchesThePlainWalkWhileTheLocaleChanges) {
  // The Latin-1 locale gives the high letters a case: the walk must not carry
  // that over to UTF-8 or "C", nor miss it when coming back.
  TestString latin("\xe9t\xe9 \xff");
  latin.ToUpper();
  EXPECT_EQ(latin.Str(), "\xc9T\xc9 \xdf");  // 0xFF is lower case; 32 below it is 0xDF
  ASSERT_NE(std::setlocale(LC_CTYPE, "C"), nullptr);
  TestString plain("\xe9t\xe9");
  plain.ToUpper();
  EXPECT_EQ(plain.Str(), "\xe9T\xe9");

  const char* const kLocales[] = {"fr_FR.ISO-8859-1", "C.UTF-8", "C"};
  std::mt19937 rng(20261122);
  for (int round = 0; round < 6000; ++round) {
    const char* locale = kLocales[rng() % 3];
    ASSERT_NE(std::setlocale(LC_CTYPE, locale), nullptr) << locale;
    const std::string text = RandomText(rng);
    const int op = static_cast<int>(rng() % 4);
    TestString s(text.c_str(), static_cast<int>(text.size()));
    TestString sharer(s);
    switch (op) {
      case 0: s.ToUpper(); break;
      case 1: s.ToLower(); break;
      case 2: s.Capitalize(); break;
      default: s.Uncapitalize(); break;
    }
    const std::string expected = ModelChangeCase(text, op == 0 || op == 2, op >= 2);
    ASSERT_EQ(s.Str(), expected) << "locale " << locale << ", op " << op << ", text '" << text << "'";
    // The other handle keeps the text; an unchanged text stays shared.
    ASSERT_EQ(sharer.Str(), text);
    if (expected == text && !text.empty()) {
      ASSERT_EQ(s.Rep(), sharer.Rep()) << "locale " << locale << ", op " << op;
    }
  }
}

TEST_F(CaseUnderLocales, AThreadUnderItsOwnLocaleFollowsItNotTheProcessLocale) {
  // Long texts, so that the walk reads the locale's case table.
  const auto times = [](const std::string& piece, int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += piece;
    return out;
  };
  const std::string accented = times("\xe9t\xe9 ", 12);
  ASSERT_NE(std::setlocale(LC_CTYPE, "C"), nullptr);
  TestString before(accented.c_str());
  before.ToUpper();  // fills this thread's view of "C"
  EXPECT_EQ(before.Str(), times("\xe9T\xe9 ", 12));

  std::string upper, lower, warm;
  std::thread worker([&] {
    TestString first(accented.c_str());
    first.ToUpper();  // measured under the process locale first
    warm = first.Str();
    locale_t own = newlocale(LC_CTYPE_MASK, "fr_FR.ISO-8859-1", static_cast<locale_t>(0));
    if (own == static_cast<locale_t>(0)) return;
    const locale_t old = uselocale(own);
    TestString s(accented.c_str());
    s.ToUpper();
    upper = s.Str();
    s.ToLower();
    lower = s.Str();
    uselocale(old);
    freelocale(own);
  });
  worker.join();
  EXPECT_EQ(warm, times("\xe9T\xe9 ", 12));
  EXPECT_EQ(upper, times("\xc9T\xc9 ", 12));
  EXPECT_EQ(lower, accented);

  TestString after(accented.c_str());
  after.ToUpper();
  EXPECT_EQ(after.Str(), times("\xe9T\xe9 ", 12));
}

}  // namespace
