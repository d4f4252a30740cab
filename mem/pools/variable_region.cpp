// The variable region: block headers, best-fit allocation with splitting,
// release with coalescing, growth in place and claims of exact blocks.
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mem/pools/internal/region_check.h"
#include "mem/pools/region.h"

namespace {

#if defined(ZMX_HEAP_DEBUG) && ZMX_HEAP_DEBUG
constexpr bool kCheckEveryOperation = true;
#else
constexpr bool kCheckEveryOperation = false;
#endif

constexpr int kTag = 10;
constexpr int kSmallestCapacity = 24;      // one free block of 8 words: room for a tree node
constexpr int kNeverFits = INT_MAX & ~3;  // larger than any block a region can have

[[noreturn]] ZMX_NOINLINE void Fault(const char* format, ...) __attribute__((format(printf, 1, 2)));

void Fault(const char* format, ...) {
  std::fputs("ERROR: variable region: ", stderr);
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fputc('\n', stderr);
  std::fflush(stderr);
  std::abort();
}

// A block's own size word (negative when free) and the following block's
// preceding-size word; both lie inside the block's span [pos-2, pos+size-2].
void SetBlock(int* span, int pos, int size, bool inUse) {
  span[pos - 1] = inUse ? size : -size;
  span[pos + size - 2] = size;
}

}  // namespace

mem_VariableRegion::mem_VariableRegion(unsigned int baseIndex, int capacity, int* array)
    : mem_Region(baseIndex, kTag, kFirstBlock, capacity), spare_(0), treeHeader_{-1, -1, -1, 0},
      largestSize_(0), largestPos_(-1) {
  if (capacity < kSmallestCapacity || capacity % 4 != 0)
    Fault("a capacity of %d words cannot hold a region (a multiple of 4, at least %d)", capacity,
          kSmallestCapacity);
  if (static_cast<long long>(baseIndex) + capacity > INT_MAX)
    Fault("base index %u and capacity %d run past the largest position", baseIndex, capacity);
  int* span = array + base_;
  span[kFirstBlock - 2] = 0;
  SetBlock(span, kFirstBlock, capacity - kFirstBlock, false);
  span[capacity - 1] = 0;
  TreeInsert(array, kFirstBlock);
  CheckAfter(array, "construction");
}

mem_VariableRegion::~mem_VariableRegion() = default;

int mem_VariableRegion::WordsFor(std::size_t bytes) {
  if (bytes == 0) bytes = 1;  // an empty request still gets a block of its own
  const std::size_t words = ((bytes - 1) / 4 + 3 + 3) & ~static_cast<std::size_t>(3);
  return words > static_cast<std::size_t>(kNeverFits) ? kNeverFits : static_cast<int>(words);
}

int mem_VariableRegion::Alloc(int* array, std::size_t bytes) {
  const int need = WordsFor(bytes);
  if (largestSize_ < need) return -1;
  const int pos = TreeBestFit(array, need);
  if (pos < 0) return -1;
  TreeRemove(array, pos);
  inUse_ += Carve(array, pos, -array[base_ + pos - 1], need);
  CheckAfter(array, "Alloc");
  return static_cast<int>(base_) + pos;
}

int mem_VariableRegion::Carve(int* array, int pos, int available, int need) {
  int* span = array + base_;
  const int rest = available - need;
  const int size = rest >= kSplitRest ? need : available;
  SetBlock(span, pos, size, true);
  if (size != available) {
    SetBlock(span, pos + size, rest, false);
    TreeInsert(array, pos + size);
  }
  return size;
}

bool mem_VariableRegion::Free(int* array, int position) {
  const int released = BlockInUse(array, position, "Free");
  int* span = array + base_;
  int pos = released;
  int size = span[pos - 1];
  inUse_ -= size;
  const int next = pos + size;
  if (span[next - 1] < 0) {  // the closing header's 0 ends the region
    TreeRemove(array, next);
    size -= span[next - 1];
  }
  const int before = span[pos - 2];
  if (pos > kFirstBlock && span[pos - before - 1] < 0) {
    TreeRemove(array, pos - before);
    pos -= before;
    size += before;
    span[released - 1] = 0;  // a second release of it is then no block start
  }
  SetBlock(span, pos, size, false);
  TreeInsert(array, pos);
  CheckAfter(array, "Free");
  return inUse_ == 0;
}

int mem_VariableRegion::Reallocate(int* array, int position, std::size_t bytes) {
  const int pos = BlockInUse(array, position, "Reallocate");
  int* span = array + base_;
  const int size = span[pos - 1];
  const int need = WordsFor(bytes);
  if (size >= need) return position;  // blocks never shrink
  const int follower = -span[pos + size - 1];  // positive when the follower is free
  if (follower > 0 && need - size <= follower) {
    TreeRemove(array, pos + size);
    inUse_ += Carve(array, pos, size + follower, need) - size;
    CheckAfter(array, "Reallocate");
    return position;
  }
  const int moved = Alloc(array, bytes);
  if (moved < 0) return -1;
  std::memcpy(array + moved, span + pos, static_cast<std::size_t>(size) * 4 - 8);
  Free(array, position);
  return moved;
}

int mem_VariableRegion::BlockWords(const int* array, int position) const {
  return array[base_ + BlockInUse(array, position, "BlockWords") - 1];
}

int mem_VariableRegion::ClaimBlock(int* array, int position, int words) {
  if (words <= 0 || words % 4 != 0)
    Fault("ClaimBlock of position %d: %d words is not a positive multiple of 4", position, words);
  const long long rel = static_cast<long long>(position) - base_;
  if (rel < kFirstBlock || rel % 4 != 0 || rel > capacity_ - words) return -1;
  const int pos = static_cast<int>(rel);
  int* span = array + base_;
  int start = kFirstBlock;
  int size = 0;
  for (;; start += size) {  // the block holding pos; headers are checked as the walk goes
    const int header = span[start - 1];
    size = header < 0 ? -header : header;
    if (header == 0 || header == INT_MIN || size % 4 != 0 || size > capacity_ - start)
      Fault("ClaimBlock of position %d: damaged block header at %d", position, static_cast<int>(base_) + start);
    if (start + size > pos) break;
  }
  const int freeWords = -span[start - 1];
  if (freeWords <= 0 || pos + words > start + freeWords) return -1;
  TreeRemove(array, start);
  if (pos > start) {
    SetBlock(span, start, pos - start, false);
    TreeInsert(array, start);
  }
  SetBlock(span, pos, words, true);
  const int after = start + freeWords - (pos + words);
  if (after > 0) {
    SetBlock(span, pos + words, after, false);
    TreeInsert(array, pos + words);
  }
  inUse_ += words;
  CheckAfter(array, "ClaimBlock");
  return position;
}

int mem_VariableRegion::BlockInUse(const int* array, int position, const char* operation) const {
  const long long rel = static_cast<long long>(position) - base_;
  if (rel < kFirstBlock || rel > capacity_ - 4) Fault("%s of position %d: outside the region", operation, position);
  const int pos = static_cast<int>(rel);
  const int* span = array + base_;
  const int size = span[pos - 1];
  if (pos % 4 != 0 || size == 0) Fault("%s of position %d: not a block start", operation, position);
  if (size < 0) Fault("%s of position %d: block already free", operation, position);
  const int before = span[pos - 2];
  const bool afterMatches = size % 4 == 0 && size <= capacity_ - pos && span[pos + size - 2] == size;
  bool beforeMatches = before == 0;
  if (pos > kFirstBlock) {
    beforeMatches = before > 0 && before % 4 == 0 && before <= pos - kFirstBlock &&
                    (span[pos - before - 1] == before || span[pos - before - 1] == -before);
  }
  if (!afterMatches || !beforeMatches) Fault("%s of position %d: damaged block header", operation, position);
  return pos;
}

void mem_VariableRegion::DebugPrint() { std::printf("VariableRegion: Size=%d, Alloc=%d\n", capacity_, inUse_); }

void mem_VariableRegion::CheckAfter(const int* array, const char* operation) const {
  if (!kCheckEveryOperation) return;
  std::string problem;
  if (!zmx::mem_internal::CheckVariableRegion(*this, array, &problem))
    Fault("inconsistent after %s: %s", operation, problem.c_str());
}
