// Fresh-process scenarios for the strings component: the ATR_SUMMARY
// allocation statistics (switched once per process at start-up and reported at
// shut-down) and the length-limit abort.
#include <cstdio>
#include <cstring>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "probes/probe_main.h"

namespace {

// Publishes the members the scenarios need.
class ProbeString : public atr_StringBase {
 public:
  explicit ProbeString(const char* s) : atr_StringBase(s) {}
  ProbeString(const char* s, int n, Borrow tag) : atr_StringBase(s, n, tag) {}
  ProbeString(char* s, int n, Adopt tag) : atr_StringBase(s, n, tag) {}
  ProbeString(const ProbeString& other) : atr_StringBase(other) {}
  ProbeString& operator=(const char* s) {
    atr_StringBase::operator=(s);
    return *this;
  }
  using atr_StringBase::append;
  using atr_StringBase::Erase;
  using atr_StringBase::Replace;
};

void Up() {
  int depth = 0;
  UTI_CoreUtils_initialize(depth);
}

void Down() {
  int depth = 0;
  UTI_CoreUtils_finalize(depth);
}

// Two inline strings sharing, a copy on write, one growth out of a 32-byte
// block, one long text and one borrowed text.
void Mixed() {
  Up();
  {
    char borrowed[] = "abcd";
    const std::string longText(300, 'x');
    ProbeString a("hello");
    ProbeString b(a);
    b.append(" world", 6, 0, 6);
    b.append("0123456789", 10, 0, 10);
    ProbeString c(longText.c_str());
    ProbeString d(borrowed, 4, atr_StringBase::BORROW);
  }
  Down();
}

// Assignment that outgrows its block (get), a replacement through a temporary
// string, an erase to nothing and the release by assigning "".
void Edits() {
  Up();
  {
    ProbeString e("abc");
    e = "012345678901234567890123456789";
    e.Replace(0, 1, "ZZ", 2);
    e.Erase(0, 31);
    e = "";
  }
  Down();
}

// Only header-only representations; one of them still alive at shut-down.
void NoInline() {
  Up();
  char* adopted = static_cast<char*>(mem_Malloc(4));
  std::memcpy(adopted, "xyz", 4);
  ProbeString survivor(adopted, 3, atr_StringBase::ADOPT);
  {
    char borrowed[] = "abcd";
    const std::string longText(500, 'y');
    ProbeString b(borrowed, 4, atr_StringBase::BORROW);
    ProbeString l(longText.c_str());
  }
  Down();
}

// The report comes from the shut-down that brings the component's counter to 0.
void Nested() {
  int depth = 0;
  Up();
  atr_initialize(depth);
  { ProbeString s("counted"); }
  atr_finalize(depth);
  std::fprintf(stderr, "inner shut-down done\n");
  Down();
  std::fprintf(stderr, "outer shut-down done\n");
}

// A text longer than a signed 32-bit length can hold.
void LengthLimit() {
  Up();
  static const char tiny[] = "x";
  ProbeString huge(tiny, 2147483646, atr_StringBase::BORROW);
  huge.append("y", 1, 0, 1);
  std::printf("not reached\n");
}

const zmx_probe::Scenario kScenarios[] = {
    {"mixed", Mixed}, {"edits", Edits}, {"no_inline", NoInline}, {"nested", Nested}, {"length_limit", LengthLimit},
};

}  // namespace

int main(int argc, char** argv) { return zmx_probe::Dispatch(argc, argv, kScenarios); }
