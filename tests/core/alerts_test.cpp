// Alerts reaching their handlers on the listener's worker, one at a time and
// in order; arming, disarming and the listener's singleton.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ZMXUTI_CoreUtils.h"
#include "support/child_process.h"

namespace {

struct Call {
  int number;
  std::thread::id thread;
};

std::mutex g_callsLock;
std::vector<Call> g_calls;
std::atomic<int> g_inside{0};
std::atomic<bool> g_overlap{false};

// Stays a moment inside, so that a second handler running at once would be seen.
void Record(int number) {
  if (g_inside.fetch_add(1) != 0) g_overlap = true;
  std::this_thread::sleep_for(std::chrono::microseconds(200));
  {
    std::lock_guard<std::mutex> hold(g_callsLock);
    g_calls.push_back({number, std::this_thread::get_id()});
  }
  g_inside.fetch_sub(1);
}

class Alerts : public ::testing::Test {
 protected:
  void SetUp() override {
    g_calls.clear();
    g_overlap = false;
  }
};

constexpr int kNumbers[] = {2, 15, 20, 18, 10, 12};

TEST_F(Alerts, EachKindCallsItsHandlerWithItsNumberOnTheWorkerOneAtATimeInOrder) {
  omi_AlertListener listener;
  for (int kind = 0; kind < 6; ++kind) listener.SetHandler(static_cast<omi_AlertEnm>(kind), Record);
  listener.Arm();
  const omi_AlertTrigger trigger(listener);
  std::vector<int> expected;
  for (int round = 0; round < 3; ++round)
    for (int kind = 5; kind >= 0; --kind) {
      trigger.Alert(static_cast<omi_AlertEnm>((kind + round) % 6));
      expected.push_back(kNumbers[(kind + round) % 6]);
    }
  // A second caller at the same time: its alerts join the same single file.
  std::thread other([&listener] {
    for (int i = 0; i < 20; ++i) omi_AlertTrigger(listener).Alert(omi_AlertTerminate);
  });
  other.join();
  listener.Disarm();  // the end message queues behind every alert

  ASSERT_EQ(g_calls.size(), expected.size() + 20);
  for (const Call& c : g_calls) {
    EXPECT_NE(c.thread, std::this_thread::get_id());
    EXPECT_EQ(c.thread, g_calls.front().thread);
  }
  EXPECT_FALSE(g_overlap);
  int terminations = 0;
  for (const Call& c : g_calls) terminations += c.number == 15;
  EXPECT_EQ(terminations, 3 + 20);
  // The first caller's alerts keep their order among themselves.
  std::vector<int> ours;
  std::size_t next = 0;
  for (const Call& c : g_calls)
    if (next < expected.size() && c.number == expected[next]) ours.push_back(c.number), ++next;
  EXPECT_EQ(ours, expected);
}

TEST_F(Alerts, KindsWithoutHandlerAndUnarmedTriggersCallNothing) {
  omi_AlertListener listener;
  const omi_AlertTrigger beforeArming(listener);
  listener.SetHandler(omi_AlertTerminate, Record);
  listener.Arm();
  beforeArming.Alert(omi_AlertTerminate);
  const omi_AlertTrigger trigger(listener);
  trigger.Alert(omi_AlertInterrupt);
  trigger.Alert(omi_AlertTerminate);
  listener.Disarm();                  // handles what was queued first
  trigger.Alert(omi_AlertTerminate);  // the worker is gone
  // The handler is read when the alert is handled, so it is unset only between workers.
  listener.SetHandler(omi_AlertTerminate, nullptr);
  listener.Arm();
  omi_AlertTrigger(listener).Alert(omi_AlertTerminate);
  listener.Disarm();
  ASSERT_EQ(g_calls.size(), 1u);
  EXPECT_EQ(g_calls[0].number, 15);
}

TEST_F(Alerts, ArmingAndDisarmingTwiceIsHarmless) {
  {
  omi_AlertListener listener;
  listener.Disarm();
  EXPECT_EQ(listener.ThreadId(), 0u);
  listener.Arm();
  const std::uint32_t worker = listener.ThreadId();
  EXPECT_NE(worker, 0u);
  listener.Arm();
  EXPECT_EQ(listener.ThreadId(), worker);
  listener.Disarm();
  listener.Disarm();
  EXPECT_EQ(listener.ThreadId(), 0u);
  listener.SetHandler(omi_AlertUser2, Record);
  listener.Arm();
  EXPECT_NE(listener.ThreadId(), worker);
  omi_AlertTrigger(listener).Alert(omi_AlertUser2);
  }  // destruction disarms, after the alert was handled
  ASSERT_EQ(g_calls.size(), 1u);
  EXPECT_EQ(g_calls[0].number, 12);
}

// Signals reach their handlers and disarming restores the actions; a kind without handler keeps its
// signal's own action; a handler may let go of its own listener; a refused worker leaves it disarmed.
TEST_F(Alerts, SignalsHandlersLettingGoAndRefusedWorkersInAFreshProcess) {
  const struct {
    const char* scenario;
    std::vector<std::string> args;
    int signal;  // 0: exits cleanly
    const char* out;
  } cases[] = {
      {"alert_signals", {}, 0, "2 15 20 18 10 12 \noff worker 0\n"},
      {"alert_signals", {"4"}, SIGUSR1, ""},
      {"handler_lets_go", {}, 0, "disarmed 1 restored 1\ndestroyed 2 restored 1\n"},
      {"arm_refused", {}, 0, "thread 0\ndisarmed\n"},
  };
  for (const auto& c : cases) {
    const auto result = zmx_test::RunProbe("services_probe", c.scenario, {}, c.args);
    EXPECT_EQ(result.signal, c.signal) << zmx_test::Describe(result);
    if (c.signal == 0) {
      EXPECT_TRUE(zmx_test::ExitedCleanly(result)) << c.scenario;
      EXPECT_EQ(result.out, c.out) << c.scenario;
    }
  }
}

TEST_F(Alerts, ArmingIsRefusedWhileEveryQueueIsTakenAndAllowedOnceOneIsFree) {
  std::vector<std::unique_ptr<omi_AlertListener>> armed;
  do {
    armed.push_back(std::make_unique<omi_AlertListener>());
    armed.back()->Arm();
  } while (armed.back()->ThreadId() != 0 && armed.size() < 256);
  ASSERT_EQ(armed.back()->ThreadId(), 0u) << armed.size() << " workers all got a queue";
  armed.front()->Disarm();
  armed.back()->SetHandler(omi_AlertUser1, Record);
  armed.back()->Arm();
  omi_AlertTrigger(*armed.back()).Alert(omi_AlertUser1);
  armed.clear();
  ASSERT_EQ(g_calls.size(), 1u);
  EXPECT_EQ(g_calls[0].number, 10);
}

TEST(Singleton, CreatedOnFirstUseAndFreshAfterFinalize) {
  using Base = omi_SingletonBase<omi_AlertListener>;
  Base::Finalize();
  EXPECT_EQ(Base::Instance(), nullptr);
  omi_AlertListener& first = omi_Singleton<omi_AlertListener>::Instance();
  EXPECT_EQ(Base::Instance(), &first);
  EXPECT_EQ(&omi_Singleton<omi_AlertListener>::Instance(), &first);
  first.Arm();
  Base::Finalize();  // disarms and frees
  EXPECT_EQ(Base::Instance(), nullptr);
  EXPECT_EQ(omi_Singleton<omi_AlertListener>::Instance().ThreadId(), 0u);
  Base::Finalize();
}

TEST(Callback, DestroyedThroughItsBase) {
  struct Flagging : omn_Callback<bool> {
    explicit Flagging(bool* flag) : destroyed(flag) {}
    ~Flagging() override { *destroyed = true; }
    bool* destroyed;
  };
  bool destroyed = false;
  omn_Callback<bool>* callback = new Flagging(&destroyed);
  delete callback;
  EXPECT_TRUE(destroyed);
}

}  // namespace
