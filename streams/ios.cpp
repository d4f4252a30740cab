// The common stream state: flags, attaching and closing, the failure steps.
#include "streams/ios.h"

aio_ios::~aio_ios() {
  if (owns_) close();
}

unsigned int aio_ios::setf(int bits, int mask) {
  const unsigned int old = flags_;
  const unsigned int b = static_cast<unsigned int>(bits);
  const unsigned int m = static_cast<unsigned int>(mask);
  flags_ = (m == 0) ? (old | b) : ((old & ~m) | (b & m));
  return old;
}

unsigned int aio_ios::unsetf(int bits) {
  const unsigned int old = flags_;
  flags_ = old & ~static_cast<unsigned int>(bits);
  return old;
}

int aio_ios::fd() const { return stream_ ? fileno(stream_) : -1; }

bool aio_ios::close() {
  bool failed = false;
  if (stream_) {
    failed = std::fclose(stream_) != 0;
    stream_ = nullptr;
  }
  state_ = 0;
  owns_ = false;
  return failed;
}

aio_ios& aio_ios::attach(FILE* f, bool owns) {
  if (owns_) close();
  stream_ = f;
  owns_ = owns;
  return *this;
}

void aio_ios::setwidth(int w, bool persistent) {
  width_ = w;
  if (!persistent) flags_ |= onceWidth;
}

void aio_ios::failInput() {
  state_ |= failbit;
  if (!stream_) return;
  if (std::ferror(stream_)) {
    state_ |= badbit;
  } else if (std::feof(stream_)) {
    state_ |= eofbit;
  }
}

void aio_ios::failOutput() {
  state_ |= failbit;
  if (stream_ && std::ferror(stream_)) state_ |= badbit;
}
