// Numeric helpers: size parsing, the Fortran-like double output and the
// complex-number conversions. The library runs with the invalid, divide-by-zero
// and overflow traps on, so the conversions compare quietly and steer around
// every operation that could raise one of them on ordinary input.
#include "core/numeric_helpers.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "streams/ostream.h"

namespace {

constexpr std::uint32_t kMaxField = 100;  // largest width or precision honoured
constexpr std::uint32_t kDefaultPrecision = 15;
constexpr double kPi = 3.14159265358979323846;
// Below this magnitude both squares and their sum stay finite.
constexpr double kSquareSafe = 1e153;

// The output buffer of omn_QVLdouble: room for the largest honoured field.
char g_qvlText[2 * kMaxField + 64];

// "e+005" becomes "e+05"; true when the exponent was shortened.
bool ShortenExponent(char* text) {
  if (std::strlen(text) < 4) return false;
  char* e = std::strchr(text, 'e');
  if (e == nullptr || (e[1] != '+' && e[1] != '-')) return false;
  char* digits = e + 2;
  if (std::strlen(digits) != 3 || digits[0] != '0') return false;
  std::memmove(digits, digits + 1, 3);  // with the terminator
  return true;
}

void PutBlankInFront(char* text) {
  std::memmove(text + 1, text, std::strlen(text) + 1);
  text[0] = ' ';
}

// m × t where an infinite m meets a zero t as a zero of the product's sign
// (IEEE would raise invalid), so that a polar number on an axis converts quietly.
double QuietScale(double m, double t) {
  if (t == 0.0 && std::isinf(m)) return std::signbit(m) != std::signbit(t) ? -0.0 : 0.0;
  return m * t;
}

// atan(im / re) for re ≠ 0 without the quotient's overflow or inf/inf.
double AtanOfRatio(double im, double re) {
  const bool negative = std::signbit(im) != std::signbit(re);
  if (std::isinf(im) && std::isinf(re)) return negative ? -kPi / 4 : kPi / 4;
  const double absRe = std::fabs(re);
  if (std::isless(absRe, 1.0) &&
      std::isgreater(std::fabs(im), absRe * std::numeric_limits<double>::max())) {
    return negative ? -kPi / 2 : kPi / 2;
  }
  return std::atan(im / re);
}

}  // namespace

std::uint64_t omi_strtoSizeT(const char* text) {
  if (text == nullptr) return 0;
  return std::strtoull(text, nullptr, 0);
}

aio_ostream& operator<<(aio_ostream& s, const omn_QVLdouble& d) {
  const std::uint32_t width = d.width < kMaxField ? d.width : kMaxField;
  const std::uint32_t precision = d.precision < kMaxField ? d.precision : kMaxField;
  int produced;
  if (d.width != 0 || d.precision != kDefaultPrecision) {
    produced = std::snprintf(g_qvlText, sizeof g_qvlText, "%*.*lg", static_cast<int>(width),
                             static_cast<int>(precision), d.value);
  } else {
    produced = std::snprintf(g_qvlText, sizeof g_qvlText, "%lg", d.value);
  }
  if (produced <= 0) return s;
  if (ShortenExponent(g_qvlText) && d.width != 0) PutBlankInFront(g_qvlText);
  return s.print(g_qvlText);
}

double omi_complex::ConvertedReal() const {
  if (!IsPolar()) return first_;
  if (std::isinf(second_)) return std::numeric_limits<double>::quiet_NaN();  // cos(inf) is invalid
  return QuietScale(first_, std::cos(second_));
}

double omi_complex::ConvertedImag() const {
  if (!IsPolar()) return second_;
  if (std::isinf(second_)) return std::numeric_limits<double>::quiet_NaN();
  return QuietScale(first_, std::sin(second_));
}

double omi_complex::ConvertedModulus() const {
  if (IsPolar()) return first_;
  if (std::isless(std::fabs(first_), kSquareSafe) && std::isless(std::fabs(second_), kSquareSafe)) {
    return std::sqrt(first_ * first_ + second_ * second_);
  }
  // Halved parts keep hypot's own result finite; a modulus beyond the range
  // is infinity without the overflow exception.
  const double half = std::hypot(first_ / 2, second_ / 2);
  if (std::isgreater(half, std::numeric_limits<double>::max() / 2)) return HUGE_VAL;
  return half * 2;
}

double omi_complex::ConvertedArgument() const {
  if (IsPolar()) return second_;
  const double re = first_, im = second_;
  if (std::isgreater(re, 0.0)) return im == 0.0 ? 0.0 : AtanOfRatio(im, re);
  if (std::isless(re, 0.0)) {
    if (std::isgreater(im, 0.0)) return AtanOfRatio(im, re) + kPi;
    if (std::isless(im, 0.0)) return AtanOfRatio(im, re) - kPi;
    return kPi;
  }
  if (re == 0.0) {
    if (std::isgreater(im, 0.0)) return kPi / 2;
    if (std::isless(im, 0.0)) return -kPi / 2;
    return 0.0;
  }
  return re;  // NaN
}

bool omi_complex::operator==(const omi_complex& other) const {
  if (IsPolar() == other.IsPolar()) return first_ == other.first_ && second_ == other.second_;
  const omi_complex& polar = IsPolar() ? *this : other;
  const omi_complex& cartesian = IsPolar() ? other : *this;
  return polar.ConvertedReal() == cartesian.first_ && polar.ConvertedImag() == cartesian.second_;
}
