// Behaviour of the copy-on-write string handle: the empty handle, the growth
// policy, sharing and copy-on-write, and the deliberate quirks of searching,
// trimming and substitution.
#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <string>

#include "strings/internal/number_text.h"
#include "tests/strings/test_string.h"

namespace {

// Capacity the growth policy gives to room for n characters.
int ExpectedCapacity(int n) {
  const int k = (n + 17) >> 5;
  return k <= 7 ? 32 * k + 20 : n + 1;
}

std::string Repeat(int n, char c = 'x') { return std::string(static_cast<size_t>(n), c); }

TEST(StringEmpty, EmptyHandlesHaveNoRepresentationAndShareOneStaticText) {
  TestString byDefault;
  TestString fromEmpty("");
  TestString fromNull(static_cast<const char*>(nullptr));
  for (const TestString* s : {&byDefault, &fromEmpty, &fromNull}) {
    EXPECT_EQ(s->Rep(), nullptr);
    EXPECT_EQ(s->Length(), 0);
    EXPECT_TRUE(s->Empty());
    EXPECT_STREQ(s->CStr(), "");
    EXPECT_EQ(s->Find("x", 0), 0);
    EXPECT_EQ((*s)[0], '\0');
  }
  EXPECT_EQ(byDefault.CStr(), fromEmpty.CStr());
  EXPECT_EQ(byDefault.CStr(), fromNull.CStr());

  TestString s("abc");
  TestString copy(s);
  s = "";
  EXPECT_EQ(s.Rep(), nullptr);
  EXPECT_EQ(s.CStr(), byDefault.CStr());
  EXPECT_EQ(copy.Str(), "abc");
  EXPECT_EQ(copy.RefCount(), 1);
  copy = static_cast<const char*>(nullptr);
  EXPECT_EQ(copy.Rep(), nullptr);

  // Erase and trims leave the empty handle alone (no allocation).
  byDefault.Erase(0, 5);
  byDefault.LeftTrim(" ");
  byDefault.RightTrim(" ");
  byDefault.Trim(" ");
  byDefault.Reverse();
  byDefault.ToUpper();
  EXPECT_EQ(byDefault.Rep(), nullptr);
}

TEST(StringGrowth, BlockBoundariesAndSeparateBuffers) {
  for (int n = 1; n <= 300; ++n) {
    const std::string text = Repeat(n);
    TestString s(text.c_str());
    ASSERT_EQ(s.Capacity(), ExpectedCapacity(n)) << n;
    ASSERT_EQ(s.TextIsInline(), n <= 238) << n;
    ASSERT_EQ(s.Str(), text);
  }
  EXPECT_EQ(TestString(Repeat(14).c_str()).Capacity(), 20);
  EXPECT_EQ(TestString(Repeat(15).c_str()).Capacity(), 52);
  EXPECT_EQ(TestString(Repeat(46).c_str()).Capacity(), 52);
  EXPECT_EQ(TestString(Repeat(47).c_str()).Capacity(), 84);
  EXPECT_EQ(TestString(Repeat(238).c_str()).Capacity(), 244);
  EXPECT_EQ(TestString(Repeat(239).c_str()).Capacity(), 240);

  TestString presized(100, atr_StringBase::PRESIZE);
  EXPECT_EQ(presized.Capacity(), 116);
  EXPECT_EQ(presized.Length(), 0);
  EXPECT_STREQ(presized.CStr(), "");
  TestString presizedLong(1000, atr_StringBase::PRESIZE);
  EXPECT_EQ(presizedLong.Capacity(), 1001);
  EXPECT_FALSE(presizedLong.TextIsInline());
}

TEST(StringGrowth, StorageIsReusedOnlyWhenCapacityExceedsTheNewLength) {
  TestString roomy(Repeat(46).c_str());  // capacity 52
  const char* before = roomy.CStr();
  roomy.append("yyyy", 4, 0, 4);  // length 50 = capacity - 2
  roomy.append("y", 1, 0, 1);
  EXPECT_EQ(roomy.CStr(), before);
  EXPECT_EQ(roomy.Capacity(), 52);
  EXPECT_EQ(roomy.Str(), Repeat(46) + "yyyyy");

  roomy.append("z", 1, 0, 1);  // length 51 = capacity - 1 now
  EXPECT_NE(roomy.CStr(), before);
  EXPECT_EQ(roomy.Capacity(), 84);
  EXPECT_EQ(roomy.Str(), Repeat(46) + "yyyyyz");

  // No geometric growth: every append to a long string moves it to n + 1 bytes.
  TestString longer(Repeat(300).c_str());
  for (int i = 1; i <= 3; ++i) {
    longer.append("a", 1, 0, 1);
    EXPECT_EQ(longer.Capacity(), 300 + i + 1);
  }
  EXPECT_EQ(longer.Str(), Repeat(300) + "aaa");

  // Crossing from inline to a separate buffer and keeping the text.
  TestString edge(Repeat(238).c_str());
  edge.append("bbbbb", 5, 0, 5);  // 243 still fits capacity 244
  EXPECT_TRUE(edge.TextIsInline());
  edge.append("c", 1, 0, 1);
  EXPECT_FALSE(edge.TextIsInline());
  EXPECT_EQ(edge.Capacity(), 245);
  EXPECT_EQ(edge.Str(), Repeat(238) + "bbbbbc");
}

TEST(StringSharing, CopiesShareUntilOneEdits) {
  TestString a("hello world");
  TestString b(a);
  EXPECT_EQ(a.Rep(), b.Rep());
  EXPECT_EQ(a.RefCount(), 2);

  b.ToUpper();
  EXPECT_EQ(a.Str(), "hello world");
  EXPECT_EQ(b.Str(), "HELLO WORLD");
  EXPECT_NE(a.Rep(), b.Rep());
  EXPECT_EQ(a.RefCount(), 1);

  // Case changes that change nothing keep the sharing.
  TestString c(b);
  c.ToUpper();
  c.Uncapitalize();  // 'H' is upper: this one does change
  EXPECT_EQ(b.Str(), "HELLO WORLD");
  EXPECT_EQ(c.Str(), "hELLO WORLD");
  TestString d(b);
  d.ToUpper();
  d.Capitalize();
  EXPECT_EQ(d.Rep(), b.Rep());
  TestString digits("123 !?");
  TestString e(digits);
  e.ToLower();
  e.ToUpper();
  EXPECT_EQ(e.Rep(), digits.Rep());

  // Non-const indexing isolates; const indexing does not.
  TestString f(a);
  const TestString& cf = f;
  EXPECT_EQ(cf[1], 'e');
  EXPECT_EQ(f.Rep(), a.Rep());
  f[0] = 'j';
  EXPECT_EQ(a.Str(), "hello world");
  EXPECT_EQ(f.Str(), "jello world");

  // Assignment shares and survives self-assignment.
  TestString g("other");
  g = a;
  EXPECT_EQ(g.Rep(), a.Rep());
  g = g;
  EXPECT_EQ(g.Str(), "hello world");
  EXPECT_EQ(a.RefCount(), 2);

  // operator=(const char*) on a shared handle leaves the sharers untouched.
  g = "new text";
  EXPECT_EQ(a.Str(), "hello world");
  EXPECT_EQ(g.Str(), "new text");
  EXPECT_EQ(a.RefCount(), 1);
}

TEST(StringSharing, TrimAndReverseAlwaysTakeAPrivateCopy) {
  TestString a("abc");
  TestString b(a);
  b.Trim("xyz");  // nothing removed, copied all the same
  EXPECT_NE(a.Rep(), b.Rep());
  EXPECT_EQ(b.Str(), "abc");
  TestString c(a);
  c.Reverse();
  EXPECT_EQ(c.Str(), "cba");
  EXPECT_EQ(a.Str(), "abc");
}

TEST(StringSearch, NotFoundIsTheLength) {
  TestString abc("abc");
  EXPECT_EQ(abc.Find("x", 0), 3);
  EXPECT_EQ(abc.Find("a", 4), 3);
  EXPECT_EQ(abc.Find("c", 2), 2);
  EXPECT_EQ(abc.Find("bc", 0), 1);
  EXPECT_EQ(abc.Find("bcd", 0), 3);
  EXPECT_EQ(abc.Find("", 1), 1);
  EXPECT_EQ(abc.Find("a", 3), 3);

  TestString s("abcabcab");
  EXPECT_EQ(s.rfind("ab", 2, 7), 6);
  EXPECT_EQ(s.rfind("ab", 2, 5), 3);
  EXPECT_EQ(s.rfind("ab", 2, 2), 0);
  EXPECT_EQ(s.rfind("ab", 2, 0), 8);  // last == 0 answers "not found" although 'ab' is at 0
  EXPECT_EQ(s.rfind("ab", 0, 7), 8);
  EXPECT_EQ(s.rfind("zz", 2, 7), 8);
  TestString aaaa("aaaa");
  EXPECT_EQ(aaaa.rfind("aa", 2, 100), 2);  // each search starts one byte after the last hit

  EXPECT_EQ(abc.Substr(1, 100), 2);
  EXPECT_EQ(abc.Substr(1, 1), 1);
  EXPECT_EQ(abc.Substr(3, 5), 0);
}

TEST(StringTrim, TrimRemovesTheSetEverywhere) {
  TestString s(" a b ");
  s.Trim(" ");
  EXPECT_EQ(s.Str(), "ab");
  TestString t("--a-b--");
  t.LeftTrim("-");
  EXPECT_EQ(t.Str(), "a-b--");
  t.RightTrim("-");
  EXPECT_EQ(t.Str(), "a-b");
  TestString all("xxxx");
  all.Trim("x");
  EXPECT_EQ(all.Length(), 0);
  EXPECT_STREQ(all.CStr(), "");
  TestString rightAll("  ");
  rightAll.RightTrim(" ");
  EXPECT_EQ(rightAll.Length(), 0);
  // Nothing to trim at the ends: the sharing stays.
  TestString u("abc");
  TestString v(u);
  v.LeftTrim(" ");
  v.RightTrim(" ");
  EXPECT_EQ(v.Rep(), u.Rep());
}

TEST(StringSubstitute, EverySearchRestartsAtTheBeginning) {
  TestString s("a");
  s.Substitute(TestString("a"), TestString("aa"), 3);
  EXPECT_EQ(s.Str(), "aaaa");
  TestString t("x-y-z");
  t.Substitute(TestString("-"), TestString(""), 100);
  EXPECT_EQ(t.Str(), "xyz");
  TestString u("a-b");
  u.Substitute(TestString("-"), TestString("+"), 0);
  u.Substitute(TestString(""), TestString("+"), 5);
  EXPECT_EQ(u.Str(), "a-b");
  TestString v("%1 and %1");
  v.Substitute(TestString("%1"), TestString("x"), 1);
  EXPECT_EQ(v.Str(), "x and %1");
  TestString empty;
  empty.Substitute(TestString("a"), TestString("b"), 1);
  EXPECT_EQ(empty.Rep(), nullptr);
  // The string itself as replacement.
  TestString w("ab");
  w.Substitute(TestString("b"), w, 1);
  EXPECT_EQ(w.Str(), "aab");
}

TEST(StringNumbers, FormatsAndTheExponentFix) {
  EXPECT_EQ(TestString(-42).Str(), "-42");
  EXPECT_EQ(TestString(0).Str(), "0");
  EXPECT_EQ(TestString(4294967295u).Str(), "4294967295");
  EXPECT_EQ(TestString(1e5).Str(), "100000");
  EXPECT_EQ(TestString(1e20).Str(), "1e+20");
  EXPECT_EQ(TestString(1.5e-10).Str(), "1.5e-10");
  EXPECT_EQ(TestString(0.1).Str(), "0.1");
  EXPECT_EQ(TestString(1e100).Str(), "1e+100");
  EXPECT_EQ(TestString(1.0 / 3.0).Str(), "0.333333333333333");
  EXPECT_EQ(TestString(0.1f).Str(), "0.1");
  EXPECT_EQ(TestString(1e-5f).Str(), "1e-05");
  EXPECT_EQ(TestString(123456789.0f).Str(), "1.23457e+08");

  // The fix itself: only a three-digit exponent that starts with '0' loses it.
  const char* cases[][2] = {{"1e+005", "1e+05"}, {"2.5e-010", "2.5e-10"}, {"1e+100", "1e+100"},
                            {"1e05", "1e05"},     {"1e005", "1e05"},      {"1e+0051", "1e+0051"},
                            {"1e0", "1e0"},       {"0.5", "0.5"}};
  for (auto& c : cases) {
    char buffer[32];
    std::strcpy(buffer, c[0]);
    const int n = zmx::atr_internal::FixExponent(buffer, static_cast<int>(std::strlen(buffer)));
    EXPECT_STREQ(buffer, c[1]) << c[0];
    EXPECT_EQ(n, static_cast<int>(std::strlen(c[1])));
  }
}

TEST(StringStorage, BorrowedTextIsCopiedOnlyWhenEdited) {
  char caller[] = "borrowed text";
  TestString b(caller, 8, atr_StringBase::BORROW);
  EXPECT_EQ(b.CStr(), caller);
  EXPECT_EQ(b.Capacity(), 0);
  EXPECT_EQ(b.Length(), 8);
  EXPECT_FALSE(b.TextIsInline());
  TestString shared(b);
  b.append("!", 1, 0, 1);  // shared: private copy
  EXPECT_EQ(b.Str(), "borrowed!");
  EXPECT_EQ(shared.CStr(), caller);
  shared.Erase(0, 2);  // sole owner of borrowed text: still copies
  EXPECT_EQ(shared.Str(), "rrowed");
  EXPECT_NE(shared.CStr(), caller + 2);
  EXPECT_STREQ(caller, "borrowed text");
  TestString single(caller, 4, atr_StringBase::BORROW);
  single.isolate(4);  // capacity 0 is never enough
  EXPECT_NE(single.CStr(), caller);
  EXPECT_EQ(single.Str(), "borr");
  EXPECT_EQ(single.Capacity(), 20);
}

TEST(StringStorage, AdoptedBufferIsOwnedAndSizedByItsLength) {
  char* buffer = static_cast<char*>(mem_Malloc(6));
  std::memcpy(buffer, "adopt", 6);
  TestString a(buffer, 5, atr_StringBase::ADOPT);
  EXPECT_EQ(a.CStr(), buffer);
  EXPECT_EQ(a.Capacity(), 6);
  a.append("ed", 2, 0, 2);  // outgrows the buffer, which is freed
  EXPECT_EQ(a.Str(), "adopted");
  char* small = static_cast<char*>(mem_Malloc(10));
  std::memcpy(small, "abcdefghi", 10);
  TestString b(small, 9, atr_StringBase::ADOPT);
  b.Erase(0, 1);  // capacity 10 > 8: edited in place
  EXPECT_EQ(b.CStr(), small);
  EXPECT_EQ(b.Str(), "bcdefghi");
}

TEST(StringStorage, GetHandsBackTheOldStorage) {
  // Inline sole owner outgrowing its block: the whole old block comes back.
  TestString s("short");
  const void* oldRep = s.Rep();
  void* old = s.get(100);
  EXPECT_EQ(old, oldRep);
  EXPECT_EQ(s.Length(), 0);
  EXPECT_EQ(s.Capacity(), 116);
  EXPECT_EQ(std::memcmp(static_cast<char*>(old) + atr_StringRep::kHeaderBytes, "short", 6), 0);
  mem_Free(old);
  // Separate text: the old text buffer comes back.
  const std::string text = Repeat(300, 'q');
  TestString l(text.c_str());
  const char* oldText = l.CStr();
  void* back = l.get(400);
  EXPECT_EQ(back, oldText);
  EXPECT_EQ(static_cast<char*>(back)[299], 'q');
  mem_Free(back);
  // Room enough or shared: nothing to free.
  TestString r("abc");
  EXPECT_EQ(r.get(5), nullptr);
  TestString sharer(r);
  EXPECT_EQ(r.get(5), nullptr);
  EXPECT_EQ(sharer.Str(), "abc");
  EXPECT_NE(sharer.Rep(), r.Rep());
}

TEST(StringEdit, EditsClampCountsAndTolerateTheirOwnText) {
  TestString s("hello");
  s.insert(5, " world!!", 8, 0, 6);
  EXPECT_EQ(s.Str(), "hello world");
  s.replace(0, 5, "HELLOxx", 7, 0, 5);
  EXPECT_EQ(s.Str(), "HELLO world");
  s.replace(6, atr_StringBase::kAll, "abcdef", 6, 3, atr_StringBase::kAll);
  EXPECT_EQ(s.Str(), "HELLO def");
  s.Erase(5, 100);
  EXPECT_EQ(s.Str(), "HELLO");
  s.Replace(1, 3, "ipp", 3);
  EXPECT_EQ(s.Str(), "HippO");
  s.append("abc", 3, 5, 10);  // from beyond the source: nothing
  EXPECT_EQ(s.Str(), "HippO");

  TestString empty;
  empty.insert(0, "xyz", 3, 1, 2);
  EXPECT_EQ(empty.Str(), "yz");

  // Sources inside the string itself, with and without reallocation.
  TestString self("abcdefghijklmnop");  // 16 bytes, capacity 52
  self.append(self.CStr(), self.Length(), 0, atr_StringBase::kAll);
  EXPECT_EQ(self.Str(), "abcdefghijklmnopabcdefghijklmnop");
  self.append(self.CStr(), self.Length(), 0, atr_StringBase::kAll);  // 64 bytes: moves
  EXPECT_EQ(self.Length(), 64);
  EXPECT_EQ(self.Str(), std::string("abcdefghijklmnopabcdefghijklmnopabcdefghijklmnopabcdefghijklmnop"));
  TestString ins("0123456789");
  ins.insert(2, ins.CStr(), ins.Length(), 5, 3);
  EXPECT_EQ(ins.Str(), "0156723456789");
  TestString rep("abc");
  rep.Replace(1, 1, rep);
  EXPECT_EQ(rep.Str(), "aabcc");
  TestString assign("prefix-rest");
  assign = assign.CStr() + 7;
  EXPECT_EQ(assign.Str(), "rest");

  // SetStringLength stores the length after the caller wrote text and NUL.
  TestString pre(10, atr_StringBase::PRESIZE);
  pre.isolate(10);
  std::memcpy(const_cast<char*>(pre.CStr()), "written", 8);
  pre.SetStringLength(7);
  EXPECT_EQ(pre.Str(), "written");
}

TEST(StringCase, OneByteLettersChangeByThirtyTwo) {
  TestString s("Hello, World 42");
  s.ToUpper();
  EXPECT_EQ(s.Str(), "HELLO, WORLD 42");
  s.ToLower();
  EXPECT_EQ(s.Str(), "hello, world 42");
  s.Capitalize();
  EXPECT_EQ(s.Str(), "Hello, world 42");
  s.Uncapitalize();
  EXPECT_EQ(s.Str(), "hello, world 42");
  TestString digit("1abc");
  digit.Capitalize();
  EXPECT_EQ(digit.Str(), "1abc");
  // Bytes that do not form a character of the locale count as one byte and are not letters.
  TestString high("\xff" "a\xc3\xa9z");
  high.ToUpper();
  EXPECT_EQ(high.Str(), "\xff" "A\xc3\xa9Z");

  // In a UTF-8 locale the walk steps over whole characters, valid or not.
  const std::string previous = std::setlocale(LC_CTYPE, nullptr);
  if (std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr) {
    TestString utf8("\xc3\xa9t\xc3\xa9 \xe2\x82\xac x \xc3" "b");
    utf8.ToUpper();
    EXPECT_EQ(utf8.Str(), "\xc3\xa9T\xc3\xa9 \xe2\x82\xac X \xc3" "B");
    utf8.ToLower();
    EXPECT_EQ(utf8.Str(), "\xc3\xa9t\xc3\xa9 \xe2\x82\xac x \xc3" "b");
    TestString accent("\xc3\xa9t\xc3\xa9");
    TestString sharer(accent);
    accent.Capitalize();  // first character is two bytes: untouched, still shared
    EXPECT_EQ(accent.Rep(), sharer.Rep());
    std::setlocale(LC_CTYPE, previous.c_str());
  }
}

TEST(StringPrv, PublicHandleSharesAndHandsOver) {
  atr_StringBasePrv a("public");
  EXPECT_EQ(a.Length(), 6u);
  EXPECT_STREQ(a.CStr(), "public");
  TestString target("old");
  a.AssignTo(target);
  EXPECT_EQ(target.CStr(), a.CStr());
  EXPECT_EQ(target.Str(), "public");
  EXPECT_EQ(target.RefCount(), 2);
  atr_StringBasePrv b(target);
  EXPECT_EQ(b.CStr(), a.CStr());
  atr_StringBasePrv c;
  EXPECT_EQ(c.Length(), 0u);
  EXPECT_STREQ(c.CStr(), "");
  c = b;
  EXPECT_EQ(c.CStr(), a.CStr());
  EXPECT_EQ(target.RefCount(), 4);
  a.AssignTo(target);  // already sharing: count unchanged
  EXPECT_EQ(target.RefCount(), 4);
  atr_StringBasePrv().AssignTo(target);  // the empty string empties the target
  EXPECT_EQ(target.Rep(), nullptr);
  EXPECT_EQ(b.Length(), 6u);
}

}  // namespace
