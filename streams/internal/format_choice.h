// Picking a conversion from the stream flags: integer base, floating notation,
// justification. Shared by the input and output members.
#ifndef ZMXUTI_STREAMS_INTERNAL_FORMAT_CHOICE_H
#define ZMXUTI_STREAMS_INTERNAL_FORMAT_CHOICE_H

namespace zmx {
namespace streams_internal {

// 0 decimal, 1 octal, 2 hexadecimal: only exactly one of oct/hex under 0x70 counts.
inline int BaseOf(unsigned int flags) {
  const unsigned int bits = flags & 0x70u;
  return bits == 0x20u ? 1 : (bits == 0x40u ? 2 : 0);
}

// 0 "g", 1 "e", 2 "f": both or neither of scientific/fixed give "g".
inline int NotationOf(unsigned int flags) {
  const unsigned int bits = flags & 0x1800u;
  return bits == 0x800u ? 1 : (bits == 0x1000u ? 2 : 0);
}

// 0 no width, 1 right-justified ("*"), 2 left-justified ("-*"): left counts
// only when right is not also set.
inline int PaddingOf(unsigned int flags, int width) {
  if (width == 0) return 0;
  return (flags & 6u) == 2u ? 2 : 1;
}

}  // namespace streams_internal
}  // namespace zmx

#endif  // ZMXUTI_STREAMS_INTERNAL_FORMAT_CHOICE_H
