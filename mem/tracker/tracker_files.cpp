// The memory tracker's output: the naming rule, the record batches, the phase
// file and the list of transactions to announce (ZEM_MEM_DBTRANS).
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mem/internal/tracker_hooks.h"
#include "mem/tracker/internal/tracker_state.h"
#include "platform/platform.h"

namespace zmx {
namespace mem_tracker {

namespace {

constexpr int kFileNameBytes = kOutputNameBytes + 32;

// Appends at most what still fits in the output name; a name that does not fit
// has already switched tracking off.
class NameBuilder {
 public:
  explicit NameBuilder(char* out) : out_(out) { out_[0] = '\0'; }
  NameBuilder& Add(const char* text, std::size_t length) {
    const std::size_t room = kOutputNameBytes - 1 - used_;
    if (length > room) length = room;
    std::memcpy(out_ + used_, text, length);
    used_ += length;
    out_[used_] = '\0';
    return *this;
  }
  NameBuilder& Add(const char* text) { return Add(text, std::strlen(text)); }

 private:
  char* out_;
  std::size_t used_ = 0;
};

void ReportNameTooLong() {
  mem_internal::SetProcessTrackingMode(mem_internal::kTrackingOff);
  std::fputs("ERROR: Output file names are too long in memory tracking code.\n", stderr);
  std::fflush(stderr);
}

void ReportOpenFailure(const Tracker& t, const char* fileName) {
  std::fputs("\nUnable to open memory tracking file.\n", stderr);
  std::fprintf(stderr, "  FileName: %s", fileName);
  if (t.hasOutputDir) std::fprintf(stderr, "  Does the output directory %s exist?\n", t.outputDir);
  std::fflush(stderr);
}

struct PhaseFileWriter {
  int file;
  std::uint32_t count;
};

void WritePhaseEntry(const char* path, int id, void* context) {
  static const char kZeros[4096] = {};
  PhaseFileWriter& w = *static_cast<PhaseFileWriter*>(context);
  const std::uint32_t value = static_cast<std::uint32_t>(id);
  zmx::platform::WriteOwnerFile(w.file, &value, sizeof value);
  // The stored paths are shorter than the field, so the terminating zero always fits.
  std::size_t written = std::strlen(path) + 1;
  zmx::platform::WriteOwnerFile(w.file, path, written);
  while (written < static_cast<std::size_t>(kPathBytes)) {
    const std::size_t chunk = std::min(sizeof kZeros, kPathBytes - written);
    zmx::platform::WriteOwnerFile(w.file, kZeros, chunk);
    written += chunk;
  }
  ++w.count;
}

int ToInt(const char* piece) {
  errno = 0;
  const long value = std::strtol(piece, nullptr, 10);
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

}  // namespace

void ApplyNamingRule(Tracker& t, const char* name) {
  const std::size_t length = std::strlen(name);
  NameBuilder out(t.outputName);
  if (!t.hasOutputDir) {
    if (length >= static_cast<std::size_t>(kFileNameRoom)) ReportNameTooLong();
    out.Add(name, length);
    return;
  }
  const std::size_t dirLength = std::strlen(t.outputDir);
  if (length + dirLength >= static_cast<std::size_t>(kFileNameRoom)) ReportNameTooLong();
  if (const char* slash = std::strrchr(name, '/')) {
    const std::size_t at = static_cast<std::size_t>(slash - name);
    out.Add(name, at + 1).Add(t.outputDir, dirLength).Add(slash, length - at);
  } else {
    out.Add(t.outputDir, dirLength).Add("/").Add(name, length);
  }
}

void FlushRecords(Tracker& t) {
  if (t.transactionCounter <= 0) return;
  char fileName[kFileNameBytes];
  std::snprintf(fileName, sizeof fileName, "%s.memT%d", t.outputName, static_cast<int>(t.fileSequence));
  // The batch is written while the tracker's lock is held, often from inside an
  // allocation call: the file is a plain descriptor, so writing never allocates.
  const int file = zmx::platform::OpenOwnerFile(fileName);
  if (file >= 0) {
    const std::uint32_t count = t.buffered;
    zmx::platform::WriteOwnerFile(file, &count, sizeof count);
    zmx::platform::WriteOwnerFile(file, t.records, sizeof(TransactionRecord) * count);
    zmx::platform::CloseOwnerFile(file);
  } else {
    ReportOpenFailure(t, fileName);  // the batch is lost: no retry
  }
  ++t.fileSequence;
  t.buffered = 0;
}

void WritePhaseFile(Tracker& t) {
  char fileName[kFileNameBytes];
  std::snprintf(fileName, sizeof fileName, "%s.phaseStack", t.outputName);
  const int file = zmx::platform::OpenOwnerFile(fileName);
  if (file < 0) {
    ReportOpenFailure(t, fileName);
    return;
  }
  PhaseFileWriter writer{file, 0};
  zmx::platform::WriteOwnerFile(file, &writer.count, sizeof writer.count);  // the count goes here at the end
  {
    Locked guard(t.phaseLock);
    t.phases->ForEach(WritePhaseEntry, &writer);
  }
  zmx::platform::WriteOwnerFileAt(file, &writer.count, sizeof writer.count, 0);
  zmx::platform::CloseOwnerFile(file);
}

void ParseDebugTransactions(Tracker& t, const char* value) {
  const char* piece = value;
  for (;;) {
    if (t.debugCount == kMaxDebugTransactions) {
      std::fprintf(stderr, "memTracker  --  Too many debug transactions specified. First %d will be used.\n",
                   kMaxDebugTransactions);
      std::fflush(stderr);
      break;
    }
    t.debugTransactions[t.debugCount++] = ToInt(piece);  // the conversion stops at the comma
    piece = std::strchr(piece, ',');
    if (piece == nullptr) break;
    ++piece;
  }
  std::sort(t.debugTransactions, t.debugTransactions + t.debugCount);
}

}  // namespace mem_tracker
}  // namespace zmx
