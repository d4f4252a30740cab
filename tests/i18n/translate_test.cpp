// Message translation without a dictionary (keys are their own translation):
// conversion parsing, positional and unnumbered arguments, padding, numeric
// formatting by letter and value type, and the deliberate quirks.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "ZMXUTI_CoreUtils.h"

namespace {

std::string Str(const atr_String& s) { return std::string(s.CStr(), s.Length()); }

TEST(Translate, ArgumentsFillTheirSlotsByPosition) {
  atr_translate t("Found %d errors in %s");
  atr_SubstituteFormat(t, 1, 3);
  atr_SubstituteFormat(t, 2, "a.inp");
  EXPECT_EQ(Str(t.Result()), "Found 3 errors in a.inp");

  atr_translate r("%2$s: %1$d");  // a reordering translation puts the string first
  atr_SubstituteFormat(r, 1, 42);
  atr_SubstituteFormat(r, 2, "file");
  EXPECT_EQ(Str(r.Result()), "file: 42");
  EXPECT_STREQ(r.Format(1), "%d");
  EXPECT_STREQ(r.Format(2), "%s");
}

TEST(Translate, UnnumberedConversionsTakeTheFreePositionsInTextOrder) {
  atr_translate t("%2$d then %d then %s");
  EXPECT_STREQ(t.Format(1), "%d");  // the first unnumbered one takes position 1
  EXPECT_STREQ(t.Format(2), "%d");
  EXPECT_STREQ(t.Format(3), "%s");  // the rest follow the count
  atr_SubstituteFormat(t, 1, 1);
  atr_SubstituteFormat(t, 2, 2);
  atr_SubstituteFormat(t, 3, "three");
  EXPECT_EQ(Str(t.Result()), "2 then 1 then three");

  atr_translate many("%5$s%4$s%3$s%2$s%1$s%6$s");  // needs the shell sort
  for (int k = 1; k <= 6; ++k) atr_SubstituteFormat(many, k, std::to_string(k).c_str());
  EXPECT_EQ(Str(many.Result()), "543216");
  EXPECT_EQ(many.Format(0), nullptr);
  EXPECT_EQ(many.Format(7), nullptr);
}

TEST(Translate, PercentSignsNotesAndUnknownConversions) {
  EXPECT_EQ(Str(atr_translate("Done 100%%").Result()), "Done 100%");
  EXPECT_EQ(Str(atr_translate("Load\\@verb").Result()), "Load");
  EXPECT_EQ(Str(atr_raw("Load\\@verb")), "Load");
  EXPECT_EQ(Str(atr_raw("100%% %d")), "100%% %d");  // atr_raw does not parse
  EXPECT_EQ(Str(atr_raw(nullptr)), "");
  EXPECT_EQ(Str(atr_translate(nullptr).Result()), "");

  atr_translate h("a %hd b %ld c");  // only 'l' is skipped; %ld is stored as %d
  EXPECT_STREQ(h.Format(1), "%d");
  EXPECT_EQ(h.Format(2), nullptr);
  atr_SubstituteFormat(h, 1, 7);
  EXPECT_EQ(Str(h.Result()), "a hd b 7 c");

  // "%%s" in a message with arguments becomes "%s" in the template and takes a slot.
  atr_translate quirk("%d%%s!");
  atr_SubstituteFormat(quirk, 1, 5);
  EXPECT_EQ(Str(quirk.Result()), "5!");
  atr_translate plusFlag("[%+d]");
  atr_SubstituteFormat(plusFlag, 1, 5);
  EXPECT_EQ(Str(plusFlag.Result()), "[+d]");
}

TEST(Translate, TextSlotsArePaddedByWidthAndCutByPrecision) {
  auto fill = [](const char* key, const char* text) {
    atr_translate t(key);
    atr_SubstituteFormat(t, 1, text);
    return Str(t.Result());
  };
  EXPECT_EQ(fill("[%-6s]", "ab"), "[ab    ]");
  EXPECT_EQ(fill("[%.1s]", "ab"), "[a]");
  EXPECT_EQ(fill("[%6s]", "ab"), "[    ab]");
  EXPECT_EQ(fill("[%25.3s]", "abcdef"), "[                      abc]");
  EXPECT_EQ(fill("[%-12.9s]", "ab"), "[ab          ]");
  EXPECT_EQ(fill("[%1s]", "abc"), "[abc]");
  EXPECT_EQ(fill("[%d]", "text"), "[text]");  // non-'s' slots take the text as it stands
  atr_translate t("[%s]");
  t.AddSubstitution(0, "x", nullptr);
  t.AddSubstitution(2, "x", nullptr);
  EXPECT_EQ(Str(t.Result()), "[]");
}

template <class V>
std::string Number(const char* key, V value) {
  atr_translate t(key);
  atr_SubstituteFormat(t, 1, value);
  return Str(t.Result());
}

TEST(Translate, NumbersFollowTheSlotLetterAndTheValueType) {
  EXPECT_EQ(Number("%5d", 42), "   42");
  EXPECT_EQ(Number("%x", 255), "ff");
  EXPECT_EQ(Number("%f", 2), "2.000000");       // int into a float letter: width dropped
  EXPECT_EQ(Number("%8.2f", 2), "2.000000");
  EXPECT_EQ(Number("%s", -3), "-3");
  EXPECT_EQ(Number("%d", 4294967295u), "-1");   // unsigned with letter d prints as %d
  EXPECT_EQ(Number("%s", 4294967295u), "4294967295");
  EXPECT_EQ(Number("%e", 1e5), "1.000000e+05");
  EXPECT_EQ(Number("%8.2f", 3.14159), "    3.14");
  EXPECT_EQ(Number("%d", 2.5), "2.500000e+00");  // doubles into other letters: "%e"
  EXPECT_EQ(Number("%g", 0.1f), "0.1");
  // 64-bit integers are formatted with an 'h' modifier (kept as it stands).
  EXPECT_EQ(Number("%d", static_cast<std::int64_t>(70000)), "4464");
  EXPECT_EQ(Number("%s", static_cast<std::int64_t>(-1)), "-1");
  EXPECT_EQ(Number("%d", static_cast<std::uint64_t>(65537)), "1");
  EXPECT_EQ(Number("%x", static_cast<std::uint64_t>(0x12345)), "2345");
  EXPECT_EQ(Number("%s", reinterpret_cast<const void*>(0x10002)), "2");
}

TEST(Translate, FmtRewritesConversionsAndFixExponentShortensThreeDigitExponents) {
  atr_Fmt f("%-5.2d");
  EXPECT_TRUE(f.Ok());
  EXPECT_EQ(f.Letter(), 'd');
  EXPECT_STREQ(f.Format(atr_Fmt::SizeDefault, 0), "%-5.2d");
  EXPECT_STREQ(f.Format(atr_Fmt::Size64, 'u'), "%-5.2hu");
  EXPECT_STREQ(f.FormatNoWidth(atr_Fmt::SizeSmall, 0), "%hd");
  EXPECT_STREQ(f.FormatNoWidth(atr_Fmt::SizeDefault, 'x'), "%x");
  EXPECT_FALSE(atr_Fmt(nullptr).Ok());
  char a[] = "1e+005", b[] = "2.5e-010", c[] = "1e+100", d[] = "1E+005", e[] = "1e+0055";
  atr_translate::FixExponent(a);
  atr_translate::FixExponent(b);
  atr_translate::FixExponent(c);
  atr_translate::FixExponent(d);
  atr_translate::FixExponent(e);
  EXPECT_STREQ(a, "1e+05");
  EXPECT_STREQ(b, "2.5e-10");
  EXPECT_STREQ(c, "1e+100");
  EXPECT_STREQ(d, "1E+005");
  EXPECT_STREQ(e, "1e+0055");
}

TEST(TranslatableString, ReplaceNonTranslatedFillsTheFirstPlaceholderOnly) {
  atr_String s = atr_raw("a %2$d b %2$d");
  s.ReplaceNonTranslated(2, 7);
  EXPECT_EQ(Str(s), "a 7 b %2$d");
  atr_String f = atr_raw("File %s not found");
  f.ReplaceNonTranslated(0, "x.inp");
  EXPECT_EQ(Str(f), "File x.inp not found");
  atr_String g = atr_raw("<%1$s|%s|%d|{n}>");
  g.ReplaceNonTranslated(1, static_cast<const char*>(nullptr)).ReplaceNonTranslated(0, 9);
  g.ReplaceNonTranslated("{n}", "name").ReplaceNonTranslated(0, "s");
  EXPECT_EQ(Str(g), "<|s|9|name>");
  EXPECT_EQ(Str(atr_raw("ab") + atr_String(12)), "ab12");
  EXPECT_EQ(Str(atr_raw("abcdef").Substr(2, 100)), "cdef");
}

TEST(TranslatableString, ExtractSplitsFieldsAndUnquotes) {
  const atr_String s = atr_raw("a,bc,d");
  EXPECT_EQ(Str(s.extract(1, ',')), "bc");
  EXPECT_EQ(Str(s.extract(2, ',')), "d");
  EXPECT_EQ(Str(s.extract(3, ',')), "");
  EXPECT_EQ(Str(atr_raw("a,,d").extract(1, ',')), "");
  EXPECT_EQ(Str(atr_raw("\"x\"\"y\",z").extract(0, ',', '"')), "x\"y");
  EXPECT_EQ(Str(atr_raw("'a,b'").extract(1, ',', '\'')), "b");  // quotes do not protect separators
  EXPECT_EQ(Str(atr_String().extract(0, ',')), "");
}

TEST(TranslatableString, LinesBreakAfterTheWordThatReachesTheWidth) {
  EXPECT_EQ(Str(atr_String::BreakLineString(atr_raw("aaa bbb ccc"), 5)), "aaa bbb\nccc");
  EXPECT_EQ(Str(atr_String::BreakLineString(atr_raw("short"), 5)), "short");
  EXPECT_EQ(Str(atr_String::BreakLineString(atr_raw("aa bb cc dd\n"), 4)), "aa bb\ncc dd\n");
  EXPECT_EQ(Str(atr_String::BreakLineString(atr_raw("one  two"), 3)), "one\n two");
  const atr_String broken = atr_raw("first line\nsecond line here");
  EXPECT_EQ(Str(atr_String::AddLineBreaks(broken, 6, true)), "first line\nsecond line here");
  EXPECT_EQ(Str(atr_String::AddLineBreaks(broken, 6, false)), "first line\nsecond\nline here");
  EXPECT_EQ(Str(atr_String::AddLineBreaks(atr_raw("x y z w"), 3, true)), "x y\nz w");
}

}  // namespace
