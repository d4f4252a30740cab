// aio_ios: the state shared by every stream of the library (attached FILE,
// formatting flags, sticky error state, precision, width, ownership).
//
// Streams are thin wrappers over the runtime's buffered FILE streams; all
// formatting is done by fprintf/fscanf with formats built from the flags:
//
//   aio_ostream out;
//   out.attach(std::fopen("log.txt", "wb"), true);  // closed by the stream
//   out.setf(aio_ios::hex, aio_ios::oct | aio_ios::hex);
//   aio_setwidth(out, 8).print_int(255);            // "      ff", width used once
//
// Errors never throw: they set sticky state bits (1 end of file, 2 failure,
// 4 bad) that only close() clears. A stream is used by one thread at a time.
#ifndef ZMXUTI_STREAMS_IOS_H
#define ZMXUTI_STREAMS_IOS_H

#include <cstdio>

#include "core/export.h"

class ZMXUTI_API aio_ios {
 public:
  // Formatting flag bits.
  enum {
    left = 0x2,          // with a width: left-justify (when right is not also set)
    right = 0x4,         // with a width: right-justify (the default)
    oct = 0x20,          // integers in octal (exactly this bit under 0x70)
    hex = 0x40,          // integers in hexadecimal (exactly this bit under 0x70)
    showpoint = 0x100,   // doubles get "#" when the precision is 0
    scientific = 0x800,  // doubles in "e" notation (exactly this bit under 0x1800)
    fixed = 0x1000,      // doubles in "f" notation (exactly this bit under 0x1800)
    onceWidth = 0x2000   // the width applies to the next formatted output only
  };
  // Error state bits.
  enum { eofbit = 1, failbit = 2, badbit = 4 };
  // Origin of a seek, passed unchanged to fseek.
  enum seek_dir { beg = 0, cur = 1, end = 2 };

  // Closes the FILE when the stream owns it.
  ~aio_ios();
  aio_ios(const aio_ios&) = delete;
  aio_ios& operator=(const aio_ios&) = delete;

  // Returns the old flags. Mask 0 adds the bits; otherwise the bits under the
  // mask are replaced by those of `bits`.
  unsigned int setf(int bits, int mask);
  // Clears the bits; returns the old flags.
  unsigned int unsetf(int bits);

  // Descriptor of the attached FILE (-1 when nothing is attached).
  int fd() const;
  FILE* fptr() const { return stream_; }

  // fcloses an attached FILE (owned or not) and detaches it. Returns true only
  // when fclose failed: false on success and when nothing was attached. In every
  // case the state becomes 0 and the stream stops owning.
  bool close();
  // Closes an owned FILE first, then attaches f. The state is kept when the
  // previous FILE was not owned.
  aio_ios& attach(FILE* f, bool owns);

  unsigned int flags() const { return flags_; }
  unsigned int rdstate() const { return state_; }
  int precision() const { return precision_; }
  int width() const { return width_; }
  bool good() const { return state_ == 0; }
  bool eof() const { return (state_ & eofbit) != 0; }
  bool fail() const { return (state_ & (failbit | badbit)) != 0; }
  bool bad() const { return (state_ & badbit) != 0; }

  // Sets the field width; unless persistent, it applies to the next formatted
  // output only (onceWidth).
  void setwidth(int w, bool persistent);
  void setprecision(int p) { precision_ = p; }

 protected:
  constexpr aio_ios() noexcept = default;

  // Input failure step: failure bit; with a FILE, bad bit on a FILE error,
  // else end-of-file bit at end of file.
  void failInput();
  // Output failure step: failure bit; bad bit on a FILE error.
  void failOutput();
  // After a formatted output that used a width: drop a once-only width.
  void widthUsed() {
    if (flags_ & onceWidth) {
      width_ = 0;
      flags_ &= ~static_cast<unsigned int>(onceWidth);
    }
  }
  void setState(unsigned int bits) { state_ |= bits; }
  void resetState(unsigned int value) { state_ = value; }

  // Field order is part of the stream record; derived streams add no fields.
  FILE* stream_ = nullptr;
  unsigned int flags_ = 0;
  unsigned int state_ = 0;
  int precision_ = 6;
  int width_ = 0;
  bool owns_ = false;
};

#endif  // ZMXUTI_STREAMS_IOS_H
