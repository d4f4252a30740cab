// Natural-order comparison ('item2' before 'item10') and the process-wide
// switch that tells components whether to sort names in natural or byte order.
//
//   std::qsort(names, n, sizeof(char*), ...strnatcmp(*a, *b)...)  when atr_getNaturalOrder() is 1
//
// Bytes compare as signed 8-bit values (bytes above 127 sort before ASCII);
// case and white space matter. A digit run starting with '0' on either side is
// compared as a fraction (first differing digit decides), other runs as integers
// (the longer run wins).
#ifndef ZMXUTI_STRINGS_NATURAL_ORDER_H
#define ZMXUTI_STRINGS_NATURAL_ORDER_H

#include "core/export.h"

// -1, 0 or 1.
ZMXUTI_API int strnatcmp(const char* a, const char* b);

// 1 natural order, 0 plain byte order. Start-up sets it to 0 when
// ZMX_USE_NATURAL_ORDER_SORT is present in the environment (any value), else 1.
ZMXUTI_API void atr_setNaturalOrder(int on);
ZMXUTI_API int atr_getNaturalOrder();

#endif  // ZMXUTI_STRINGS_NATURAL_ORDER_H
