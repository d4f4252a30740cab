// omi_Swapper: conversion of arrays of 16-, 32- and 64-bit unsigned integers
// between the machine's form and an external byte buffer of reversed byte
// order, and a plain copy for data already in the machine's order.
//
//   omi_Swapper s(omi_Swapper::omi_SwappedEndian);
//   s.Externalize(buffer, values, n);   // bytes reversed, since SwapNeeded()
#ifndef ZMXUTI_CONTAINERS_SWAPPER_H
#define ZMXUTI_CONTAINERS_SWAPPER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/export.h"

// The conversion routines. Counts are element counts (bytes for CopyBytes);
// 0 or a negative count does nothing. Source and destination must not overlap;
// the external buffer needs no alignment.
class ZMXUTI_API omi_SwapperGuts {
 public:
  // Writes each element with its bytes in reverse order.
  static void ExternalizeArray(char* dest, const unsigned short* src, int count);
  static void ExternalizeArray(char* dest, const unsigned int* src, int count);
  static void ExternalizeArray(char* dest, const uint64_t* src, int count);
  // Reads each element with its bytes reversed.
  static void InternalizeArray(const char* src, unsigned short* dest, int count);
  static void InternalizeArray(const char* src, unsigned int* dest, int count);
  static void InternalizeArray(const char* src, uint64_t* dest, int count);
  // A plain copy of `bytes` bytes.
  static void CopyBytes(void* dest, const void* src, int bytes);
};

// Records from the external data's byte order whether conversion is needed.
class ZMXUTI_API omi_Swapper : public omi_SwapperGuts {
 public:
  enum EndianType { omi_NativeEndian = 0, omi_SwappedEndian = 1 };

  explicit omi_Swapper(EndianType type) : swapNeeded_(type != omi_NativeEndian) {}

  bool SwapNeeded() const { return swapNeeded_; }

  // Reversing conversion when a swap is needed, otherwise a plain copy.
  template <typename T>
  void Externalize(char* dest, const T* src, int count) const {
    if (swapNeeded_) {
      ExternalizeArray(dest, src, count);
    } else if (count > 0) {
      std::memcpy(dest, src, static_cast<std::size_t>(count) * sizeof(T));
    }
  }
  template <typename T>
  void Internalize(const char* src, T* dest, int count) const {
    if (swapNeeded_) {
      InternalizeArray(src, dest, count);
    } else if (count > 0) {
      std::memcpy(dest, src, static_cast<std::size_t>(count) * sizeof(T));
    }
  }

 private:
  bool swapNeeded_;
};

#endif  // ZMXUTI_CONTAINERS_SWAPPER_H
