// The region base: what every kind of region shares.
#include "mem/pools/region.h"

mem_Region::~mem_Region() = default;
