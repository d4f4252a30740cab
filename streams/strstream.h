// aio_ostrstream, the library's string stream, and aio_createTempFile, the
// private temporary file behind it.
//
//   aio_ostrstream text;
//   text.print("x = ").print_double(0.5);
//   char* s = text.adoptString(std::malloc);  // "x = 0.5", the caller's to free
//   text.print("!");
//   char* t = text.adoptString(std::malloc);  // "x = 0.5!": everything so far
//
// The text lives in a temporary file that no other name reaches and that
// disappears when the stream closes it.
#ifndef ZMXUTI_STREAMS_STRSTREAM_H
#define ZMXUTI_STREAMS_STRSTREAM_H

#include <cstddef>
#include <cstdio>

#include "streams/ostream.h"

class ZMXUTI_API aio_ostrstream : public aio_ostream {
 public:
  // Attaches aio_createTempFile(), owned. When no file could be made the
  // stream is failed (state 2), perror("aio_ostrstream") reports why, and all
  // output fails.
  aio_ostrstream();

  // Everything written since construction as one NUL-terminated buffer from
  // alloc(n + 1), n the bytes written; the caller owns it. The text stays in
  // the stream and later output continues at its end. Null, with nothing
  // written, for a null alloc or one that returns null, and (after the output
  // failure step) for a stream without a file. If the file yields fewer bytes
  // than written, the buffer ends after those it yielded.
  char* adoptString(void* (*alloc)(std::size_t));
};

// Creates and opens a new temporary file "utl<XXXX>.TMP" (XXXX four upper-case
// hexadecimal digits, the first number taken from the milliseconds of the
// clock) in the temporary directory (TMPDIR, else /tmp), for reading and
// writing in binary. Its name is gone at once: the file disappears when its
// last descriptor closes. A taken name's file is deleted and the next number
// tried; a refused access is retried once with the next number. Any other
// error, a second refusal, or 65536 taken names in a row print "Failed to
// create <name>\n" on stderr and return null (errno tells the cause).
ZMXUTI_API FILE* aio_createTempFile();

#endif  // ZMXUTI_STREAMS_STRSTREAM_H
