// Behaviour chosen from the environment at start-up, observed in fresh processes.
#include <gtest/gtest.h>

#include "support/child_process.h"

namespace {

using zmx_test::ExitedCleanly;
using zmx_test::RunProbe;

std::string RunScenario(const std::string& scenario, const zmx_test::EnvVars& env = {}) {
  const auto result = RunProbe("i18n_probe", scenario, env);
  EXPECT_TRUE(ExitedCleanly(result));
  return result.out;
}

TEST(NaturalOrderSwitch, IsOnUnlessTheVariableIsPresent) {
  EXPECT_EQ(RunScenario("natural_order"), "before 1\nafter 1\ncounted 5\nagain 1\n");
  // Presence alone turns it off, an empty value included.
  EXPECT_EQ(RunScenario("natural_order", {{"ZMX_USE_NATURAL_ORDER_SORT", ""}}),
            "before 1\nafter 0\ncounted 5\nagain 0\n");
  EXPECT_EQ(RunScenario("natural_order", {{"ZMX_USE_NATURAL_ORDER_SORT", "1"}}),
            "before 1\nafter 0\ncounted 5\nagain 0\n");
}

TEST(WordWrap, ProbeCharactersDoNotCountTowardsTheWidthWhenTestingIsOn) {
  // Four bytes of the six-byte probe are skipped as probe bytes, so in testing
  // mode the first line needs one more word to reach the width.
  EXPECT_EQ(RunScenario("wrap_probe", {{"ZEMRIX_LANG", "C.UTF-8"}, {"ZMX_QA_PRINT", ""}, {"QVL_DICT_DIR", ""}}),
            "[\xE3\x82\xBD\xE3\x83\xBC" "aa bb\ncc]\n");
  EXPECT_EQ(RunScenario("wrap_probe", {{"ZEMRIX_LANG", "C.UTF-8"}, {"ZMX_QA_PRINT", ""}}),
            "[\xE3\x82\xBD\xE3\x83\xBC" "aa\nbb cc]\n");
}

}  // namespace

namespace {

// The French dictionary shipped for the example program, found the way the
// README describes.
zmx_test::EnvVars FrenchEnvironment(const char* lang) {
  return {{"ZEMRIX_SUPPORTED_LOCALE", "1"},
          {"ZEMRIX_TRANSLATION_DICTIONARY", "fr_FR/fr_FR_Dict.py"},
          {"ZEMRIX_LANG", lang},
          {"ZEM_PATH", std::string(ZMX_SOURCE_DIR) + "/examples/dictionaries"}};
}

TEST(FrenchDictionary, TranslatesTheExampleMessagesWithReorderingEscapesAndAccents) {
  const auto r = zmx_test::RunProbe("i18n_probe", "french", FrenchEnvironment("C.UTF-8"));
  ASSERT_TRUE(zmx_test::ExitedCleanly(r));
  EXPECT_EQ(r.out,
            "ZMXUTI_CoreUtils est pr\xC3\xAAt (profondeur 6), servi par general heap.\n"
            "Allocation par chaque point d'entr\xC3\xA9" "e :\n"
            "a.inp : 3 erreurs trouv\xC3\xA9" "es\n"
            "Premi\xC3\xA8re ligne\nDeuxi\xC3\xA8me ligne\n"
            "Entre guillemets \xC2\xAB x \xC2\xBB\n"
            "Not in the dictionary\n"
            "Arr\xC3\xAAt termin\xC3\xA9 (profondeur 0).\n");
  EXPECT_EQ(r.err, "");
  // Without the environment the English keys come back.
  const auto english = zmx_test::RunProbe("i18n_probe", "french");
  EXPECT_EQ(english.out.substr(0, english.out.find('\n')), "ZMXUTI_CoreUtils is up (depth 6), serving from the general heap.");
  // In the plain "C" locale accents cannot be shown and become '?'.
  const auto plain = zmx_test::RunProbe("i18n_probe", "french", FrenchEnvironment("C"));
  EXPECT_EQ(plain.out.substr(0, plain.out.find('\n')), "ZMXUTI_CoreUtils est pr?t (profondeur 6), servi par general heap.");
}

}  // namespace
