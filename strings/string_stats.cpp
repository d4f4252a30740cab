// String allocation statistics (ATR_SUMMARY): counting and the shut-down report.
#include "strings/internal/string_stats.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mem/allocation.h"

namespace zmx {
namespace atr_internal {

StringStats* g_stringStats = nullptr;

void CreateStringStats() {
  if (g_stringStats != nullptr || std::getenv("ATR_SUMMARY") == nullptr) return;
  void* block = mem_OperatorNewTinyThrow(sizeof(StringStats));
  std::memset(block, 0, sizeof(StringStats));
  g_stringStats = static_cast<StringStats*>(block);
}

void RecordCreation(bool inlineText, int capacity) {
  StringStats* s = g_stringStats;
  if (s == nullptr) return;
  if (inlineText) {
    ++s->stringsCreated;
    s->bytesInUse += capacity;
  } else {
    ++s->repsCreated;
  }
  ++s->active;
  if (s->active > s->maxActive) s->maxActive = s->active;
  if (s->bytesInUse > s->maxBytesInUse) s->maxBytesInUse = s->bytesInUse;
}

void RecordRelease(int capacity, int length) {
  StringStats* s = g_stringStats;
  if (s == nullptr) return;
  --s->active;
  s->bytesInUse -= capacity;
  if (capacity == 0) return;
  const float len = static_cast<float>(length);
  const float spare = static_cast<float>(capacity - length);
  s->sumLength += len;
  s->sumLengthSquared += len * len;
  s->sumSpare += spare;
  s->sumSpareSquared += spare * spare;
}

namespace {

// Mean and standard deviation in single precision from a sum and a sum of
// squares scaled by f. Rounding can make the variance of equal values a hair
// negative; it is taken as 0 so that the report never prints "nan".
void MeanAndSigma(float f, float sum, float sumSquared, float& mean, float& sigma) {
  mean = f * sum;
  const float variance = f * sumSquared - mean * mean;
  sigma = variance > 0.0f ? std::sqrt(variance) : 0.0f;
}

}  // namespace

void ReportAndFreeStringStats() {
  StringStats* s = g_stringStats;
  if (s == nullptr) return;
  const float f = s->stringsCreated == 0 ? 0.0f : static_cast<float>(1.0 / s->stringsCreated);
  float meanLength, sigmaLength, meanSpare, sigmaSpare;
  MeanAndSigma(f, s->sumLength, s->sumLengthSquared, meanLength, sigmaLength);
  MeanAndSigma(f, s->sumSpare, s->sumSpareSquared, meanSpare, sigmaSpare);
  std::fprintf(stderr,
               "%8d Reps Created\n%8d Strings Created\n%8d Extension Failures\n%8d Active\n"
               "%8d Bytes in use\n%8d Maximum active\n%8d Maximum bytes in use\n%8.1f Mean length\n"
               "%8.1f Sigma length\n%8.1f Mean spare\n%8.1f Sigma spare\n",
               s->repsCreated, s->stringsCreated, s->extensionFailures, s->active, s->bytesInUse, s->maxActive,
               s->maxBytesInUse, static_cast<double>(meanLength), static_cast<double>(sigmaLength),
               static_cast<double>(meanSpare), static_cast<double>(sigmaSpare));
  g_stringStats = nullptr;
  mem_Free(s);
}

}  // namespace atr_internal
}  // namespace zmx
