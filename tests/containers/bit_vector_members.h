// The members of a bit vector as its traversal yields them, first to last or
// last to first, for the bit-vector tests.
#ifndef ZMXUTI_TESTS_CONTAINERS_BIT_VECTOR_MEMBERS_H
#define ZMXUTI_TESTS_CONTAINERS_BIT_VECTOR_MEMBERS_H

#include <vector>

#include "ZMXUTI_CoreUtils.h"

inline std::vector<unsigned int> Forward(const omi_BlkBitVect& v) {
  std::vector<unsigned int> bits;
  omi_BlkBitVectTrav t(&v);
  unsigned int b = 0;
  for (bool ok = t.First(b); ok; ok = t.Next(b)) bits.push_back(b);
  return bits;
}

inline std::vector<unsigned int> Backward(const omi_BlkBitVect& v) {
  std::vector<unsigned int> bits;
  omi_BlkBitVectTrav t(&v);
  unsigned int b = 0;
  for (bool ok = t.Last(b); ok; ok = t.Prev(b)) bits.push_back(b);
  return bits;
}

#endif  // ZMXUTI_TESTS_CONTAINERS_BIT_VECTOR_MEMBERS_H
