// Floating-point traps as the control registers show them, the freeze count,
// the error mode and captured error codes.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

#include "ZMXUTI_CoreUtils.h"
#include "platform/fpu.h"
#include "support/child_process.h"

namespace {

namespace fp = zmx::platform;
using zmx_test::RunProbe;

struct Registers {
  unsigned x87, sse;
  bool operator==(const Registers& o) const { return x87 == o.x87 && sse == o.sse; }
};
Registers Read() { return {fp::ReadX87Control(), fp::ReadSseControl()}; }

// Every test leaves the thread as start-up left it: traps on, nothing frozen.
class FpeControl : public ::testing::Test {
 protected:
  void TearDown() override { omn_enableFPE(); }
};

// Enabling traps invalid, zero-divide and overflow on both units and sets the
// status pattern; disabling masks all and resets rounding and precision.
TEST_F(FpeControl, EnableTrapsThreeExceptionsOnBothUnitsAndDisableMasksAll) {
  omn_disableFPE();
  omn_enableFPE();
  Registers r = Read();
  EXPECT_EQ(r.x87 & 0x3Fu, 0x32u);    // denormal, underflow, precision masked
  EXPECT_EQ(r.sse & 0x1F80u, 0x1900u);
  EXPECT_EQ(r.sse & 0x3Fu, 0x1Du);    // status flags raised and cleared as kept
  EXPECT_NE(r.sse & fp::kSseFlushToZero, 0u);
  EXPECT_NE(r.sse & fp::kSseDenormalsAreZero, 0u);
  EXPECT_EQ(fp::ControlFp(0, 0) & (fp::kFpExceptionField | fp::kFpDenormalField), 0x80003u | fp::kFpDenormalFlush);
  // Denormals are flushed now, which disabling leaves as they are.
  fp::ControlFp(0x200 | 0x10000, fp::kFpRoundingField | fp::kFpPrecisionField);
  omn_disableFPE();
  r = Read();
  EXPECT_EQ(r.x87 & 0xF3Fu, 0x33Fu);  // all masked, 64-bit precision, to nearest
  EXPECT_EQ(r.sse & 0x1F80u, 0x1F80u);
  EXPECT_EQ(r.sse & (3u << 13), 0u);
  EXPECT_EQ(r.sse & fp::kSseFlushToZero, 0u);
  EXPECT_NE(r.sse & fp::kSseDenormalsAreZero, 0u);
}

TEST_F(FpeControl, ControlValuesReachBothUnits) {
  omn_disableFPE();
  struct Case {
    unsigned value, mask, x87Bits, x87Mask, sseBits, sseMask;
  } const cases[] = {
      {0x100, 0x300, 0x400, 0xC00, 0x2000, 0x6000},           // round down
      {0x300, 0x300, 0xC00, 0xC00, 0x6000, 0x6000},           // toward zero
      {0x20000, 0x30000, 0x000, 0x300, 0, 0},                 // 24-bit precision, x87 only
      {0x10000, 0x30000, 0x200, 0x300, 0, 0},                 // 53-bit precision
      {0x8000B, 0x8001F, 0x36, 0x3F, 0x1B00, 0x1F80},         // only invalid and overflow trap
      {0x2000000, 0x3000000, 0, 0, 0x40, 0x8040},             // flush operands only
      {0x3000000, 0x3000000, 0, 0, 0x8000, 0x8040},           // flush results only
  };
  for (const Case& c : cases) {
    const unsigned result = fp::ControlFp(c.value, c.mask);
    const Registers r = Read();
    EXPECT_EQ(result & c.mask, c.value) << std::hex << c.value;
    EXPECT_EQ(r.x87 & c.x87Mask, c.x87Bits) << std::hex << c.value;
    EXPECT_EQ(r.sse & c.sseMask, c.sseBits) << std::hex << c.value;
    omn_disableFPE();
  }
}

TEST_F(FpeControl, ClearFpReportsAndClearsPendingFlags) {
  omn_disableFPE();
  volatile double zero = 0.0, q = 1.0 / zero;
  (void)q;
  EXPECT_NE(fp::ClearFp() & fp::kFpMaskZeroDivide, 0u);
  EXPECT_EQ(fp::ReadSseControl() & fp::kSseStatusFlags, 0u);
  EXPECT_EQ(fp::ClearFp(), 0u);
}

TEST_F(FpeControl, FrozenSettingsIgnoreEnableAndDisableUntilEveryFreezeIsReleased) {
  omn_enableFPE();
  const Registers enabled = Read();
  omn_freezeFPESetting(true);
  omn_freezeFPESetting(true);
  omn_disableFPE();
  EXPECT_EQ(Read(), enabled);
  omn_freezeFPESetting(false);
  omn_disableFPE();
  EXPECT_EQ(Read(), enabled);
  omn_freezeFPESetting(false);
  omn_disableFPE();
  const Registers disabled = Read();
  EXPECT_EQ(disabled.sse & 0x1F80u, 0x1F80u);
  omn_freezeFPESetting(true);
  omn_enableFPE();
  EXPECT_EQ(Read(), disabled);
  omn_freezeFPESetting(false);
}

TEST(FpeTraps, TrappedOperationsEndTheProcessWithSigfpe) {
  struct Case {
    const char* operation;
    const char* mode;
    bool traps;
  } const cases[] = {
      {"divide", "enabled", true},    {"invalid", "enabled", true},   {"overflow", "enabled", true},
      {"underflow", "enabled", false}, {"inexact", "enabled", false}, {"divide", "disabled", false},
      {"invalid", "disabled", false},  {"overflow", "disabled", false},
  };
  for (const Case& c : cases) {
    const auto result = RunProbe("services_probe", "fpe_trap", {}, {c.operation, c.mode});
    if (c.traps) {
      EXPECT_EQ(result.signal, SIGFPE) << c.operation << "\n" << zmx_test::Describe(result);
    } else {
      EXPECT_TRUE(zmx_test::ExitedCleanly(result)) << c.operation << " " << c.mode;
      EXPECT_EQ(result.out, std::string("survived ") + c.operation + "\n");
    }
  }
}

TEST(FpeTraps, AnUnbalancedReleaseIsReportedAndTheCountStaysAtZero) {
  const auto result = RunProbe("services_probe", "freeze_release");
  ASSERT_TRUE(zmx_test::ExitedCleanly(result));
  const std::string message = "omn_freezeFPESetting giFreezeFPESetting < 0\n";
  EXPECT_EQ(result.err, message + message);
  EXPECT_EQ(result.out, "frozen traps 1\nreleased traps 0\n");
}

TEST(ErrorMode, DecidedOnceFromThePresenceOfTheVariable) {
  for (const bool popups : {false, true}) {
    const zmx_test::EnvVars env = popups ? zmx_test::EnvVars{{"QVL_DEBUG_POPUP", ""}} : zmx_test::EnvVars{};
    const auto r = RunProbe("services_probe", "error_mode", env);
    ASSERT_TRUE(zmx_test::ExitedCleanly(r));
    EXPECT_EQ(r.out, popups ? "before ffffffff\nstarted 0\nset 0\n" : "before ffffffff\nstarted ffffffff\nset 2\n");
  }
}

TEST(SystemErrorCode, CapturesTheCodeOfItsTypeOnly) {
  using Type = omi_SystemErrorCode::ErrorCodeType;
  struct Case {
    Type type;
    unsigned system;
    int runtime;
  } const cases[] = {
      {omi_SystemErrorCode::Runtime, 0xFFFFFFFFu, EDOM},
      {omi_SystemErrorCode::System, EDOM, -1},
      {static_cast<Type>(2), 0xFFFFFFFFu, -1},
  };
  for (const Case& c : cases) {
    errno = EDOM;
    const omi_SystemErrorCode code(c.type);
    EXPECT_EQ(code.SystemError(), c.system) << c.type;
    EXPECT_EQ(code.RuntimeError(), c.runtime) << c.type;
  }
  omi_SystemErrorCode code(omi_SystemErrorCode::System);
  errno = ERANGE;
  code.SetError(omi_SystemErrorCode::Runtime);
  EXPECT_EQ(code.RuntimeError(), ERANGE);
  EXPECT_EQ(code.SystemError(), 0xFFFFFFFFu);
}

}  // namespace
