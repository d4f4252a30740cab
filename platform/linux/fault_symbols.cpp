// Linux symbols and source lines for the crash reporter: libdw.so.1 loaded at
// run time (from the installation's External folders, else from the system),
// with the dynamic symbol tables as the fallback. The few libdwfl entry points
// are declared here, so that neither elfutils' headers nor a link to it are needed.
#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/crash.h"

namespace zmx {
namespace platform {

namespace {

// ---- the libdwfl interface ----
struct Dwfl;
struct DwflModule;
struct DwflLine;
struct Elf;
using DwAddr = std::uint64_t;

using FindElfFn = int (*)(DwflModule*, void**, const char*, DwAddr, char**, Elf**);
using FindDebuginfoFn = int (*)(DwflModule*, void**, const char*, DwAddr, const char*, const char*,
                                std::uint32_t, char**);
using SectionAddressFn = int (*)(DwflModule*, void**, const char*, DwAddr, const char*, std::uint32_t,
                                 const void*, DwAddr*);
struct DwflCallbacks {  // the library's Dwfl_Callbacks, field for field
  FindElfFn findElf;
  FindDebuginfoFn findDebuginfo;
  SectionAddressFn sectionAddress;
  char** debuginfoPath;
};
using RemovedFn = int (*)(DwflModule*, void*, const char*, DwAddr, void*);

struct DwflEntries {
  Dwfl* (*begin)(const DwflCallbacks*);
  void (*reportBegin)(Dwfl*);
  int (*linuxProcReport)(Dwfl*, pid_t);
  int (*reportEnd)(Dwfl*, RemovedFn, void*);
  DwflModule* (*addrModule)(Dwfl*, DwAddr);
  const char* (*moduleAddrInfo)(DwflModule*, DwAddr, std::uint64_t*, Elf64_Sym*, std::uint32_t*, Elf**,
                                DwAddr*);
  DwflLine* (*moduleGetSrc)(DwflModule*, DwAddr);
  const char* (*lineInfo)(DwflLine*, DwAddr*, int*, int*, std::uint64_t*, std::uint64_t*);
  FindElfFn procFindElf;
  FindDebuginfoFn standardFindDebuginfo;
};

const char kLibraryName[] = "libdw.so.1";

bool g_searched = false;
DwflEntries g_dw{};
DwflCallbacks g_callbacks{};
Dwfl* g_session = nullptr;  // null: symbols from the dynamic symbol tables

char g_symbol[2048];
// What the search had to say, held back until a report needs the symbols: a
// healthy process says nothing.
char g_searchMessage[4400];
bool g_searchMessageShown = false;

template <typename Fn>
bool Resolve(void* library, const char* name, Fn& entry) {
  entry = reinterpret_cast<Fn>(dlsym(library, name));
  return entry != nullptr;
}

bool ResolveEntries(void* library) {
  return Resolve(library, "dwfl_begin", g_dw.begin) && Resolve(library, "dwfl_report_begin", g_dw.reportBegin) &&
         Resolve(library, "dwfl_linux_proc_report", g_dw.linuxProcReport) &&
         Resolve(library, "dwfl_report_end", g_dw.reportEnd) && Resolve(library, "dwfl_addrmodule", g_dw.addrModule) &&
         Resolve(library, "dwfl_module_addrinfo", g_dw.moduleAddrInfo) &&
         Resolve(library, "dwfl_module_getsrc", g_dw.moduleGetSrc) && Resolve(library, "dwfl_lineinfo", g_dw.lineInfo) &&
         Resolve(library, "dwfl_linux_proc_find_elf", g_dw.procFindElf) &&
         Resolve(library, "dwfl_standard_find_debuginfo", g_dw.standardFindDebuginfo);
}

// Tries <element>/External/libdw.so.1 for each element; a missing file moves
// on silently, any other failure ends the search (`failed` then set).
void* SearchInstallation(const char* searchList, bool* failed) {
  static char elements[4096];
  std::strncpy(elements, searchList, sizeof elements - 1);
  char* rest = elements;
  while (char* element = strsep(&rest, ";")) {
    if (element[0] == '\0') continue;
    char path[4200];
    std::snprintf(path, sizeof path, "%s/External/%s", element, kLibraryName);
    if (access(path, F_OK) != 0) continue;
    if (void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL)) return library;
    std::snprintf(g_searchMessage, sizeof g_searchMessage, "Unexpected error %s\n", dlerror());
    *failed = true;
    return nullptr;
  }
  return nullptr;
}

bool StartSession() {
  g_callbacks.findElf = g_dw.procFindElf;
  g_callbacks.findDebuginfo = g_dw.standardFindDebuginfo;
  g_session = g_dw.begin(&g_callbacks);
  if (g_session == nullptr) return false;
  g_dw.linuxProcReport(g_session, getpid());
  g_dw.reportEnd(g_session, nullptr, nullptr);
  return true;
}

// Keeps the qualified name and drops the parameter list with its qualifiers,
// as "ns::Class::Method" rather than "ns::Class::Method(int) const".
void DropParameters(char* name) {
  static const char* const kQualifiers[] = {" const", " volatile", " &&", " &", " noexcept"};
  std::size_t n = std::strlen(name);
  for (bool trimmed = true; trimmed;) {
    trimmed = false;
    for (const char* q : kQualifiers) {
      const std::size_t k = std::strlen(q);
      if (n > k && std::strcmp(name + n - k, q) == 0) {
        n -= k;
        name[n] = '\0';
        trimmed = true;
      }
    }
  }
  if (n == 0 || name[n - 1] != ')') return;
  int depth = 0;
  for (std::size_t i = n; i-- > 0;) {
    if (name[i] == ')') ++depth;
    if (name[i] == '(' && --depth == 0) {
      if (i > 0) name[i] = '\0';
      return;
    }
  }
}

const char* ReadableSymbol(const char* versioned) {
  // The symbol table's version ("memcpy@@GLIBC_2.14") is no part of the name,
  // and the demangler does not know it.
  static char raw[sizeof g_symbol];
  const std::size_t n = std::min(std::strcspn(versioned, "@"), sizeof raw - 1);
  std::memcpy(raw, versioned, n);
  raw[n] = '\0';
  int status = 0;
  // The demangler allocates with the runtime's malloc, not with the library's heap.
  char* demangled = abi::__cxa_demangle(raw, nullptr, nullptr, &status);
  const char* text = status == 0 && demangled != nullptr ? demangled : raw;
  const bool fits = std::strlen(text) < sizeof g_symbol;
  std::strncpy(g_symbol, text, sizeof g_symbol - 1);
  g_symbol[sizeof g_symbol - 1] = '\0';
  std::free(demangled);
  if (fits) DropParameters(g_symbol);
  return g_symbol;
}

void DescribeWithDwfl(std::uintptr_t address, DwAddr lookup, AddressInfo* info) {
  DwflModule* module = g_dw.addrModule(g_session, lookup);
  if (module == nullptr) return;
  std::uint64_t offset = 0;
  Elf64_Sym symbol{};
  std::uint32_t section = 0;
  Elf* elf = nullptr;
  DwAddr bias = 0;
  if (const char* name = g_dw.moduleAddrInfo(module, lookup, &offset, &symbol, &section, &elf, &bias)) {
    info->symbol = ReadableSymbol(name);
    info->symbolOffset = offset + (address - lookup);
  }
  if (DwflLine* line = g_dw.moduleGetSrc(module, lookup)) {
    DwAddr lineStart = 0;
    int lineNumber = 0, column = 0;
    std::uint64_t mtime = 0, length = 0;
    if (const char* file = g_dw.lineInfo(line, &lineStart, &lineNumber, &column, &mtime, &length)) {
      info->file = file;
      info->line = lineNumber;
      info->lineOffset = address - lineStart;
    }
  }
}

}  // namespace

void LoadSymbolEngine(const char* searchList) {
  if (g_searched) return;
  g_searched = true;
  bool failed = false;
  void* library = SearchInstallation(searchList, &failed);
  if (library == nullptr) {
    if (!failed) std::snprintf(g_searchMessage, sizeof g_searchMessage, "%s not found in ZEM_PATH", kLibraryName);
    library = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
  }
  if (library == nullptr || !ResolveEntries(library) || !StartSession()) g_session = nullptr;
}

void RefreshSymbols() {
  if (!g_searchMessageShown) {
    g_searchMessageShown = true;
    std::fputs(g_searchMessage, stderr);
  }
  if (g_session == nullptr) return;
  g_dw.reportBegin(g_session);
  g_dw.linuxProcReport(g_session, getpid());
  g_dw.reportEnd(g_session, nullptr, nullptr);
}

void DescribeAddress(std::uintptr_t address, bool returnAddress, AddressInfo* info) {
  *info = AddressInfo{};
  const std::uintptr_t lookup = returnAddress ? address - 1 : address;
  Dl_info loaded;
  if (dladdr(reinterpret_cast<void*>(lookup), &loaded) == 0) return;
  const char* path = loaded.dli_fname;
  const char* slash = path != nullptr ? std::strrchr(path, '/') : nullptr;
  info->module = path == nullptr || path[0] == '\0' ? ProgramBaseName() : slash != nullptr ? slash + 1 : path;
  if (g_session != nullptr) {
    DescribeWithDwfl(address, lookup, info);
  } else if (loaded.dli_sname != nullptr && loaded.dli_saddr != nullptr) {
    info->symbol = ReadableSymbol(loaded.dli_sname);
    info->symbolOffset = address - reinterpret_cast<std::uintptr_t>(loaded.dli_saddr);
  }
}

}  // namespace platform
}  // namespace zmx
