// Protection-page markers: stack objects that announce on stdout where a
// memory-fault exerciser is about to strike. They reserve and protect nothing.
#ifndef ZMXUTI_MEM_DIAGNOSTICS_PROTECTION_PAGE_H
#define ZMXUTI_MEM_DIAGNOSTICS_PROTECTION_PAGE_H

namespace zmx {
namespace mem_internal {

class ProtectionPage {
 public:
  // Prints "Creating a protection page at address 0x%08x, size %d\n" with the
  // address's low 32 bits. The arguments are printed, not kept.
  ProtectionPage(const void* address, int size);
  // Prints "DESTROYING a PROTECTION PAGE ...\n", then "Destroying a protection
  // page at address 0x%08x, size %d\n" with what the marker holds: since the
  // constructor keeps nothing, that is always address 0 and size 0.
  ~ProtectionPage();

  ProtectionPage(const ProtectionPage&) = delete;
  ProtectionPage& operator=(const ProtectionPage&) = delete;

 private:
  const void* address_ = nullptr;
  int size_ = 0;
};

}  // namespace mem_internal
}  // namespace zmx

#endif  // ZMXUTI_MEM_DIAGNOSTICS_PROTECTION_PAGE_H
