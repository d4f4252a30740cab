// Formatted and raw input of aio_istream. Formats follow the base flags;
// an unattached stream fails without reaching the runtime.
#include "streams/istream.h"

#include <cstring>

#include "streams/internal/format_choice.h"

using zmx::streams_internal::BaseOf;

void aio_istream::checkScan(int converted) {
  if (!stream_ || converted == 0 || converted == EOF) failInput();
}

int aio_istream::scan_int() {
  static const char* const kFormats[] = {"%d", "%o", "%x"};
  int value = 0;
  if (!stream_) {
    failInput();
    return value;
  }
  const int base = BaseOf(flags_);
  int converted;
  if (base == 0) {
    converted = std::fscanf(stream_, kFormats[0], &value);
  } else {
    unsigned int bits = 0;
    converted = std::fscanf(stream_, kFormats[base], &bits);
    value = static_cast<int>(bits);
  }
  checkScan(converted);
  return value;
}

unsigned int aio_istream::scan_u_int() {
  static const char* const kFormats[] = {"%u", "%o", "%x"};
  unsigned int value = 0;
  if (!stream_) {
    failInput();
    return value;
  }
  checkScan(std::fscanf(stream_, kFormats[BaseOf(flags_)], &value));
  return value;
}

std::int64_t aio_istream::scan_int64() {
  static const char* const kFormats[] = {"%lld", "%llo", "%llx"};
  long long value = 0;
  if (!stream_) {
    failInput();
    return value;
  }
  const int base = BaseOf(flags_);
  int converted;
  if (base == 0) {
    converted = std::fscanf(stream_, kFormats[0], &value);
  } else {
    unsigned long long bits = 0;
    converted = std::fscanf(stream_, kFormats[base], &bits);
    value = static_cast<long long>(bits);
  }
  checkScan(converted);
  return value;
}

std::uint64_t aio_istream::scan_u_int64() {
  static const char* const kFormats[] = {"%llu", "%llo", "%llx"};
  unsigned long long value = 0;
  if (!stream_) {
    failInput();
    return value;
  }
  checkScan(std::fscanf(stream_, kFormats[BaseOf(flags_)], &value));
  return value;
}

double aio_istream::scan_double() {
  double value = 0;
  if (!stream_) {
    failInput();
    return value;
  }
  checkScan(std::fscanf(stream_, "%lg", &value));
  return value;
}

float aio_istream::scan_float() {
  float value = 0;
  if (!stream_) {
    failInput();
    return value;
  }
  checkScan(std::fscanf(stream_, "%e", &value));
  return value;
}

char aio_istream::scan_char() {
  char c = 0;
  if (!stream_) {
    failInput();
    return 0;
  }
  const int converted = std::fscanf(stream_, "%c", &c);
  if (converted == 0 || converted == EOF) {
    failInput();
    return 0;
  }
  return c;
}

aio_istream& aio_istream::scan_string(char* buf) {
  if (!stream_ || std::fscanf(stream_, "%s", buf) == EOF) {
    failInput();
    buf[0] = '\0';
  }
  return *this;
}

aio_istream& aio_istream::getline(char* buf, int n) {
  if (!stream_) {
    failInput();
    return *this;
  }
  if (!std::fgets(buf, n, stream_)) {
    failInput();
    return *this;
  }
  const int len = static_cast<int>(std::strlen(buf));
  if (len > 0 && buf[len - 1] == '\n') {
    buf[len - 1] = '\0';
    return *this;
  }
  // Kept behaviour: newline bytes lying behind the terminator are cleared too.
  if (len < n) {
    for (int i = len; i < n; ++i) {
      if (buf[i] == '\n') buf[i] = '\0';
    }
  }
  failInput();
  setState(eofbit);
  return *this;
}

int aio_istream::peek() {
  if (!stream_) {
    failInput();
    return -1;
  }
  const int c = std::getc(stream_);
  if (c == EOF) {
    failInput();
    return -1;
  }
  std::ungetc(c, stream_);
  return c;
}

aio_istream& aio_istream::putback(char c) {
  if (!stream_) {
    failInput();
    return *this;
  }
  // The character is sign-extended, so 0xFF becomes EOF and is refused.
  const int result = std::ungetc(static_cast<int>(c), stream_);
  if ((result & 0xFF) == 0xFF) failInput();
  return *this;
}

int aio_istream::read(char* buf, int n) {
  if (!stream_ || n < 0) {
    failInput();
    return 0;
  }
  const std::size_t got = std::fread(buf, 1, static_cast<std::size_t>(n), stream_);
  if (got < static_cast<std::size_t>(n)) {
    buf[got] = '\0';
    failInput();
  }
  return static_cast<int>(got);
}

aio_istream& aio_istream::ignore(int n, int delim) {
  if (n < 1) return *this;
  if (!stream_) {
    failInput();
    return *this;
  }
  for (int consumed = 0; consumed < n;) {
    const int c = std::getc(stream_);
    if (c == EOF) {
      setState(eofbit);
      break;
    }
    ++consumed;
    if (c == delim) break;
  }
  return *this;
}

int aio_istream::get() {
  if (!stream_) {
    failInput();
    return -1;
  }
  const int c = std::fgetc(stream_);
  if (c == EOF) {
    failInput();
    return -1;
  }
  return c;
}

aio_istream& aio_istream::adopt(int fd) {
  attach(fdopen(fd, "r"), true);
  return *this;
}
