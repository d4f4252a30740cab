// Conversion of blank-padded fixed-length character data (an address and a
// length, no terminator), as Fortran passes it, into terminated strings, one
// at a time or as lists.
//
//   char name[80];
//   omi_fortranStringConvert(name, "abc   ", 6);          // "abc"
//   char** list = omi_fortranStringListConvert(3, data, 8);
//   ...
//   omi_fortranStringListFree(3, list);
#ifndef ZMXUTI_CORE_FORTRAN_STRINGS_H
#define ZMXUTI_CORE_FORTRAN_STRINGS_H

#include "core/export.h"

// A datum converts into a buffer of size s as: trailing blanks dropped (an
// all-blank or empty datum becomes empty), at most s - 1 characters kept,
// then a terminator. A null source reads as an empty datum.

// `dest` holds 80 characters: at most 79 are kept. Null `dest`: nothing happens.
ZMXUTI_API void omi_fortranStringConvert(char* dest, const char* src, unsigned int srcLen);

// `dest` holds `destSize` characters. Null `dest` or size 0: nothing happens.
ZMXUTI_API void omi_fortranFileNameConvert(char* dest, unsigned int destSize, const char* src,
                                           unsigned int srcLen);

// `count` consecutive elements of `elemLen` characters each, converted into new
// strings of elemLen + 1 bytes with at most 79 characters kept. Returns a new
// array of count strings (an empty array for count 0); null when count is
// negative, when the source is null while count is positive, or when an
// allocation fails (what was made by then is released). Release the result
// with omi_fortranStringListFree.
ZMXUTI_API char** omi_fortranStringListConvert(int count, const char* src, unsigned int elemLen);

// The same with strings of `stringSize` bytes (at most stringSize - 1
// characters kept); null also when stringSize is not positive.
ZMXUTI_API char** omi_fortranStringVarListConvert(int count, int stringSize, const char* src,
                                                  unsigned int elemLen);

// Frees the `count` strings of a converted list with mem_Free, then the list.
// A null list or a negative count does nothing.
ZMXUTI_API void omi_fortranStringListFree(int count, char** list);

#endif  // ZMXUTI_CORE_FORTRAN_STRINGS_H
