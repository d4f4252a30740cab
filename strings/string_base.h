// atr_StringBase: the copy-on-write string handle every string class of the
// library derives from, and atr_StringBasePrv, its public wrapper.
//
// A handle is two fields: the text pointer and the shared representation
// (atr_StringRep). Copies share the representation; a handle that edits a
// representation shared with others first takes its own copy. The empty string
// has no representation and never allocates. Lengths and positions are signed
// 32-bit byte counts; searches that find nothing return the string's length.
//
//   class Name : public atr_StringBase {
//    public:
//     explicit Name(const char* s) : atr_StringBase(s) {}
//     void Shout() { ToUpper(); append("!", 1, 0, 1); }
//     using atr_StringBase::CStr;
//   };
//   Name a("abc");
//   Name b(a);      // shares a's representation, no allocation
//   b.Shout();      // b copies first: a stays "abc", b becomes "ABC!"
//
// Positions must lie in 0..Length(); counts larger than what remains are
// clamped (2147483647 means "all the rest"). As a safety net, positions outside
// that range are clamped into it and negative counts are taken as 0.
#ifndef ZMXUTI_STRINGS_STRING_BASE_H
#define ZMXUTI_STRINGS_STRING_BASE_H

#include "core/export.h"
#include "strings/string_rep.h"

class ZMXUTI_API atr_StringBase {
 public:
  // Constructor tags.
  enum Borrow { BORROW };      // use the caller's storage without copying it
  enum Adopt { ADOPT };        // take ownership of a buffer freeable by mem_Free
  enum PreSizeEnm { PRESIZE };  // reserve room, leave the text empty

  // "All the rest" for every count argument.
  static constexpr int kAll = 2147483647;

 protected:
  // ---- construction and assignment ----
  atr_StringBase() : m_text(nullptr), m_rep(nullptr) {}
  atr_StringBase(const atr_StringBase& other) : m_text(other.m_text), m_rep(other.m_rep) {
    if (m_rep != nullptr) m_rep->Increment();
  }
  // Copies text up to its NUL; null or "" gives the empty string (no representation).
  explicit atr_StringBase(const char* text);
  // Copies exactly n bytes and terminates them.
  atr_StringBase(const char* text, int n);
  // No copy: the handle points at the caller's n bytes (which must stay valid
  // and NUL-terminated at n until the handle is edited or released).
  atr_StringBase(const char* text, int n, Borrow);
  // No copy: takes ownership of text (n bytes plus NUL, released with mem_Free).
  atr_StringBase(char* text, int n, Adopt);
  // Room for n characters, empty text.
  atr_StringBase(int n, PreSizeEnm);
  // Numbers: "%d", "%u", "%g" of the float widened to double, "%.15g"; the two
  // floating forms drop the leading 0 of a three-digit exponent ("1e+005" -> "1e+05").
  explicit atr_StringBase(int value);
  explicit atr_StringBase(unsigned int value);
  explicit atr_StringBase(float value);
  explicit atr_StringBase(double value);

  ~atr_StringBase() {
    if (m_rep != nullptr && m_rep->Decrement()) Delete();
  }

  // Shares other's representation; safe for self-assignment (count raised first).
  atr_StringBase& operator=(const atr_StringBase& other) {
    if (other.m_rep != nullptr) other.m_rep->Increment();
    if (m_rep != nullptr && m_rep->Decrement()) Delete();
    m_text = other.m_text;
    m_rep = other.m_rep;
    return *this;
  }
  // Copies text; null or "" releases the representation and leaves the handle empty.
  atr_StringBase& operator=(const char* text);

  // ---- reading ----
  int Length() const { return m_rep != nullptr ? m_rep->Length() : 0; }
  // The text, or the library's one static empty text for the empty handle.
  const char* CStr() const { return m_rep != nullptr ? m_text : s_emptyText; }
  bool Empty() const { return m_rep == nullptr || m_rep->Length() == 0; }
  // Byte i, no bounds check.
  char operator[](int i) const { return CStr()[i]; }
  // Byte i of a private copy (isolates first).
  char& operator[](int i);
  // The representation (null for the empty string); lets callers tell shared copies apart.
  const atr_StringRep* Rep() const { return m_rep; }
  // Text and length of another handle, for derived classes working on base references.
  static const char* TextOf(const atr_StringBase& s) { return s.CStr(); }
  static int LengthOf(const atr_StringBase& s) { return s.Length(); }

  // Stores n as the length and nothing else: the caller has written the text and its NUL.
  void SetStringLength(int n);

  // ---- copy-on-write primitives ----
  // Makes the representation private to this handle with room for n characters, keeping the text.
  void isolate(int n);
  // Makes room for n characters without keeping the text. Returns storage that
  // still holds the old text (or null): the caller copies what it needs from the
  // old text pointer and then releases it with mem_Free.
  void* get(int n);
  // Releases the representation (text too when owned) and empties the handle.
  void Delete();

  // ---- editing ----
  // Appends min(srcLen - from, count) bytes of src starting at from.
  void append(const char* src, int srcLen, int from, int count);
  // Inserts min(srcLen - from, count) bytes of src (from offset from) at pos.
  void insert(int pos, const char* src, int srcLen, int from, int count);
  // Replaces min(Length - pos, count) bytes at pos by min(srcLen - from, count2) bytes of src from offset from.
  void replace(int pos, int count, const char* src, int srcLen, int from, int count2);
  void Replace(int pos, int count, const atr_StringBase& s);
  void Replace(int pos, int count, const char* s, int n);
  // Removes min(count, Length - pos) bytes at pos.
  void Erase(int pos, int count);

  // ---- searching ----
  // First occurrence of s at or after from; Length() when none or from > Length() (0 on the empty handle).
  int Find(const char* s, int from) const;
  // Last occurrence (of the n bytes of s) at an offset of at most last; Length()
  // when none, and whenever n or last is 0.
  int rfind(const char* s, int n, int last) const;
  // Bytes a substring at pos may take: min(count, Length - pos).
  int Substr(int pos, int count) const;

  // ---- trimming, case, order ----
  void LeftTrim(const char* set);
  void RightTrim(const char* set);
  // Removes every byte of set anywhere in the string, not only at its ends.
  void Trim(const char* set);
  // One-byte characters (by mblen in the current locale) change case by 32; copies only if something changes.
  void ToLower();
  void ToUpper();
  void Capitalize();
  void Uncapitalize();
  // Reverses the bytes.
  void Reverse();
  // Up to maxCount times: find `what` from offset 0 and replace it by `with`.
  // Every search restarts at 0, so inserted text can match again.
  void Substitute(const atr_StringBase& what, const atr_StringBase& with, int maxCount);

 private:
  friend class atr_StringBasePrv;

  void CreateRep(int room, int length);
  void ReleaseRepStorage();
  void ChangeCase(bool toUpper);
  void Splice(int pos, int removed, const char* src, int added);

  static const char s_emptyText[1];

  char* m_text;          // first byte of the text (inline, separate or borrowed storage)
  atr_StringRep* m_rep;  // null for the empty string
};

// The public handle over atr_StringBase: shares like the base and lets any
// caller hold, pass and hand over a string.
class ZMXUTI_API atr_StringBasePrv : public atr_StringBase {
 public:
  atr_StringBasePrv() {}
  atr_StringBasePrv(const atr_StringBasePrv& other) : atr_StringBase(other) {}
  atr_StringBasePrv(const atr_StringBase& other) : atr_StringBase(other) {}
  atr_StringBasePrv(const char* text) : atr_StringBase(text) {}
  ~atr_StringBasePrv() {}
  atr_StringBasePrv& operator=(const atr_StringBasePrv& other) {
    atr_StringBase::operator=(other);
    return *this;
  }
  atr_StringBasePrv& operator=(const atr_StringBase& other) {
    atr_StringBase::operator=(other);
    return *this;
  }
  unsigned long long Length() const { return static_cast<unsigned long long>(atr_StringBase::Length()); }
  // The text (the static empty text for the empty string).
  const char* CStr() const { return atr_StringBase::CStr(); }
  // Makes target share this representation (count raised first, then target's old one released).
  void AssignTo(atr_StringBase& target) const { target.operator=(*this); }
};

#endif  // ZMXUTI_STRINGS_STRING_BASE_H
