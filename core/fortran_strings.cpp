// Fortran string bridging: trimming and bounded copying of fixed-length data,
// and the lists built from consecutive elements.
#include "core/fortran_strings.h"

#include <cstddef>
#include <cstring>
#include <new>

#include "mem/allocation.h"

namespace {

// The fixed-length converter writes into a buffer of this size.
constexpr std::size_t kFixedDestination = 80;

void ConvertDatum(char* dest, std::size_t destSize, const char* src, std::size_t srcLen) {
  if (dest == nullptr || destSize == 0) return;
  if (src == nullptr) srcLen = 0;
  while (srcLen > 0 && src[srcLen - 1] == ' ') --srcLen;
  const std::size_t n = srcLen < destSize - 1 ? srcLen : destSize - 1;
  if (n > 0) std::memcpy(dest, src, n);
  dest[n] = '\0';
}

// Element i of the list gets a string of `allocSize` bytes filled with at most
// `limit` - 1 characters; allocSize never falls below what the limit may write.
char** ConvertList(int count, const char* src, std::size_t elemLen, std::size_t allocSize,
                   std::size_t limit) {
  if (count < 0) return nullptr;
  if (count > 0 && src == nullptr) return nullptr;
  char** list = new (std::nothrow) char*[static_cast<std::size_t>(count)];
  if (list == nullptr) return nullptr;
  for (int i = 0; i < count; ++i) {
    list[i] = static_cast<char*>(mem_Malloc(allocSize));
    if (list[i] == nullptr) {
      omi_fortranStringListFree(i, list);
      return nullptr;
    }
    ConvertDatum(list[i], limit, src, elemLen);
    src += elemLen;
  }
  return list;
}

}  // namespace

void omi_fortranStringConvert(char* dest, const char* src, unsigned int srcLen) {
  ConvertDatum(dest, kFixedDestination, src, srcLen);
}

void omi_fortranFileNameConvert(char* dest, unsigned int destSize, const char* src, unsigned int srcLen) {
  ConvertDatum(dest, destSize, src, srcLen);
}

char** omi_fortranStringListConvert(int count, const char* src, unsigned int elemLen) {
  // One byte beyond the element: an element of fewer than 80 characters
  // without padding keeps all of them plus the terminator.
  const std::size_t allocSize = static_cast<std::size_t>(elemLen) + 1;
  const std::size_t limit = allocSize < kFixedDestination ? allocSize : kFixedDestination;
  return ConvertList(count, src, elemLen, allocSize, limit);
}

char** omi_fortranStringVarListConvert(int count, int stringSize, const char* src, unsigned int elemLen) {
  if (count > 0 && stringSize <= 0) return nullptr;
  const std::size_t size = stringSize > 0 ? static_cast<std::size_t>(stringSize) : 1;
  return ConvertList(count, src, elemLen, size, size);
}

void omi_fortranStringListFree(int count, char** list) {
  if (list == nullptr || count < 0) return;
  for (int i = 0; i < count; ++i) mem_Free(list[i]);
  delete[] list;
}
