// Floating-point exception control, the process's error mode, and captured
// error codes of the runtime and of the operating system.
//
//   omn_freezeFPESetting(true);    // a section that must keep the current traps
//   CallThirdPartyCode();          // its omn_enableFPE/omn_disableFPE calls do nothing
//   omn_freezeFPESetting(false);
#ifndef ZMXUTI_CORE_FPE_H
#define ZMXUTI_CORE_FPE_H

#include "core/export.h"

// Traps invalid operations, division by zero and overflow; denormal,
// underflow and inexact stay masked; denormals are flushed to zero. Acts on
// the calling thread only (threads started afterwards inherit it); does
// nothing while the setting is frozen. Start-up calls it.
ZMXUTI_API void omn_enableFPE();
// Masks all six exceptions, rounds to nearest with full precision and stops
// flushing results to zero. Does nothing while the setting is frozen.
ZMXUTI_API void omn_disableFPE();
// true freezes once more; false releases once. A release without a freeze
// prints "omn_freezeFPESetting giFreezeFPESetting < 0" on aio_cerr and leaves
// the count at 0. Process-wide and unsynchronised.
ZMXUTI_API void omn_freezeFPESetting(bool freeze);

// Decides the process's error mode on its first call, 0 when QVL_DEBUG_POPUP
// is present and 2 otherwise, and hands the kept mode to the system at every
// call (the system may have no use for it).
ZMXUTI_API void omi_setErrorMode();
// The kept error mode, 0xFFFFFFFF until omi_setErrorMode decided it.
ZMXUTI_API unsigned int omi_getErrorMode();

// The error codes of the runtime (errno) or of the operating system at the
// moment of capture. On Linux the system's code is errno as well.
class ZMXUTI_API omi_SystemErrorCode {
 public:
  enum ErrorCodeType : int { Runtime = 0, System = 1 };

  // Captures the code of `type`; the other code reads as "none".
  explicit omi_SystemErrorCode(ErrorCodeType type);
  void SetError(ErrorCodeType type);

  // The system's code, or 0xFFFFFFFF when none was captured.
  unsigned int SystemError() const { return m_systemError; }
  // The runtime's errno, or -1 when none was captured.
  int RuntimeError() const { return m_runtimeError; }

 private:
  unsigned int m_systemError;
  int m_runtimeError;
};

#endif  // ZMXUTI_CORE_FPE_H
