// aio_istream: formatted and raw input over an attached FILE.
//
//   aio_istream in;
//   in.attach(std::fopen("numbers.txt", "r"), true);
//   int n = in.scan_int();              // "%d" ("%o"/"%x" with oct/hex)
//   char line[128];
//   in.getline(line, sizeof line);      // newline stripped
//   if (in.fail()) ...                  // sticky until close()
//
// Every failure runs the input failure step: failure bit, then the bad bit when
// the FILE reports an error, else the end-of-file bit at end of file. Reading
// from an unattached stream, or into a null buffer, only fails.
#ifndef ZMXUTI_STREAMS_ISTREAM_H
#define ZMXUTI_STREAMS_ISTREAM_H

#include <cstdint>

#include "streams/ios.h"

class ZMXUTI_API aio_istream : public aio_ios {
 public:
  constexpr aio_istream() noexcept = default;

  // One integer in the base chosen by the flags; the value read (0 when nothing
  // was converted) is returned whether or not the read succeeded.
  int scan_int();
  unsigned int scan_u_int();
  std::int64_t scan_int64();
  std::uint64_t scan_u_int64();
  // "%lg" and "%e" (into a float); same rule.
  double scan_double();
  float scan_float();
  // "%c": the character, or 0 on failure.
  char scan_char();
  // "%s" into buf, which must hold the longest word plus its NUL (no bound is
  // passed). Fails only at end of file or unattached; buf[0] is then NUL.
  aio_istream& scan_string(char* buf);

  // fgets(buf, n) with the newline replaced by NUL. A line that does not fit
  // (or a last line without newline) fails and sets end of file; so does an
  // empty result. Newline bytes in buf behind the text, up to buf[n - 1], are
  // turned into NUL as well.
  aio_istream& getline(char* buf, int n);
  // The next character without consuming it; -1 (and failure) at end of file.
  int peek();
  // ungetc of c; putting back the byte 0xFF always fails.
  aio_istream& putback(char c);
  // fread of n bytes; a short read writes a NUL behind the bytes read (buf must
  // hold n + 1 bytes then) and fails. Returns the count read.
  int read(char* buf, int n);
  // Consumes up to n characters, stopping after delim. End of file sets only
  // the end-of-file bit. Nothing happens for n below 1.
  aio_istream& ignore(int n, int delim);
  // The next character; -1 (and failure) at end of file.
  int get();
  // Attaches fdopen(fd, "r"), owned.
  aio_istream& adopt(int fd);

 private:
  // One fscanf conversion read as Bits and returned as T (0 when nothing was
  // converted); an unattached stream or no conversion runs the failure step.
  template <class T, class Bits = T>
  T scanValue(const char* format);
};

#endif  // ZMXUTI_STREAMS_ISTREAM_H
