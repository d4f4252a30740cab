// Opening, seeking and telling for the file streams.
#include "streams/fstream.h"

#include "platform/temp_files.h"

namespace {

// fseek takes a long; on this platform it holds every 64-bit offset.
static_assert(sizeof(long) == sizeof(std::int64_t), "seek offsets would be cut short");

bool Seek(FILE* f, std::int64_t offset, int origin) { return std::fseek(f, static_cast<long>(offset), origin) == 0; }

std::int64_t Tell(FILE* f) { return f ? static_cast<std::int64_t>(std::ftell(f)) : -1; }

}  // namespace

aio_ifstream& aio_ifstream::open(const char* name) {
  if (!zmx::platform::PathReadable(name)) {
    resetState(failbit);
    return *this;
  }
  attach(std::fopen(name, "r"), true);
  return *this;
}

aio_ifstream& aio_ifstream::seekg(std::int64_t offset, seek_dir origin) {
  if (!stream_ || !Seek(stream_, offset, origin)) failInput();
  return *this;
}

std::int64_t aio_ifstream::tellg() const { return Tell(stream_); }

aio_ofstream& aio_ofstream::open(const char* name, bool fresh) {
  if (name == nullptr || (fresh && zmx::platform::PathExists(name))) {
    resetState(failbit);
    return *this;
  }
  attach(std::fopen(name, fresh ? "wb" : "ab"), true);
  return *this;
}

aio_ofstream& aio_ofstream::seekp(std::int64_t offset, seek_dir origin) {
  if (!stream_ || !Seek(stream_, offset, origin)) failOutput();
  return *this;
}

std::int64_t aio_ofstream::tellp() const { return Tell(stream_); }
