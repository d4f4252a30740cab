// Questions about the objects the dynamic loader has mapped, answered from its
// list of loaded objects (no allocation, but it takes the loader's lock).
#ifndef ZMXUTI_PLATFORM_LINUX_LOADED_OBJECTS_H
#define ZMXUTI_PLATFORM_LINUX_LOADED_OBJECTS_H

#include <cstdint>

namespace zmx {
namespace platform {

// Whether a loadable segment of some loaded object covers `address` (only
// executable segments when `codeOnly`); a segment counts from its first page.
bool InLoadedSegment(std::uintptr_t address, bool codeOnly);

}  // namespace platform
}  // namespace zmx

#endif  // ZMXUTI_PLATFORM_LINUX_LOADED_OBJECTS_H
