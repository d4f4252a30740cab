// Numeric helpers: a size parsed from text, a double written with a
// Fortran-like exponent, and a complex number kept in Cartesian or polar form.
//
//   omi_strtoSizeT("0x10");                      // 16
//   aio_cout << omn_QVLdouble(150000, 12, 2);   // "     1.5e+05"
//   omi_complex(1, 2.0, 0.0) == omi_complex(0, 2.0, 0.0);  // true: polar (2, 0) is 2 + 0i
#ifndef ZMXUTI_CORE_NUMERIC_HELPERS_H
#define ZMXUTI_CORE_NUMERIC_HELPERS_H

#include <cstdint>

#include "core/export.h"

class aio_ostream;

// The unsigned 64-bit number at the start of `text`, base from its prefix: 0x
// hexadecimal, a leading 0 octal, otherwise decimal (strtoull with base 0).
// 0 for a null pointer or text without digits; the largest value on overflow.
ZMXUTI_API std::uint64_t omi_strtoSizeT(const char* text);

// A double to be written with "%*.*lg" when a width or a non-default precision
// is set, with "%lg" otherwise. Width and precision above 100 are written as 100.
struct ZMXUTI_API omn_QVLdouble {
  double value;
  std::uint32_t width;      // 0 = none
  std::uint32_t precision;  // 15 = default

  explicit omn_QVLdouble(double v) : value(v), width(0), precision(15) {}
  omn_QVLdouble(double v, std::uint32_t w, std::uint32_t p) : value(v), width(w), precision(p) {}
};

// Formats `d` into one process-wide buffer (not safe for concurrent use) and
// prints it with s.print. A three-digit exponent beginning with 0 ("e+005")
// loses that 0 ("e+05"), and when a width was given one blank goes in front so
// that the width is kept.
ZMXUTI_API aio_ostream& operator<<(aio_ostream& s, const omn_QVLdouble& d);

// A complex number held as (real, imaginary) when form is 0, as (modulus,
// argument in radians) for any other form. Nothing here raises a
// floating-point exception on finite input or on NaN.
class ZMXUTI_API omi_complex {
 public:
  omi_complex() : form_(0), first_(0.0), second_(0.0) {}
  omi_complex(std::uint32_t form, double first, double second)
      : form_(form), first_(first), second_(second) {}

  std::uint32_t Form() const { return form_; }
  bool IsPolar() const { return form_ != 0; }
  double First() const { return first_; }
  double Second() const { return second_; }

  // Same form (both Cartesian or both polar): both fields equal. Different
  // forms: the polar one's real and imaginary parts equal the other's fields.
  // Any NaN makes the numbers unequal.
  bool operator==(const omi_complex& other) const;
  bool operator!=(const omi_complex& other) const { return !(*this == other); }

 protected:
  // modulus × cos(argument) of a polar number; the first field of a Cartesian one.
  double ConvertedReal() const;
  // modulus × sin(argument) of a polar number; the second field of a Cartesian one.
  double ConvertedImag() const;
  // √(re² + im²) of a Cartesian number (infinity, quietly, beyond the range); the first
  // field of a polar one.
  double ConvertedModulus() const;
  // The angle of (re, im) in (−π, π] by quadrant (0 for the origin); the second
  // field of a polar one. NaN when re is NaN.
  double ConvertedArgument() const;

  std::uint32_t form_;
  double first_;
  double second_;
};

#endif  // ZMXUTI_CORE_NUMERIC_HELPERS_H
