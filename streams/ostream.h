// aio_ostream: formatted and raw output over an attached FILE, and the
// manipulators that set its precision, width and flags.
//
//   aio_cout.setf(aio_ios::fixed, aio_ios::scientific | aio_ios::fixed);
//   aio_setprecision(aio_cout, 2).print_double(3.14159);  // "3.14"
//   aio_setwidth(aio_cout, 6).print_int(42);               // "    42", once
//   aio_cout << "\n";
//
// Formats are those of fprintf, built from the flags: "%" [#] [* or -*]
// conversion; with a width the width argument goes first, then the precision
// (doubles), then the value. After an output that used a width, a width set
// with onceWidth is dropped. Every failure (negative fprintf result, short
// write, nothing attached) runs the output failure step: failure bit, plus
// the bad bit when the FILE reports an error.
#ifndef ZMXUTI_STREAMS_OSTREAM_H
#define ZMXUTI_STREAMS_OSTREAM_H

#include <cstdint>

#include "streams/ios.h"

class aio_istream;

class ZMXUTI_API aio_ostream : public aio_ios {
 public:
  constexpr aio_ostream() noexcept = default;

  // fputs without a width; "%*s" / "%-*s" with one.
  aio_ostream& print(const char* s);
  // "d"/"u", "o" or "x" by the base flags; 64-bit forms use "ll".
  aio_ostream& print_int(int v);
  aio_ostream& print_u_int(unsigned int v);
  aio_ostream& print_int64(std::int64_t v);
  aio_ostream& print_u_int64(std::uint64_t v);
  // ".*g", ".*e" or ".*f" by the notation flags, with the stream's precision;
  // "#" when showpoint is set and the precision is 0.
  aio_ostream& print_double(double v);
  // "%#x" of the low 32 bits of the address (the upper half is not printed).
  aio_ostream& print_address(const void* p);
  // One character, padded to the width unless it is a newline (a newline
  // leaves a once-only width in force).
  aio_ostream& put(char c);
  // fwrite of n bytes; fails unless all were written.
  aio_ostream& write(const char* buf, int n);
  // fflush of the attached FILE; an unattached stream flushes every output
  // stream of the runtime.
  aio_ostream& flush();
  // Attaches fdopen(fd, "wb"), owned.
  aio_ostream& adopt(int fd);
  // Copies `in` in blocks of up to 16384 bytes while its state is 0, then flushes.
  aio_ostream& copy(aio_istream& in);

 private:
  // Shared tail of the fprintf-based members: failure step on a negative
  // count, once-only width dropped when a width was used.
  void finishFormatted(int written, bool usedWidth);
};

// The same as s.print(text).
ZMXUTI_API aio_ostream& operator<<(aio_ostream& s, const char* text);

// Manipulators; each returns its stream.
ZMXUTI_API aio_ostream& aio_setprecision(aio_ostream& s, int p);
// Width for the next formatted output only (sets onceWidth).
ZMXUTI_API aio_ostream& aio_setwidth(aio_ostream& s, int w);
// s.setf(bits, 0).
ZMXUTI_API aio_ostream& aio_setiosflags(aio_ostream& s, unsigned int bits);
// s.unsetf(bits).
ZMXUTI_API aio_ostream& aio_resetiosflags(aio_ostream& s, unsigned int bits);

#endif  // ZMXUTI_STREAMS_OSTREAM_H
