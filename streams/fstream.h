// aio_ifstream and aio_ofstream: the library's streams bound to named files.
//
//   aio_ofstream out;
//   out.open("results.txt", true);       // fails (state 2) if the file exists
//   out.print("n = ").print_int(42).put('\n');
//   out.close();
//
//   aio_ifstream in;
//   in.open("results.txt");              // state 2 and nothing attached when unreadable
//   in.seekg(4, aio_ios::beg);
//   int n = in.scan_int();
//
// Both add nothing to the stream record. Seek offsets are 64-bit and go to
// fseek as a long, which is 64-bit here, so no offset is cut short.
#ifndef ZMXUTI_STREAMS_FSTREAM_H
#define ZMXUTI_STREAMS_FSTREAM_H

#include <cstdint>

#include "streams/istream.h"
#include "streams/ostream.h"

class ZMXUTI_API aio_ifstream : public aio_istream {
 public:
  constexpr aio_ifstream() noexcept = default;

  // When `name` is readable, attaches fopen(name, "r") (text mode), owned; an
  // owned file attached before is closed first. Otherwise (also for a null
  // name) the state becomes exactly 2 and the attachment is left as it was.
  aio_ifstream& open(const char* name);
  // fseek of the attached file with origin beg, cur or end. Unattached, or
  // refused by fseek (bad origin, negative position): the input failure step.
  aio_ifstream& seekg(std::int64_t offset, seek_dir origin);
  // ftell of the attached file; -1 when nothing is attached or ftell fails.
  std::int64_t tellg() const;
};

class ZMXUTI_API aio_ofstream : public aio_ostream {
 public:
  constexpr aio_ofstream() noexcept = default;

  // fresh: the file must not exist; when it does (or the name is null) the
  // state becomes exactly 2, the file is left untouched and nothing is
  // opened; otherwise fopen(name, "wb"). Not fresh: fopen(name, "ab"), output
  // appended. The opened file is attached, owned; when fopen fails that is
  // null, and later output fails.
  aio_ofstream& open(const char* name, bool fresh);
  // As aio_ifstream's seekg/tellg, with the output failure step. A file
  // opened for appending still writes at its end.
  aio_ofstream& seekp(std::int64_t offset, seek_dir origin);
  std::int64_t tellp() const;
};

#endif  // ZMXUTI_STREAMS_FSTREAM_H
