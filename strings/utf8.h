// UTF-8 lengths and code points, validation of a text in one of the library's
// encodings, and the general converter that goes through UCS-4 code points.
//
// Encodings are small integers:
//   0 none (nothing is valid), 1 the current runtime locale's multi-byte encoding,
//   2 UTF-8, 3 ISO 8859-1. Any other id behaves as 0.
// UTF-8 sequences of up to six bytes (31-bit values) are accepted and produced;
// overlong forms, surrogates and values above U+10FFFF are not rejected.
//
//   char latin1[64];
//   int n = atr_utf8_to_encoding(atr_EncodingLatin1, nullptr, utf8, '?');  // measure
//   if (n >= 0 && n < 64) atr_utf8_to_encoding(atr_EncodingLatin1, latin1, utf8, '?');
#ifndef ZMXUTI_STRINGS_UTF8_H
#define ZMXUTI_STRINGS_UTF8_H

#include "core/export.h"

enum atr_Encoding {
  atr_EncodingNone = 0,
  atr_EncodingLocale = 1,
  atr_EncodingUtf8 = 2,
  atr_EncodingLatin1 = 3
};

// Converter results below zero.
enum {
  atr_ConvertInvalidInput = -1,  // the input is not valid in its encoding
  atr_ConvertUnencodable = -2    // a character has no representation and no replacement was given
};

// Sequence length announced by a lead byte: 1 for ASCII, 2..6 for lead bytes,
// 0 for a continuation byte (0x80..0xBF) and for 0xFE, 0xFF.
ZMXUTI_API int atr_utf8_len(const unsigned char* s);
// Bytes needed to encode code point c (1..6).
ZMXUTI_API int atr_utf8_len(unsigned int c);
// Decodes the sequence at s; stores its length in *len when len is not null.
// Returns 0xFFFFFFFF for a bad lead byte or a continuation byte outside 0x80..0xBF
// (it never reads past the first bad byte, so a NUL ends the sequence safely).
ZMXUTI_API unsigned int atr_utf8_to_ucs4(const unsigned char* s, int* len);
// Writes the 1..6 byte sequence of c (no NUL) and returns its length.
ZMXUTI_API int atr_utf8_from_ucs4(unsigned char* out, unsigned int c);

// True when the whole NUL-terminated text is valid in encoding id.
ZMXUTI_API bool atr_encoding_validate(int id, const char* text);
ZMXUTI_API bool atr_encoding_validate(int id, const unsigned char* text);

// Converts NUL-terminated UTF-8 to encoding id. With out null only measures.
// Characters that id cannot represent become `replacement`, or give -2 when it
// is 0; invalid UTF-8 gives -1. Otherwise returns the bytes produced (NUL not
// counted) and, when out is given, terminates it.
ZMXUTI_API int atr_utf8_to_encoding(int id, char* out, const char* utf8, char replacement);
ZMXUTI_API int atr_utf8_to_encoding(int id, unsigned char* out, const unsigned char* utf8,
                                    unsigned char replacement);
// Converts NUL-terminated text in encoding id to UTF-8 (no replacement).
ZMXUTI_API int atr_utf8_from_encoding(unsigned char* out, int id, const unsigned char* text);

#endif  // ZMXUTI_STRINGS_UTF8_H
