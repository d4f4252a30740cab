// omi_Set: a set of signed ints made of two bit vectors; omi_SetIT walks it.
//
// Non-negative members are bits of the first vector; a negative member -k is
// bit k of the second (the most negative int is bit 2,147,483,648). The walk
// yields the negative members by increasing magnitude, then the non-negative
// ones ascending: {-2, -1, 0, 3} comes out as -1, -2, 0, 3.
//
//   omi_Set s;  s.Insert(-2);  s.Insert(3);
//   omi_SetIT it(s);
//   for (it.First(); !it.IsDone(); it.Next()) use(it.CurrentItem());
#ifndef ZMXUTI_CONTAINERS_INT_SET_H
#define ZMXUTI_CONTAINERS_INT_SET_H

#include "containers/blk_bit_vect.h"
#include "core/export.h"

class ZMXUTI_API omi_Set {
 public:
  void Insert(int member);
  void Remove(int member);
  bool IsMember(int member) const;
  void Clear();
  // Members of both halves.
  int Size() const;
  // Union and intersection, each half with the other's same half.
  omi_Set& operator+=(const omi_Set& other);
  omi_Set& operator&=(const omi_Set& other);

 private:
  friend class omi_SetIT;
  omi_BlkBitVect nonNegative_;
  omi_BlkBitVect negative_;
};

class ZMXUTI_API omi_SetIT {
 public:
  explicit omi_SetIT(const omi_Set& set);
  void First();
  void Next();
  bool IsDone() const;
  int CurrentItem() const;

 private:
  omi_BlkBitVectTrav nonNegative_;
  omi_BlkBitVectTrav negative_;
};

#endif  // ZMXUTI_CONTAINERS_INT_SET_H
