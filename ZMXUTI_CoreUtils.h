// ZMXUTI_CoreUtils: the one header clients include.
#ifndef ZMXUTI_CORE_UTILS_H
#define ZMXUTI_CORE_UTILS_H

#include "core/export.h"
#include "core/startup.h"
#include "core/clock.h"
#include "core/fpe.h"
#include "core/alerts.h"
#include "core/crash_report.h"
#include "core/fortran_strings.h"
#include "core/numeric_helpers.h"

#include "mem/allocation.h"
#include "mem/heap/general_heap.h"
#include "mem/pools/region.h"
#include "mem/pools/cache_manager.h"
#include "mem/pools/cache_pool.h"
#include "mem/tracker/hashes.h"
#include "mem/tracker/tracker.h"
#include "mem/diagnostics/diagnostics.h"
#include "mem/exercisers/fault_exercisers.h"

#include "streams/ios.h"
#include "streams/istream.h"
#include "streams/ostream.h"
#include "streams/standard_streams.h"
#include "streams/fstream.h"
#include "streams/strstream.h"

#include "containers/blocked_array.h"
#include "containers/blk_bit_vect.h"
#include "containers/int_set.h"
#include "containers/uint_table.h"
#include "containers/int_table.h"
#include "containers/int_multimap.h"
#include "containers/octree.h"
#include "containers/octree_line_trav.h"
#include "containers/swapper.h"

#include "strings/string_rep.h"
#include "strings/string_base.h"
#include "strings/locale.h"
#include "strings/natural_order.h"
#include "strings/utf8.h"
#include "strings/translatable_string.h"
#include "strings/translate.h"

#include "unittest/unit_test.h"

#endif  // ZMXUTI_CORE_UTILS_H
