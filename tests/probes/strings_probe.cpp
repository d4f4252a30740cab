// Fresh-process scenarios for the strings component: the ATR_SUMMARY
// allocation statistics (switched once per process at start-up and reported at
// shut-down) and the length-limit abort.
#include <cstdio>
#include <cstring>
#include <string>

#include "ZMXUTI_CoreUtils.h"
#include "probes/probe_main.h"
#include "tests/strings/test_string.h"

namespace {

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
    TestString a("hello");
    TestString b(a);
    b.append(" world", 6, 0, 6);
    b.append("0123456789", 10, 0, 10);
    TestString c(longText.c_str());
    TestString d(borrowed, 4, atr_StringBase::BORROW);
  }
  Down();
}

// Assignment that outgrows its block (get), a replacement through a temporary
// string, an erase to nothing and the release by assigning "".
void Edits() {
  Up();
  {
    TestString e("abc");
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
  TestString survivor(adopted, 3, atr_StringBase::ADOPT);
  {
    char borrowed[] = "abcd";
    const std::string longText(500, 'y');
    TestString b(borrowed, 4, atr_StringBase::BORROW);
    TestString l(longText.c_str());
  }
  Down();
}

// The report comes from the shut-down that brings the component's counter to 0.
void Nested() {
  int depth = 0;
  Up();
  atr_initialize(depth);
  { TestString s("counted"); }
  atr_finalize(depth);
  std::fprintf(stderr, "inner shut-down done\n");
  Down();
  std::fprintf(stderr, "outer shut-down done\n");
}

// A text longer than a signed 32-bit length can hold.
void LengthLimit() {
  Up();
  static const char tiny[] = "x";
  TestString huge(tiny, 2147483646, atr_StringBase::BORROW);
  huge.append("y", 1, 0, 1);
  std::printf("not reached\n");
}

const zmx_probe::Scenario kScenarios[] = {
    {"mixed", Mixed}, {"edits", Edits}, {"no_inline", NoInline}, {"nested", Nested}, {"length_limit", LengthLimit},
};

}  // namespace

int main(int argc, char** argv) { return zmx_probe::Dispatch(argc, argv, kScenarios); }
