// Natural-order comparison of byte strings and the natural-order switch.
#include "strings/natural_order.h"

namespace {

int g_naturalOrder = 1;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Runs without a leading zero: the longer run is the larger number; for runs
// of equal length the first differing digit (remembered in bias) decides.
int CompareIntegerRuns(const char* p, const char* q) {
  int bias = 0;
  for (; IsDigit(*p); ++p, ++q) {
    if (!IsDigit(*q)) return 1;
    if (bias == 0) {
      if (*p < *q) bias = -1;
      else if (*p > *q) bias = 1;
    }
  }
  return IsDigit(*q) ? -1 : bias;
}

// Runs with a leading zero read as fractional digits: the first difference decides.
int CompareFractionRuns(const char* p, const char* q) {
  for (; IsDigit(*p); ++p, ++q) {
    if (!IsDigit(*q)) return 1;
    if (*p < *q) return -1;
    if (*p > *q) return 1;
  }
  return IsDigit(*q) ? -1 : 0;
}

}  // namespace

int strnatcmp(const char* a, const char* b) {
  for (long i = 0;; ++i) {
    const signed char ca = static_cast<signed char>(a[i]);
    const signed char cb = static_cast<signed char>(b[i]);
    if (IsDigit(ca) && IsDigit(cb)) {
      const int result = (ca == '0' || cb == '0') ? CompareFractionRuns(a + i, b + i)
                                                  : CompareIntegerRuns(a + i, b + i);
      if (result != 0) return result;
    }
    if (ca == 0 && cb == 0) return 0;
    if (ca < cb) return -1;
    if (ca > cb) return 1;
  }
}

void atr_setNaturalOrder(int on) { g_naturalOrder = on; }

int atr_getNaturalOrder() { return g_naturalOrder; }
