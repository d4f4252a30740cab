// Formatted and raw output of aio_ostream. The fprintf formats come from
// fixed tables indexed by padding, base and notation, so each call costs no
// more than the fprintf it makes.
#include "streams/ostream.h"

#include <cstring>

#include "streams/internal/format_choice.h"
#include "streams/istream.h"

using zmx::streams_internal::BaseOf;
using zmx::streams_internal::NotationOf;
using zmx::streams_internal::PaddingOf;

namespace {

// [padding][base]: padding 0 none, 1 "*", 2 "-*"; base 0 decimal, 1 octal, 2 hex.
const char* const kIntFormats[3][3] = {{"%d", "%o", "%x"}, {"%*d", "%*o", "%*x"}, {"%-*d", "%-*o", "%-*x"}};
const char* const kUintFormats[3][3] = {{"%u", "%o", "%x"}, {"%*u", "%*o", "%*x"}, {"%-*u", "%-*o", "%-*x"}};
const char* const kInt64Formats[3][3] = {
    {"%lld", "%llo", "%llx"}, {"%*lld", "%*llo", "%*llx"}, {"%-*lld", "%-*llo", "%-*llx"}};
const char* const kUint64Formats[3][3] = {
    {"%llu", "%llo", "%llx"}, {"%*llu", "%*llo", "%*llx"}, {"%-*llu", "%-*llo", "%-*llx"}};
// [alternate form][padding][notation]: notation 0 "g", 1 "e", 2 "f".
const char* const kDoubleFormats[2][3][3] = {
    {{"%.*g", "%.*e", "%.*f"}, {"%*.*g", "%*.*e", "%*.*f"}, {"%-*.*g", "%-*.*e", "%-*.*f"}},
    {{"%#.*g", "%#.*e", "%#.*f"}, {"%#*.*g", "%#*.*e", "%#*.*f"}, {"%#-*.*g", "%#-*.*e", "%#-*.*f"}}};
const char* const kAddressFormats[3] = {"%#x", "%#*x", "%#-*x"};
const char* const kStringFormats[3] = {"%s", "%*s", "%-*s"};
const char* const kCharFormats[3] = {"%c", "%*c", "%-*c"};

constexpr int kCopyBlock = 16384;

// One fprintf with the width first when there is one.
template <class T>
int PrintPadded(FILE* f, const char* const* formats, int padding, int width, T value) {
  if (padding == 0) return std::fprintf(f, formats[0], value);
  return std::fprintf(f, formats[padding], width, value);
}

template <class T>
int PrintInteger(FILE* f, const char* const (*table)[3], unsigned int flags, int width, T value) {
  const int padding = PaddingOf(flags, width);
  const int base = BaseOf(flags);
  if (padding == 0) return std::fprintf(f, table[0][base], value);
  return std::fprintf(f, table[padding][base], width, value);
}

}  // namespace

void aio_ostream::finishFormatted(int written, bool usedWidth) {
  if (written < 0) failOutput();
  if (usedWidth) widthUsed();
}

aio_ostream& aio_ostream::print(const char* s) {
  if (!stream_ || !s) {
    failOutput();
    return *this;
  }
  if (width_ == 0) {
    if (std::fputs(s, stream_) < 0) failOutput();
    return *this;
  }
  finishFormatted(PrintPadded(stream_, kStringFormats, PaddingOf(flags_, width_), width_, s), true);
  return *this;
}

aio_ostream& aio_ostream::print_int(int v) {
  if (!stream_) {
    failOutput();
    return *this;
  }
  finishFormatted(PrintInteger(stream_, kIntFormats, flags_, width_, v), width_ != 0);
  return *this;
}

aio_ostream& aio_ostream::print_u_int(unsigned int v) {
  if (!stream_) {
    failOutput();
    return *this;
  }
  finishFormatted(PrintInteger(stream_, kUintFormats, flags_, width_, v), width_ != 0);
  return *this;
}

aio_ostream& aio_ostream::print_int64(std::int64_t v) {
  if (!stream_) {
    failOutput();
    return *this;
  }
  finishFormatted(PrintInteger(stream_, kInt64Formats, flags_, width_, static_cast<long long>(v)), width_ != 0);
  return *this;
}

aio_ostream& aio_ostream::print_u_int64(std::uint64_t v) {
  if (!stream_) {
    failOutput();
    return *this;
  }
  finishFormatted(
      PrintInteger(stream_, kUint64Formats, flags_, width_, static_cast<unsigned long long>(v)),
      width_ != 0);
  return *this;
}

aio_ostream& aio_ostream::print_double(double v) {
  if (!stream_) {
    failOutput();
    return *this;
  }
  const int alternate = ((flags_ & showpoint) && precision_ == 0) ? 1 : 0;
  const int padding = PaddingOf(flags_, width_);
  const char* format = kDoubleFormats[alternate][padding][NotationOf(flags_)];
  const int written = padding == 0 ? std::fprintf(stream_, format, precision_, v)
                                   : std::fprintf(stream_, format, width_, precision_, v);
  finishFormatted(written, padding != 0);
  return *this;
}

aio_ostream& aio_ostream::print_address(const void* p) {
  if (!stream_) {
    failOutput();
    return *this;
  }
  // Only the low half of the address is printed, with and without a width.
  const unsigned int low = static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(p));
  finishFormatted(PrintPadded(stream_, kAddressFormats, PaddingOf(flags_, width_), width_, low), width_ != 0);
  return *this;
}

aio_ostream& aio_ostream::put(char c) {
  if (!stream_) {
    failOutput();
    return *this;
  }
  if (width_ != 0 && c != '\n') {
    finishFormatted(PrintPadded(stream_, kCharFormats, PaddingOf(flags_, width_), width_, static_cast<int>(c)),
                    true);
    return *this;
  }
  if (std::fputc(c, stream_) == EOF) failOutput();
  return *this;
}

aio_ostream& aio_ostream::write(const char* buf, int n) {
  if (!stream_ || n < 0) {
    failOutput();
    return *this;
  }
  if (std::fwrite(buf, 1, static_cast<std::size_t>(n), stream_) != static_cast<std::size_t>(n)) failOutput();
  return *this;
}

aio_ostream& aio_ostream::flush() {
  if (std::fflush(stream_) == EOF) failOutput();
  return *this;
}

aio_ostream& aio_ostream::adopt(int fd) {
  attach(fdopen(fd, "wb"), true);
  return *this;
}

aio_ostream& aio_ostream::copy(aio_istream& in) {
  char block[kCopyBlock + 1];
  while (in.rdstate() == 0) {
    const int got = in.read(block, kCopyBlock);
    write(block, got);
  }
  return flush();
}

aio_ostream& operator<<(aio_ostream& s, const char* text) { return s.print(text); }

aio_ostream& aio_setprecision(aio_ostream& s, int p) {
  s.setprecision(p);
  return s;
}

aio_ostream& aio_setwidth(aio_ostream& s, int w) {
  s.setwidth(w, false);
  return s;
}

aio_ostream& aio_setiosflags(aio_ostream& s, unsigned int bits) {
  s.setf(static_cast<int>(bits), 0);
  return s;
}

aio_ostream& aio_resetiosflags(aio_ostream& s, unsigned int bits) {
  s.unsetf(static_cast<int>(bits));
  return s;
}
