// A handle that publishes every protected member of atr_StringBase, for the
// strings tests and probe, the strings benchmark and the string fuzz target.
#ifndef ZMXUTI_TESTS_STRINGS_TEST_STRING_H
#define ZMXUTI_TESTS_STRINGS_TEST_STRING_H

#include <string>

#include "ZMXUTI_CoreUtils.h"

class TestString : public atr_StringBase {
 public:
  TestString() {}
  TestString(const TestString& other) : atr_StringBase(other) {}
  explicit TestString(const char* s) : atr_StringBase(s) {}
  TestString(const char* s, int n) : atr_StringBase(s, n) {}
  TestString(const char* s, int n, Borrow tag) : atr_StringBase(s, n, tag) {}
  TestString(char* s, int n, Adopt tag) : atr_StringBase(s, n, tag) {}
  TestString(int n, PreSizeEnm tag) : atr_StringBase(n, tag) {}
  explicit TestString(int v) : atr_StringBase(v) {}
  explicit TestString(unsigned int v) : atr_StringBase(v) {}
  explicit TestString(float v) : atr_StringBase(v) {}
  explicit TestString(double v) : atr_StringBase(v) {}
  TestString& operator=(const TestString& other) {
    atr_StringBase::operator=(other);
    return *this;
  }
  TestString& operator=(const char* s) {
    atr_StringBase::operator=(s);
    return *this;
  }

  using atr_StringBase::append;
  using atr_StringBase::Capitalize;
  using atr_StringBase::CStr;
  using atr_StringBase::Delete;
  using atr_StringBase::Empty;
  using atr_StringBase::Erase;
  using atr_StringBase::Find;
  using atr_StringBase::get;
  using atr_StringBase::insert;
  using atr_StringBase::isolate;
  using atr_StringBase::Length;
  using atr_StringBase::LeftTrim;
  using atr_StringBase::Rep;
  using atr_StringBase::replace;
  using atr_StringBase::Replace;
  using atr_StringBase::Reverse;
  using atr_StringBase::rfind;
  using atr_StringBase::RightTrim;
  using atr_StringBase::SetStringLength;
  using atr_StringBase::Substitute;
  using atr_StringBase::Substr;
  using atr_StringBase::ToLower;
  using atr_StringBase::ToUpper;
  using atr_StringBase::Trim;
  using atr_StringBase::Uncapitalize;
  using atr_StringBase::operator[];

  std::string Str() const { return std::string(CStr(), static_cast<size_t>(Length())); }
  int Capacity() const { return Rep() != nullptr ? Rep()->Capacity() : -1; }
  int RefCount() const { return Rep() != nullptr ? Rep()->RefCount() : 0; }
  bool TextIsInline() const { return Rep() != nullptr && CStr() == Rep()->InlineText(); }
};

#endif  // ZMXUTI_TESTS_STRINGS_TEST_STRING_H
