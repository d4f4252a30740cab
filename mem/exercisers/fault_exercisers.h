// Memory-fault exercisers: each function commits exactly one memory fault on
// purpose, so that a memory checker (valgrind memcheck, the guarded heap of
// ZEM_DEADBEEF, the compiler's stack protector) can be tried on it. Blocks come
// through the library's front door, as a client's would. Calling one damages
// the process in the way its name says; some end it (a double free, an
// underwrite on the general heap, which aborts with its corruption message,
// the stack overrun under the stack protector).
//
//   ZMX_CRTMALLOC=1 valgrind ./program        # memcheck names the fault
//   ZEM_DEADBEEF=1 ./program                  # the guards report overruns
#ifndef ZMXUTI_MEM_EXERCISERS_FAULT_EXERCISERS_H
#define ZMXUTI_MEM_EXERCISERS_FAULT_EXERCISERS_H

#include "core/export.h"

extern "C" {

// Writes one byte past the end of a 10-byte mem_Malloc block, then frees it.
ZMXUTI_API void mem_heap_overwrite1();
// Writes one byte before the start of a 10-byte mem_Malloc block, then frees it.
ZMXUTI_API void mem_heap_underwrite1();
// Reads one byte of a 64-byte mem_Malloc block after mem_Free.
ZMXUTI_API void mem_heap_read_after_free1();
// Writes one byte of a 64-byte mem_Malloc block after mem_Free.
ZMXUTI_API void mem_heap_write_after_free1();
// Frees a mem_Malloc block twice.
ZMXUTI_API void mem_heap_double_free1();
// Branches on a byte of a fresh mem_Malloc block that was never written.
ZMXUTI_API void mem_heap_umr1();
// Drops the only pointer to a written 100-byte mem_Malloc block.
ZMXUTI_API void mem_heap_leak1();
// Releases an array from new int[10] with delete (not delete[]).
ZMXUTI_API void mem_heap_mismatch_array_delete1();
// Releases a mem_Malloc block with delete.
ZMXUTI_API void mem_heap_mismatch_malloc_delete1();
// Branches on a stack byte that was never written, between protection-page markers.
ZMXUTI_API void mem_stack_umr01();
// Writes 16 bytes past the end of a 16-byte stack array, between
// protection-page markers; built with the stack protector, so returning
// ends the process with "*** stack smashing detected ***".
ZMXUTI_API void mem_stack_corruption01();

}  // extern "C"

#endif  // ZMXUTI_MEM_EXERCISERS_FAULT_EXERCISERS_H
