// Fuzz target: aio_istream reading arbitrary bytes. The input is a short
// script of stream operations followed by the file contents they read.
//
// Layout: byte 0 = script length L (mod 32); bytes 1..L = operations; the rest
// is the file, opened with fmemopen. Each operation byte selects a member in
// its low 4 bits and a parameter in its high 4 bits.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ZMXUTI_CoreUtils.h"

namespace {

// The library comes up before anything of the program allocates.
ZMXUTI_EARLY_START_UP;

void Require(bool condition) {
  if (!condition) __builtin_trap();
}

void RunOperation(aio_istream& in, aio_ostream& sink, std::uint8_t op, char* buf, int bufSize) {
  const int param = op >> 4;
  switch (op & 15) {
    case 0: in.scan_int(); break;
    case 1: in.scan_u_int(); break;
    case 2: in.scan_int64(); break;
    case 3: in.scan_u_int64(); break;
    case 4: in.scan_double(); break;
    case 5: in.scan_float(); break;
    case 6: in.scan_char(); break;
    case 7:
      in.scan_string(buf);
      Require(static_cast<int>(std::strlen(buf)) < bufSize);
      break;
    case 8: {
      const int n = param < bufSize ? param : bufSize;
      in.getline(buf, n);
      if (n > 0 && !in.fail()) Require(static_cast<int>(std::strlen(buf)) < n);
      break;
    }
    case 9: {
      const int c = in.peek();
      Require(c >= -1 && c <= 255);
      break;
    }
    case 10: in.putback(static_cast<char>(param * 17)); break;
    case 11: {
      const int n = param < bufSize ? param : bufSize - 1;
      Require(in.read(buf, n) <= n);
      break;
    }
    case 12: in.ignore(param - 2, param == 15 ? '\n' : ' '); break;
    case 13: {
      const int c = in.get();
      Require(c >= -1 && c <= 255);
      break;
    }
    case 14: in.setf((param & 3) << 5, 0x70); break;
    default: sink.copy(in); break;
  }
  Require((in.rdstate() & ~7u) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t scriptLen = std::min<std::size_t>(data[0] % 32, size - 1);
  const std::uint8_t* script = data + 1;
  std::vector<char> contents(data + 1 + scriptLen, data + size);
  // Every word, line or block fits: the buffer holds the whole file, one
  // pushed-back character per operation and a NUL.
  const int bufSize = static_cast<int>(contents.size() + scriptLen) + 1;
  std::vector<char> buf(static_cast<std::size_t>(bufSize), '\n');

  FILE* file = contents.empty() ? nullptr : fmemopen(contents.data(), contents.size(), "r");
  static FILE* devNull = std::fopen("/dev/null", "wb");
  aio_ostream sink;
  sink.attach(devNull, false);
  {
    aio_istream in;
    in.attach(file, file != nullptr);  // an empty input exercises the unattached stream
    for (std::size_t i = 0; i < scriptLen; ++i) RunOperation(in, sink, script[i], buf.data(), bufSize);
  }
  return 0;
}
