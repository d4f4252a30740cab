// The translation dictionary: escape and line rules in process; locale set-up,
// search path, loading, warnings and release in fresh processes.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "ZMXUTI_CoreUtils.h"
#include "strings/internal/dictionary.h"
#include "support/child_process.h"

namespace {

using zmx_test::ExitedCleanly;
using zmx_test::RunProbe;

std::string Decode(std::string s) {
  const int n = zmx::strings_internal::DecodeEscapes(&s[0]);
  return s.substr(0, static_cast<size_t>(n));
}

TEST(DictionaryEscapes, DecodeEveryKindAndLeaveTheRestAlone) {
  EXPECT_EQ(Decode(R"(a\"b\'c\\d)"), "a\"b'c\\d");
  EXPECT_EQ(Decode(R"(\a\b\f\n\r\t\v)"), "\a\b\f\n\r\t\v");
  EXPECT_EQ(Decode(R"(\101\60x\0y)"), std::string("A0x\0y", 5));
  EXPECT_EQ(Decode(R"(\1012)"), "A2");          // at most three octal digits
  EXPECT_EQ(Decode(R"(\777)"), "\xFF");         // low 8 bits of 511
  EXPECT_EQ(Decode(R"(\8)"), R"(\8)");          // 8 is not octal
  EXPECT_EQ(Decode(R"(\x41\x4a4B)"), "AK");     // any number of hex digits, low 8 bits
  EXPECT_EQ(Decode(R"(\xc3\xa9)"), "\xC3\xA9");
  EXPECT_EQ(Decode(R"(\x\q\%d)"), R"(\x\q\%d)");  // not escapes: kept as pairs
  EXPECT_EQ(Decode(R"(\\n)"), R"(\n)");         // the pair is consumed before the n
  EXPECT_EQ(Decode("end\\"), "end\\");          // a lone backslash at the end stays
  EXPECT_EQ(Decode(""), "");
}

struct Split {
  bool entry;
  std::string key, translation;
};

Split SplitLine(std::string line) {
  char* key = nullptr;
  char* translation = nullptr;
  int keyLength = -1;
  Split s{zmx::strings_internal::SplitEntryLine(&line[0], &key, &keyLength, &translation), "", ""};
  if (s.entry) {
    s.key.assign(key, static_cast<size_t>(keyLength));
    s.translation = translation;
  }
  return s;
}

TEST(DictionaryLines, KeyRunsToTheFirstMarkAndTheLastTwoCharactersAreCut) {
  Split s = SplitLine("msgs['Open file'] = r'Ouvrir le fichier'\n");
  EXPECT_TRUE(s.entry);
  EXPECT_EQ(s.key, "Open file");
  EXPECT_EQ(s.translation, "Ouvrir le fichier");
  s = SplitLine("d['it's'] = r'c'est'\n");  // quotes inside key and translation
  EXPECT_EQ(s.key, "it's");
  EXPECT_EQ(s.translation, "c'est");
  s = SplitLine("d['a'] = r'b'] = r'c'\n");  // the key ends at the first mark
  EXPECT_EQ(s.key, "a");
  EXPECT_EQ(s.translation, "b'] = r'c");
  s = SplitLine("d[''] = r'x'\n");
  EXPECT_TRUE(s.entry);
  EXPECT_EQ(s.key, "");
  s = SplitLine("d['k'] = r'xy'");  // no newline: the cut still takes two characters
  EXPECT_EQ(s.translation, "x");
  s = SplitLine("d['k'] = r'");
  EXPECT_EQ(s.translation, "");
  EXPECT_FALSE(SplitLine("# comment\n").entry);
  EXPECT_FALSE(SplitLine("d['k'] = 'x'\n").entry);
  EXPECT_FALSE(SplitLine("'] = r'x'\n").entry);  // no quote before the mark
}

// A fresh directory tree for dictionary files, removed with its content.
class DictionaryDir : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/zmx_i18n_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
  }
  void TearDown() override {
    const std::string command = "rm -rf '" + root_ + "'";
    ASSERT_EQ(std::system(command.c_str()), 0);
  }
  void Write(const std::string& relative, const std::string& content) {
    std::string dir = root_;
    size_t start = 1;
    for (size_t slash; (slash = relative.find('/', start)) != std::string::npos; start = slash + 1) {
      mkdir((root_ + relative.substr(0, slash)).c_str(), 0700);
    }
    std::FILE* f = std::fopen((root_ + relative).c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(content.data(), 1, content.size(), f);
    std::fclose(f);
  }
  zmx_test::ChildResult Run(const std::string& scenario, const zmx_test::EnvVars& env,
                            const std::vector<std::string>& args = {}) {
    auto result = RunProbe("i18n_probe", scenario, env, args);
    EXPECT_TRUE(ExitedCleanly(result));
    return result;
  }
  std::string root_;
};

const char kDefaultPath[] = "/Configuration/Xresources/en_US/en_US_Dict.py";

TEST_F(DictionaryDir, WithoutSupportedLocaleTheDefaultPathIsSearchedAndTheLocaleKept) {
  Write(kDefaultPath, "x['a'] = r'b'\n");
  // Empty entries and missing directories are passed over; trailing separators dropped.
  const auto r = Run("setlocale", {{"ZEM_PATH", ";/nonexistent;" + root_ + "//"}, {"ZEMRIX_LANG", "C.UTF-8"}});
  EXPECT_EQ(r.out, "found 1\npath " + root_ + kDefaultPath + "\nZMX_LC_ALL C\nctype C\nnumeric C\n");
  EXPECT_EQ(r.err, "");
}

TEST_F(DictionaryDir, BackslashesAreSeparatorsAndQvlDictDirComesFirst) {
  Write("/first/fr/fr_Dict.py", "");
  Write("/second/fr/fr_Dict.py", "");
  const zmx_test::EnvVars env = {{"ZEMRIX_SUPPORTED_LOCALE", ""},
                                 {"ZEMRIX_TRANSLATION_DICTIONARY", "fr\\fr_Dict.py"},
                                 {"ZEMRIX_LANG", "C.UTF-8"},
                                 {"QVL_DICT_DIR", root_ + "\\first\\"},
                                 {"ZEM_PATH", root_ + "/second"}};
  auto r = Run("setlocale", env);
  EXPECT_EQ(r.out.substr(0, r.out.find("ZMX_LC_ALL")), "found 1\npath " + root_ + "/first/fr/fr_Dict.py\n");
  // The character type follows ZEMRIX_LANG, numbers stay "C", and ZMX_LC_ALL
  // carries the composite name of the locale in force.
  EXPECT_NE(r.out.find("\nctype C.UTF-8\nnumeric C\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("ZMX_LC_ALL LC_CTYPE=C.UTF-8;LC_NUMERIC=C;"), std::string::npos) << r.out;

  // Without ZEM_PATH nothing is found, QVL_DICT_DIR alone is not enough.
  zmx_test::EnvVars noZemPath(env.begin(), env.end() - 1);
  r = Run("setlocale", noZemPath);
  EXPECT_EQ(r.out.substr(0, 16), "found 0\npath \nZM");
  // Only one of the two switches: the default path, the locale untouched.
  r = Run("setlocale", {{"ZEMRIX_TRANSLATION_DICTIONARY", "fr/fr_Dict.py"}, {"ZEMRIX_LANG", "C.UTF-8"},
                        {"ZEM_PATH", root_ + "/first"}});
  EXPECT_EQ(r.out, "found 0\npath \nZMX_LC_ALL C\nctype C\nnumeric C\n");
}

zmx_test::EnvVars DictEnv(const std::string& root, const char* lang = "C.UTF-8") {
  return {{"ZEMRIX_SUPPORTED_LOCALE", "1"}, {"ZEMRIX_TRANSLATION_DICTIONARY", "d.py"},
          {"ZEMRIX_LANG", lang}, {"ZEM_PATH", root}};
}

TEST_F(DictionaryDir, LoadingAppliesTheLineEscapeAndIdentityRules) {
  Write("/d.py",
        "# a comment line, then entries\n"
        "m['Open file'] = r'Ouvrir le fichier'\n"
        "m['Same'] = r'Same'\n"                          // identical: not stored
        "m['Line\\none'] = r'Ligne\\tun'\n"              // escapes on both sides
        "m['caf\\xc3\\xa9 %s'] = r'%s: caf\\303\\251'\n"  // escaped key, octal translation
        "m['it's'] = r'c\\'est \\\"\xC3\xA9t\xC3\xA9\\\"'\n"
        "m['Bad\\t'] = r'\xC3('\n"                       // invalid UTF-8: warned with the raw key, skipped
        "m['Zero\\x'] = r'null\\0cut'\n"
        "m['Last'] = r'Dernier'");                       // no newline: 'r' is cut too
  const auto r = Run("load", DictEnv(root_),
                     {"Open file", "Same", "Line\none", "caf\xC3\xA9 %s", "it's", "Bad", "Zero\\x", "Last", "Missing"});
  EXPECT_EQ(r.out,
            "count 6\n"
            "[Open file] -> [Ouvrir le fichier]\n"
            "[Same] -> [(none)]\n"
            "[Line\none] -> [Ligne\tun]\n"
            "[caf\xC3\xA9 %s] -> [%s: caf\xC3\xA9]\n"
            "[it's] -> [c'est \"\xC3\xA9t\xC3\xA9\"]\n"
            "[Bad] -> [(none)]\n"
            "[Zero\\x] -> [null]\n"
            "[Last] -> [Dernie]\n"
            "[Missing] -> [(none)]\n");
  EXPECT_EQ(r.err, "WARNING: atr: Invalid UTF-8 string.\n\"Bad\\t\"\n\n");
}

TEST_F(DictionaryDir, TheLocaleEncodingReceivesTheTextAndKvtWarnsAboutWhatItCannotHold) {
  Write("/d.py",
        "m['Euro'] = r'\xE2\x82\xAC 5'\n"
        "m['Plain'] = r'Simple'\n"
        "m['Esc\\n'] = r'\\xe2\\x82\\xac'\n"      // the escape decodes to an unencodable character
        "m['Broken'] = r'\\xc3('\n");              // valid until decoded, invalid after
  const zmx_test::EnvVars c = DictEnv(root_, "C");
  auto r = Run("load", c, {"Euro", "Plain", "Esc\n", "Broken"});
  EXPECT_EQ(r.out, "count 3\n[Euro] -> [? 5]\n[Plain] -> [Simple]\n[Esc\n] -> [?]\n[Broken] -> [(none)]\n");
  EXPECT_EQ(r.err, "WARNING: atr: Invalid UTF-8 string.\n\"Broken\"\n\n");

  zmx_test::EnvVars kvt = c;
  kvt.push_back({"ZEMRIX_SITE", "kvt"});
  r = Run("load", kvt, {"Euro"});
  EXPECT_EQ(r.out, "count 3\n[Euro] -> [? 5]\n");
  EXPECT_EQ(r.err,
            "WARNING: atr: Failure encoding in the current locale.\n\"Euro\"\n\n"
            "WARNING: atr: Failure encoding in the current locale.\n\"Esc\n\"\n\n"
            "WARNING: atr: Invalid UTF-8 string.\n\"Broken\"\n\n");
  kvt.back().second = "kvtx";  // exactly "kvt" only
  EXPECT_EQ(Run("load", kvt).err, "WARNING: atr: Invalid UTF-8 string.\n\"Broken\"\n\n");
  // In a UTF-8 locale everything can be encoded: no kvt warning.
  zmx_test::EnvVars utf8 = DictEnv(root_);
  utf8.push_back({"ZEMRIX_SITE", "kvt"});
  r = Run("load", utf8, {"Euro"});
  EXPECT_EQ(r.out, "count 3\n[Euro] -> [\xE2\x82\xAC 5]\n");
  EXPECT_EQ(r.err, "WARNING: atr: Invalid UTF-8 string.\n\"Broken\"\n\n");
}

TEST_F(DictionaryDir, LoadsOnceReloadsAfterReleaseAndDoesNotRetryAnEmptyLoad) {
  Write("/d.py", "a['k1'] = r'v1'\na['k2'] = r'v2'\n");
  auto r = Run("reload", DictEnv(root_));
  EXPECT_EQ(r.out, "first 2\nsecond 2\nreleased 0\nagain 2\ndown 0\n");

  // Only identical and invalid lines: the array is allocated... for nothing and
  // the warnings show when a load really runs (first and after the release).
  Write("/d.py", "a['same'] = r'same'\na['bad'] = r'\xFF'\n");
  r = Run("reload", DictEnv(root_));
  EXPECT_EQ(r.out, "first -1\nsecond -1\nreleased 0\nagain -1\ndown 0\n");
  EXPECT_EQ(r.err, "WARNING: atr: Invalid UTF-8 string.\n\"bad\"\n\n"
                   "WARNING: atr: Invalid UTF-8 string.\n\"bad\"\n\n");
  // No file at all: the same counts, nothing printed.
  r = Run("reload", {{"ZEM_PATH", root_ + "/nothing"}});
  EXPECT_EQ(r.out, "first -1\nsecond -1\nreleased 0\nagain -1\ndown 0\n");
  EXPECT_EQ(r.err, "");
}

TEST_F(DictionaryDir, LongLinesAreReadInPiecesAndManyEntriesSortByUnsignedBytes) {
  std::string content;
  // A line of 9000 bytes: its first piece has no mark, the second piece holds it.
  content += "x" + std::string(8200, 'p') + "['long'] = r'LONG'\n";
  for (int i = 0; i < 500; ++i) content += "e['key" + std::to_string(i * 7919 % 500) + "'] = r'val" + std::to_string(i * 7919 % 500) + "'\n";
  content += "e['\xC3\xA9' ] = r'x'\n";  // no mark: not an entry
  content += "e['\xC3\xA9'] = r'high'\ne['A'] = r'low'\n";
  Write("/d.py", content);
  const auto r = Run("load", DictEnv(root_), {"key0", "key499", "key250", "\xC3\xA9", "A", "long"});
  EXPECT_EQ(r.out.substr(0, r.out.find('\n')), "count 503");
  EXPECT_NE(r.out.find("[key0] -> [val0]\n[key499] -> [val499]\n[key250] -> [val250]\n[\xC3\xA9] -> [high]\n[A] -> [low]\n[long] -> [LONG]\n"),
            std::string::npos) << r.out;
}

TEST_F(DictionaryDir, TestingNeedsThreeVariablesAndTheProbeCharactersFollowTheLocale) {
  auto r = Run("testing", {{"ZEMRIX_LANG", "x"}, {"ZMX_QA_PRINT", ""}, {"QVL_DICT_DIR", ""}});
  EXPECT_EQ(r.out, "testing 1\nextra 0\n");  // "C": the characters cannot be encoded
  r = Run("testing", {{"ZEMRIX_LANG", "x"}, {"ZMX_QA_PRINT", ""}});
  EXPECT_EQ(r.out, "testing 0\nextra 0\n");
  r = Run("extra_in_locale", {}, {"C.UTF-8"});
  EXPECT_EQ(r.out, "testing 0\nextra 6 e3 82 bd e3 83 bc\n");
}

}  // namespace
