// Allocation statistics of the string representations (ATR_SUMMARY): the
// record, its updates on creation and release, and the report at shut-down.
#ifndef ZMXUTI_STRINGS_INTERNAL_STRING_STATS_H
#define ZMXUTI_STRINGS_INTERNAL_STRING_STATS_H

namespace zmx {
namespace atr_internal {

// Seven counters, then four single-precision sums over released inline texts.
struct StringStats {
  int repsCreated;        // header-only representations ("Reps Created")
  int stringsCreated;     // representations with inline text ("Strings Created")
  int extensionFailures;  // attempts to grow inline text in place
  int active;             // representations alive, all kinds
  int bytesInUse;         // capacities of live inline representations
  int maxActive;
  int maxBytesInUse;
  float sumLength;
  float sumLengthSquared;
  float sumSpare;
  float sumSpareSquared;
};

// The record while statistics are on, else null. A plain global: strings are
// used by one thread at a time.
extern StringStats* g_stringStats;

// Start-up: creates the zeroed record when ATR_SUMMARY is present (any value).
void CreateStringStats();
// Shut-down: writes the report to standard error and frees the record (if any).
void ReportAndFreeStringStats();

// Creation of a representation: inline ones count their capacity, header-only ones 0.
void RecordCreation(bool inlineText, int capacity);
// Release: `capacity` is the inline capacity (0 for header-only ones, whose
// length does not enter the sums).
void RecordRelease(int capacity, int length);
inline void RecordExtensionFailure() {
  if (g_stringStats != nullptr) ++g_stringStats->extensionFailures;
}

}  // namespace atr_internal
}  // namespace zmx

#endif  // ZMXUTI_STRINGS_INTERNAL_STRING_STATS_H
