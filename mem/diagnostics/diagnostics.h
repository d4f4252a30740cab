// Memory diagnostics: a scan of the low address space with a memory-use
// summary, a snapshot of the heap's usage, and a debugger singleton that
// announces its life on standard output.
//
//   mem_ScanMemory(MEM_SCAN_FREE, 0x7FFFFFFF);  // free regions, then the summary, on stderr
//   const mem_Mallinfo usage;                   // filled on construction
//   mem_Debugger::Initialize();                 // "Initializing" "Created mem_Debugger"
//   mem_Debugger::Finalize();                   // "Finalizing" "Destroyed mem_Debugger"
#ifndef ZMXUTI_MEM_DIAGNOSTICS_DIAGNOSTICS_H
#define ZMXUTI_MEM_DIAGNOSTICS_DIAGNOSTICS_H

#include <cstdint>

#include "core/export.h"

// Which region lines a scan prints; every level ends with the summary. The
// underlying type is fixed so that any int is a valid level.
enum MEM_SCAN_LEVEL_ENM : int {
  MEM_SCAN_ALL = 0,      // every region, and the compact summary
  MEM_SCAN_FREE = 1,     // free regions only; summary one figure per line
  MEM_SCAN_SUMMARY = 2   // (or any other value) the summary alone, one figure per line
};

// Walks the address space region by region from address 0 and prints, on
// standard error, one line per region the level asks for:
//   "<address %x>  --  State = <%12s>  --  Type = <%11s>  --  RegionSize = <bytes>"
// then the totals of free, committed and reserved bytes and the largest free and
// reserved regions (the first of equal sizes). The walk stops at the region that
// reaches `limit` and, whatever the limit, at the one that would pass the
// first 2 GiB (0x7FFFFFFF). A limit of 0 prints the summary with every figure 0.
// Allocates nothing, so it may be called while the heap is damaged.
ZMXUTI_API void mem_ScanMemory(MEM_SCAN_LEVEL_ENM level, std::uint64_t limit);

extern "C" {
// mem_ScanMemory(MEM_SCAN_ALL, 0x7FFFFFFF), for callers of other conventions.
ZMXUTI_API void MEM_SCANMEMORY_IFC();
}

// A snapshot of the heap's usage in bytes, taken on construction. With the
// general heap in use only `committed` is filled (the heap's footprint); under
// the runtime heap all four come from the runtime's own totals.
struct ZMXUTI_API mem_Mallinfo {
  std::uint64_t committed;  // address space of the heap backed by memory
  std::uint64_t inUse;      // bytes in blocks in use
  std::uint64_t free;       // bytes in free blocks
  std::uint64_t reserved;   // address space of the heap reserved but not backed
  mem_Mallinfo();
};

// The process's one debugger object; it exists from the first Instance() or
// Initialize() until Finalize(). Its texts go to standard output.
class ZMXUTI_API mem_Debugger {
 public:
  // Creates the instance when there is none ("Created mem_Debugger\n").
  static mem_Debugger& Instance();
  // "Initializing\n", every output stream flushed, then Instance().
  static void Initialize();
  // "Finalizing\n", every output stream flushed, then the instance (if any)
  // destroyed ("Destroyed mem_Debugger\n"); a later Instance() makes a new one.
  static void Finalize();

  mem_Debugger(const mem_Debugger&) = delete;
  mem_Debugger& operator=(const mem_Debugger&) = delete;

 private:
  mem_Debugger();
  ~mem_Debugger();
};

#endif  // ZMXUTI_MEM_DIAGNOSTICS_DIAGNOSTICS_H
