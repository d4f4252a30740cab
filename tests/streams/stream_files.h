// Temporary files for the stream tests: one a stream writes into and the test
// reads back byte for byte, and one filled with known text for a stream to read.
#ifndef ZMXUTI_TESTS_STREAMS_STREAM_FILES_H
#define ZMXUTI_TESTS_STREAMS_STREAM_FILES_H

#include <cstdio>
#include <string>

namespace stream_test {

// A read-write temporary file that is removed when closed.
class TempFile {
 public:
  TempFile() : file_(std::tmpfile()) {}
  explicit TempFile(const std::string& contents) : file_(std::tmpfile()) {
    std::fwrite(contents.data(), 1, contents.size(), file_);
    std::rewind(file_);
  }
  ~TempFile() {
    if (file_) std::fclose(file_);
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  FILE* get() const { return file_; }
  // Hands the FILE over to a stream that will close it.
  FILE* release() {
    FILE* f = file_;
    file_ = nullptr;
    return f;
  }

  // Everything in the file, read from the start; the position is restored.
  std::string Contents() const {
    std::fflush(file_);
    const long pos = std::ftell(file_);
    std::rewind(file_);
    std::string text;
    char block[4096];
    size_t got;
    while ((got = std::fread(block, 1, sizeof block, file_)) > 0) text.append(block, got);
    std::fseek(file_, pos, SEEK_SET);
    return text;
  }

 private:
  FILE* file_;
};

}  // namespace stream_test

#endif  // ZMXUTI_TESTS_STREAMS_STREAM_FILES_H
