// Temporary files for the stream tests: one a stream writes into and the test
// reads back byte for byte, one filled with known text for a stream to read,
// and a scratch directory that can stand in as the temporary directory.
#ifndef ZMXUTI_TESTS_STREAMS_STREAM_FILES_H
#define ZMXUTI_TESTS_STREAMS_STREAM_FILES_H

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

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

// A fresh empty directory, removed with its files at the end; while it lives
// it can be made the temporary directory (TMPDIR, read on every call).
class ScratchDir {
 public:
  ScratchDir() : hadTmpDir_(std::getenv("TMPDIR") != nullptr) {
    char pattern[] = "/tmp/zmx_streams_XXXXXX";
    if (mkdtemp(pattern)) path_ = pattern;
    if (hadTmpDir_) oldTmpDir_ = std::getenv("TMPDIR");
  }
  ~ScratchDir() {
    hadTmpDir_ ? setenv("TMPDIR", oldTmpDir_.c_str(), 1) : unsetenv("TMPDIR");
    for (const std::string& name : Names()) std::remove(File(name).c_str());
    rmdir(path_.c_str());
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  // TMPDIR for the life of this object (restored by the destructor).
  void UseAsTmpDir(const std::string& value) const { setenv("TMPDIR", value.c_str(), 1); }
  void UseAsTmpDir() const { UseAsTmpDir(path_); }

  // The names in the directory (without "." and "..").
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    if (DIR* d = opendir(path_.c_str())) {
      while (dirent* e = readdir(d)) {
        const std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
      }
      closedir(d);
    }
    return names;
  }

 private:
  bool hadTmpDir_;
  std::string path_;
  std::string oldTmpDir_;
};

// A file's whole contents ("" when it cannot be read).
inline std::string ReadFile(const std::string& path) {
  std::string text;
  if (FILE* f = std::fopen(path.c_str(), "rb")) {
    char block[4096];
    size_t got;
    while ((got = std::fread(block, 1, sizeof block, f)) > 0) text.append(block, got);
    std::fclose(f);
  }
  return text;
}

inline void WriteFile(const std::string& path, const std::string& text) {
  if (FILE* f = std::fopen(path.c_str(), "wb")) {
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
  }
}

}  // namespace stream_test

#endif  // ZMXUTI_TESTS_STREAMS_STREAM_FILES_H
