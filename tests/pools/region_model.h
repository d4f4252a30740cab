// Plain models of the two regions for the differential tests: what each
// operation must return, from maps and sets instead of in-array bookkeeping.
#ifndef ZMXUTI_TESTS_POOLS_REGION_MODEL_H
#define ZMXUTI_TESTS_POOLS_REGION_MODEL_H

#include <climits>
#include <iterator>
#include <map>
#include <set>
#include <utility>
#include <vector>

namespace region_model {

// Positions relative to the base. Best fit is the smallest free block of 8
// words or more that holds the request, the lowest position among equals.
class VariableModel {
 public:
  explicit VariableModel(int capacity) : capacity_(capacity) { AddFree(16, capacity - 16); }

  int Alloc(int need) {
    const auto it = fit_.lower_bound({need, INT_MIN});
    if (it == fit_.end()) return -1;
    const auto [size, pos] = *it;
    RemoveFree(pos);
    Carve(pos, size, need);
    return pos;
  }
  bool Free(int pos) {
    int start = pos, size = used_.at(pos);
    used_.erase(pos);
    if (const auto next = free_.find(pos + size); next != free_.end()) size += RemoveFree(next->first);
    const auto after = free_.lower_bound(pos);
    if (after != free_.begin() && std::prev(after)->first + std::prev(after)->second == pos) {
      start = std::prev(after)->first;
      size += RemoveFree(start);
    }
    AddFree(start, size);
    return used_.empty();
  }
  int Reallocate(int pos, int need) {
    const int size = used_.at(pos);
    if (size >= need) return pos;
    const auto next = free_.find(pos + size);
    if (next != free_.end() && size + next->second >= need) {
      Carve(pos, size + RemoveFree(pos + size), need);
      return pos;
    }
    const int moved = Alloc(need);
    if (moved >= 0) Free(pos);
    return moved;
  }
  int Claim(int pos, int words) {
    if (pos < 16 || pos % 4 != 0 || pos > capacity_ - words) return -1;
    auto it = free_.upper_bound(pos);
    if (it == free_.begin()) return -1;
    const auto [start, size] = *--it;
    if (pos + words > start + size) return -1;
    RemoveFree(start);
    if (pos > start) AddFree(start, pos - start);
    used_[pos] = words;
    if (start + size > pos + words) AddFree(pos + words, start + size - pos - words);
    return pos;
  }

  int InUse() const {
    int sum = 0;
    for (const auto& block : used_) sum += block.second;
    return sum;
  }
  int Largest() const { return fit_.empty() ? 0 : fit_.rbegin()->first; }
  bool IsTreeBlock(int pos, int size) const { return fit_.count({size, pos}) != 0; }
  const std::map<int, int>& Used() const { return used_; }
  const std::map<int, int>& FreeBlocks() const { return free_; }

 private:
  void Carve(int pos, int available, int need) {
    const int size = available - need >= 35 ? need : available;
    used_[pos] = size;
    if (size != available) AddFree(pos + size, available - size);
  }
  void AddFree(int pos, int size) {
    free_[pos] = size;
    if (size >= 8) fit_.insert({size, pos});
  }
  int RemoveFree(int pos) {
    const int size = free_.at(pos);
    free_.erase(pos);
    fit_.erase({size, pos});
    return size;
  }

  int capacity_;
  std::map<int, int> used_;            // position -> words
  std::map<int, int> free_;            // position -> words, every free block
  std::set<std::pair<int, int>> fit_;  // (words, position) of the blocks Alloc can find
};

// Freed slots are handed out again last-in first-out, then the frontier moves.
class FixedModel {
 public:
  FixedModel(int capacity, int slotWords, int first) : capacity_(capacity), slot_(slotWords), frontier_(first) {}
  int Alloc() {
    if (!freed_.empty()) {
      const int pos = freed_.back();
      freed_.pop_back();
      return pos;
    }
    if (frontier_ > capacity_ - slot_) return -1;
    frontier_ += slot_;
    return frontier_ - slot_;
  }
  void Free(int pos) { freed_.push_back(pos); }

 private:
  int capacity_, slot_, frontier_;
  std::vector<int> freed_;
};

}  // namespace region_model

#endif  // ZMXUTI_TESTS_POOLS_REGION_MODEL_H
