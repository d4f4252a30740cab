// Linux modules and stack walk for the crash reporter: the dynamic loader's
// list of loaded objects, and the unwinder walking out of the signal frame.
#include <dlfcn.h>
#include <link.h>
#include <unwind.h>

#include <cstring>

#include "platform/crash.h"
#include "platform/linux/loaded_objects.h"

namespace zmx {
namespace platform {

namespace {

const char* BaseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

struct ModuleWalk {
  void (*visit)(const ModuleRange&, void*);
  void* context;
  bool first;
};

int VisitLoadedObject(dl_phdr_info* info, size_t, void* raw) {
  auto* walk = static_cast<ModuleWalk*>(raw);
  std::uintptr_t low = UINTPTR_MAX, high = 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = info->dlpi_phdr[i];
    if (segment.p_type != PT_LOAD) continue;
    if (segment.p_vaddr < low) low = segment.p_vaddr;
    if (segment.p_vaddr + segment.p_memsz > high) high = segment.p_vaddr + segment.p_memsz;
  }
  // The loader lists the program first, without a name.
  const bool program = walk->first;
  walk->first = false;
  if (high == 0) return 0;
  const char* name = program || info->dlpi_name == nullptr || info->dlpi_name[0] == '\0'
                         ? (program ? ProgramBaseName() : "<UNKNOWN>")
                         : BaseName(info->dlpi_name);
  walk->visit(ModuleRange{name, info->dlpi_addr + low, info->dlpi_addr + high}, walk->context);
  return 0;
}

struct StackWalk {
  std::uintptr_t faultPc;
  bool reachedFault;
  bool (*visit)(std::uintptr_t, bool, void*);
  void* context;
};

// The walk starts inside the handler: frames up to the signal frame belong to
// the reporter and are skipped until the faulting instruction comes up.
_Unwind_Reason_Code VisitFrame(_Unwind_Context* frame, void* raw) {
  auto* walk = static_cast<StackWalk*>(raw);
  int beforeInstruction = 0;
  const std::uintptr_t pc = _Unwind_GetIPInfo(frame, &beforeInstruction);
  if (!walk->reachedFault) {
    if (pc != walk->faultPc) return _URC_NO_REASON;
    walk->reachedFault = true;
    return walk->visit(pc, false, walk->context) ? _URC_NO_REASON : _URC_END_OF_STACK;
  }
  if (pc == 0) return _URC_END_OF_STACK;
  return walk->visit(pc, beforeInstruction == 0, walk->context) ? _URC_NO_REASON : _URC_END_OF_STACK;
}

}  // namespace

void ForEachModule(void (*visit)(const ModuleRange& module, void* context), void* context) {
  ModuleWalk walk{visit, context, true};
  dl_iterate_phdr(VisitLoadedObject, &walk);
}

const void* ModuleBaseOf(const void* address) {
  Dl_info info;
  if (dladdr(address, &info) == 0) return nullptr;
  return info.dli_fbase;
}

bool IsCodeAddress(const void* address) {
  return InLoadedSegment(reinterpret_cast<std::uintptr_t>(address), true);
}

void WalkFaultStack(const omi_ExceptionPointers& fault,
                    bool (*visit)(std::uintptr_t pc, bool returnAddress, void* context), void* context) {
  StackWalk walk{reinterpret_cast<std::uintptr_t>(fault.address), false, visit, context};
  _Unwind_Backtrace(VisitFrame, &walk);
  // An unwinder that cannot cross the signal frame still yields the faulting frame.
  if (!walk.reachedFault) visit(walk.faultPc, false, context);
}

}  // namespace platform
}  // namespace zmx
