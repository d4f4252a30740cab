// omi_Set and its iterator: routing of signed members onto two bit vectors.
#include "containers/int_set.h"

namespace {
// Bit of a negative member: its magnitude, taken in unsigned arithmetic.
inline unsigned int Magnitude(int member) { return 0u - static_cast<unsigned int>(member); }
}  // namespace

void omi_Set::Insert(int member) {
  if (member >= 0) {
    nonNegative_.SetBit(static_cast<unsigned int>(member));
  } else {
    negative_.SetBit(Magnitude(member));
  }
}

void omi_Set::Remove(int member) {
  if (member >= 0) {
    nonNegative_.UnsetBit(static_cast<unsigned int>(member));
  } else {
    negative_.UnsetBit(Magnitude(member));
  }
}

bool omi_Set::IsMember(int member) const {
  return member >= 0 ? nonNegative_.TestBit(static_cast<unsigned int>(member)) : negative_.TestBit(Magnitude(member));
}

void omi_Set::Clear() {
  nonNegative_.Clear();
  negative_.Clear();
}

int omi_Set::Size() const { return static_cast<int>(nonNegative_.Count() + negative_.Count()); }

omi_Set& omi_Set::operator+=(const omi_Set& other) {
  nonNegative_ |= other.nonNegative_;
  negative_ |= other.negative_;
  return *this;
}

omi_Set& omi_Set::operator&=(const omi_Set& other) {
  nonNegative_ &= other.nonNegative_;
  negative_ &= other.negative_;
  return *this;
}

omi_SetIT::omi_SetIT(const omi_Set& set) : nonNegative_(&set.nonNegative_), negative_(&set.negative_) {}

void omi_SetIT::First() {
  unsigned int bit = 0;
  nonNegative_.First(bit);
  negative_.First(bit);
}

void omi_SetIT::Next() {
  unsigned int bit = 0;
  if (!negative_.Exhausted()) {
    negative_.Next(bit);
  } else {
    nonNegative_.Next(bit);
  }
}

bool omi_SetIT::IsDone() const { return negative_.Exhausted() && nonNegative_.Exhausted(); }

int omi_SetIT::CurrentItem() const {
  if (!negative_.Exhausted()) return static_cast<int>(0u - negative_.bitIndex_);
  return static_cast<int>(nonNegative_.bitIndex_);
}
