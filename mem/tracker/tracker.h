// The memory tracker's public face: the static facade mem_Tracker_Interface and
// the MEM_TRACKER_* entry points for callers that pass strings with explicit
// lengths. Tracking is switched on by the presence of ZEM_MEM_TRACK; each
// allocation and release through the front door then becomes a 40-byte record,
// written in batches of 131072 to "<output name>.memT<n>", and the phase paths
// go to "<output name>.phaseStack" when the tracker is shut down.
//
//   mem_Tracker_Interface::SetOutputName("/scratch/job");   // with ZEM_MEM_OUTPUTDIR=out:
//                                                            // "/scratch/out/job"
//   mem_Tracker_Interface::EnterPhase("solve", 0);           // ROOT->solve
//   ...
//   mem_Tracker_Interface::ExitPhase(0);
//   mem_Tracker_Interface::Shutdown();                       // last batch and phase file
#ifndef ZMXUTI_MEM_TRACKER_TRACKER_H
#define ZMXUTI_MEM_TRACKER_TRACKER_H

#include "core/export.h"

class ZMXUTI_API mem_Tracker_Interface {
 public:
  // While tracking: the base path of the output files, "name" placed in the
  // output directory (ZEM_MEM_OUTPUTDIR) after its last '/' when one was given.
  static void SetOutputName(const char* name);
  // The number the next record will get (creates the tracker even when tracking is off).
  static int CurrTransactionId();
  // While tracking: the calling thread enters phase `name` (its path gains "->name");
  // a non-zero `print` writes an ENTER PHASE line on standard error.
  static void EnterPhase(const char* name, int print);
  // While tracking: the calling thread leaves its innermost phase.
  static void ExitPhase(int print);
  // While tracking: "<label>  --  Monitored TransId = <number>" on standard error.
  static void PrintTransaction(const char* label);
  // While tracking: record acquisitions again / stop recording them. Blocks
  // acquired while stopped are never recorded, not even when released later.
  static void StartTracking();
  static void StopTracking();
  // True exactly when tracking is on.
  static bool IsTrackingActive();
  // Writes the phase file (while tracking) and the last partial batch, ends
  // tracking for the rest of the process and releases the tracker.
  static void Shutdown();
};

extern "C" {
// Explicit-length forms: the string is copied into a 152-byte buffer (at most
// 151 characters) and terminated. These create the tracker even when tracking
// is off, and then do nothing more. A null `print` counts as 0.
ZMXUTI_API void MEM_TRACKER_ENTERPHASE(int* print, const char* name, int nameLength);
ZMXUTI_API void MEM_TRACKER_EXITPHASE(int* print);
ZMXUTI_API void MEM_TRACKER_PRINTTRANSACTION(const char* label, int labelLength);
// The same as mem_Tracker_Interface::Shutdown().
ZMXUTI_API void MEM_TRACKER_SHUTDOWN();
}

#endif  // ZMXUTI_MEM_TRACKER_TRACKER_H
