// Linux region queries and runtime-heap totals for the memory diagnostics:
// /proc/self/maps read with plain system calls into a stack buffer, the
// dynamic loader's object list for image mappings, glibc's mallinfo2.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "platform/linux/loaded_objects.h"
#include "platform/memory_query.h"
#include "platform/platform.h"

namespace zmx {
namespace platform {

namespace {

// One past the highest page a process can map with 4-level page tables; gaps
// above the last mapping end here, and a gap that begins above it is the
// non-canonical hole, not address space.
constexpr std::uint64_t kUserSpaceEnd = 0x7FFFFFFFF000ull;

// Reads /proc/self/maps line by line without touching any heap. A line longer
// than the buffer is cut short (only the path can be that long).
class MapsReader {
 public:
  MapsReader() {
    do fd_ = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    while (fd_ < 0 && errno == EINTR);
  }
  ~MapsReader() {
    if (fd_ >= 0) ::close(fd_);
  }
  MapsReader(const MapsReader&) = delete;
  MapsReader& operator=(const MapsReader&) = delete;

  bool ok() const { return fd_ >= 0; }

  // The next line, terminated in place (no newline); null at the end.
  char* NextLine() {
    for (;;) {
      char* start = buf_ + pos_;
      char* newline = static_cast<char*>(std::memchr(start, '\n', len_ - pos_));
      if (newline != nullptr) {
        *newline = '\0';
        pos_ = static_cast<std::size_t>(newline - buf_) + 1;
        if (discarding_) {  // the tail of a line cut short
          discarding_ = false;
          continue;
        }
        return start;
      }
      Compact();
      if (len_ == kCapacity) {  // a full buffer without newline: cut the line here
        buf_[kCapacity] = '\0';
        pos_ = len_ = 0;
        discarding_ = true;
        return buf_;
      }
      if (!Refill()) return LastLine();
    }
  }

 private:
  void Compact() {
    if (discarding_) pos_ = len_ = 0;
    if (pos_ == 0) return;
    std::memmove(buf_, buf_ + pos_, len_ - pos_);
    len_ -= pos_;
    pos_ = 0;
  }

  bool Refill() {
    ssize_t got;
    do got = ::read(fd_, buf_ + len_, kCapacity - len_);
    while (got < 0 && errno == EINTR);
    if (got <= 0) return false;
    len_ += static_cast<std::size_t>(got);
    return true;
  }

  // Text after the last newline, if any.
  char* LastLine() {
    if (pos_ == len_ || discarding_) return nullptr;
    buf_[len_] = '\0';
    char* line = buf_ + pos_;
    pos_ = len_;
    return line;
  }

  static constexpr std::size_t kCapacity = 4096;
  int fd_ = -1;
  std::size_t len_ = 0;
  std::size_t pos_ = 0;
  bool discarding_ = false;
  char buf_[kCapacity + 1];
};

struct Mapping {
  std::uint64_t low = 0, high = 0;
  bool noAccess = false;
  bool fileBacked = false;
  // Identifies the file (or anonymous kind) for runs of adjacent mappings.
  std::uint64_t device = 0, inode = 0, pathHash = 0;
};

std::uint64_t ParseHex(const char*& p) {
  std::uint64_t value = 0;
  for (;; ++p) {
    const char c = *p;
    if (c >= '0' && c <= '9') value = value * 16 + static_cast<unsigned>(c - '0');
    else if (c >= 'a' && c <= 'f') value = value * 16 + static_cast<unsigned>(c - 'a' + 10);
    else return value;
  }
}

std::uint64_t ParseDecimal(const char*& p) {
  std::uint64_t value = 0;
  for (; *p >= '0' && *p <= '9'; ++p) value = value * 10 + static_cast<unsigned>(*p - '0');
  return value;
}

void SkipBlanks(const char*& p) {
  while (*p == ' ' || *p == '\t') ++p;
}

// "low-high perms offset major:minor inode [path]"
bool ParseMapping(const char* p, Mapping& m) {
  m.low = ParseHex(p);
  if (*p++ != '-') return false;
  m.high = ParseHex(p);
  SkipBlanks(p);
  if (std::strlen(p) < 4) return false;
  m.noAccess = p[0] == '-' && p[1] == '-' && p[2] == '-';
  p += 4;
  SkipBlanks(p);
  ParseHex(p);  // offset
  SkipBlanks(p);
  m.device = ParseHex(p) << 32;
  if (*p == ':') ++p;
  m.device |= ParseHex(p);
  SkipBlanks(p);
  m.inode = ParseDecimal(p);
  SkipBlanks(p);
  m.fileBacked = m.inode != 0;
  m.pathHash = 1469598103934665603ull;  // FNV-1a
  for (; *p != '\0'; ++p) m.pathHash = (m.pathHash ^ static_cast<unsigned char>(*p)) * 1099511628211ull;
  return m.high > m.low;
}

bool SameOwner(const Mapping& a, const Mapping& b) {
  return a.device == b.device && a.inode == b.inode && a.pathHash == b.pathHash;
}

// A file mapping belongs to an image when a loaded object's segment covers it.
bool IsLoadedObject(std::uint64_t address) {
  return InLoadedSegment(static_cast<std::uintptr_t>(address), false);
}

void DescribeMapping(const Mapping& m, std::uint64_t runStart, std::uint64_t base, Region& region) {
  region.base = base;
  region.size = m.high - base;
  region.allocationBase = runStart;
  region.state = m.noAccess ? kMemReserve : kMemCommit;
  region.type = !m.fileBacked ? kMemPrivate : IsLoadedObject(m.low) ? kMemImage : kMemMapped;
}

void DescribeGap(std::uint64_t base, std::uint64_t end, Region& region) {
  region.base = base;
  region.size = end - base;
  region.allocationBase = 0;
  region.state = kMemFree;
  region.type = 0;
}

}  // namespace

bool QueryRegion(std::uint64_t address, Region& region) {
  const std::uint64_t base = address & ~(static_cast<std::uint64_t>(PageSize()) - 1);
  MapsReader maps;
  if (!maps.ok()) return false;
  std::uint64_t previousEnd = 0;
  Mapping run, m;
  std::uint64_t runStart = 0;
  while (const char* line = maps.NextLine()) {
    if (!ParseMapping(line, m)) continue;
    if (m.low != previousEnd || !SameOwner(m, run)) runStart = m.low;
    run = m;
    if (base < m.low) {
      if (base >= kUserSpaceEnd) return false;  // the non-canonical hole
      DescribeGap(base, m.low < kUserSpaceEnd ? m.low : kUserSpaceEnd, region);
      return true;
    }
    if (base < m.high) {
      DescribeMapping(m, runStart, base, region);
      return true;
    }
    previousEnd = m.high;
  }
  if (base >= kUserSpaceEnd) return false;
  DescribeGap(base, kUserSpaceEnd, region);
  return true;
}

RuntimeHeapTotals QueryRuntimeHeap() {
  // glibc keeps no walkable entry list; its arena totals stand in for a walk.
  const struct mallinfo2 info = ::mallinfo2();
  RuntimeHeapTotals totals;
  totals.committed = info.arena + info.hblkhd;
  totals.inUse = info.uordblks + info.hblkhd;
  totals.free = info.fordblks;
  totals.reserved = 0;
  return totals;
}

}  // namespace platform
}  // namespace zmx
