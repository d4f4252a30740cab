// The alert listener's worker thread, its message loop and signal routing;
// the singletons instantiated for the listener.
#include "core/alerts.h"

#include "mem/allocation.h"
#include "platform/platform.h"
#include "platform/threads.h"

namespace platform = zmx::platform;

template <class Result>
omn_Callback<Result>::~omn_Callback() = default;
template class omn_Callback<bool>;

template class omi_SingletonBase<omi_AlertListener>;
template class omi_Singleton<omi_AlertListener>;

namespace {

constexpr int kKinds = 6;
// The POSIX signal number each kind carries, in kind order.
constexpr int kSignalNumbers[kKinds] = {2, 15, 20, 18, 10, 12};

constexpr std::uint32_t kAlertMessage = 0x8000;
constexpr std::uintptr_t kEndCode = 6;
constexpr std::uintptr_t kArmedCode = 7;

// Set on a worker whose listener was disarmed by one of its handlers: the
// listener may be gone, so the worker leaves without reading it again.
thread_local bool t_workerLetGo = false;

bool IsKind(int kind) { return kind >= 0 && kind < kKinds; }

// Posts until the message is queued or the queue is gone (the worker ended).
platform::PostResult PostSurely(std::uint32_t threadId, std::uintptr_t code) {
  platform::PostResult result;
  while ((result = platform::PostThreadMessage(threadId, kAlertMessage, code, 0)) == platform::PostResult::QueueFull)
    platform::YieldThread();
  return result;
}

}  // namespace

omi_AlertListener::omi_AlertListener() : m_handlers{}, m_threadId(0), m_handle(nullptr) {
  for (auto& handler : m_handlers) handler.store(nullptr);
}

omi_AlertListener::~omi_AlertListener() { Disarm(); }

void omi_AlertListener::SetHandler(omi_AlertEnm kind, Handler handler) {
  if (!IsKind(kind)) return;
  m_handlers[kind].store(handler);
  if (m_threadId != 0) RouteKind(kind);
}

// A kind's signal goes to the worker while the kind has a handler and back to
// its earlier action otherwise.
void omi_AlertListener::RouteKind(int kind) const {
  if (m_handlers[kind].load() != nullptr)
    platform::ForwardSignal(kSignalNumbers[kind], m_threadId, kAlertMessage, static_cast<std::uintptr_t>(kind));
  else
    platform::StopForwardingSignal(kSignalNumbers[kind], m_threadId);
}

void omi_AlertListener::StopRouting(std::uint32_t threadId) {
  for (int signalNumber : kSignalNumbers) platform::StopForwardingSignal(signalNumber, threadId);
}

void omi_AlertListener::Arm() {
  if (m_threadId != 0) return;
  platform::Event* started = platform::CreateAutoResetEvent();
  if (started == nullptr) return;
  m_handle = started;
  platform::Thread* worker = platform::StartThread(WorkerMain, this, true, &m_threadId);
  if (worker == nullptr) {
    // Nothing was started: the listener stays disarmed, with no event left behind.
    m_handle = nullptr;
    platform::CloseEvent(started);
    return;
  }
  platform::WaitEvent(started);
  platform::CloseEvent(started);
  m_handle = worker;
  if (PostSurely(m_threadId, kArmedCode) == platform::PostResult::NoQueue) {
    // The worker found no queue to take (all in use) and ended: nothing is armed.
    platform::JoinThread(worker);
    m_handle = nullptr;
    m_threadId = 0;
  }
}

void omi_AlertListener::Disarm() {
  if (m_threadId == 0) return;
  auto* worker = static_cast<platform::Thread*>(m_handle);
  if (platform::CurrentThreadId() == m_threadId) {
    // A handler of ours: waiting for the worker would wait for itself.
    t_workerLetGo = true;
    platform::DetachThread(worker);
  } else {
    PostSurely(m_threadId, kEndCode);
    platform::JoinThread(worker);
  }
  m_handle = nullptr;
  m_threadId = 0;
}

void omi_AlertListener::WorkerMain(void* self) {
  auto* listener = static_cast<omi_AlertListener*>(self);
  // Signals are routed only once there is a queue to receive them.
  const bool queued = platform::CreateThreadQueue();
  if (queued)
    for (int kind = 0; kind < kKinds; ++kind) listener->RouteKind(kind);
  platform::SignalEvent(static_cast<platform::Event*>(listener->m_handle));
  if (queued) listener->RunMessageLoop();
  StopRouting(platform::CurrentThreadId());
  platform::DestroyThreadQueue();
}

void omi_AlertListener::RunMessageLoop() const {
  platform::ThreadMessage message{};
  bool running = true;
  while (running && platform::GetThreadMessage(&message) && message.message == kAlertMessage) {
    const std::uintptr_t code = message.first;
    mem_TBThreadLock(true);
    if (code < static_cast<std::uintptr_t>(kKinds)) {
      // A kind without a handler is dropped: there is nothing safe to call.
      if (Handler handler = m_handlers[code].load()) handler(kSignalNumbers[code]);
      running = !t_workerLetGo;
    } else if (code == kEndCode) {
      running = false;
    }
    mem_TBThreadLock(false);
  }
}

omi_AlertTrigger::omi_AlertTrigger(const omi_AlertListener& listener) : m_threadId(listener.ThreadId()) {}

void omi_AlertTrigger::Alert(omi_AlertEnm kind) const {
  if (m_threadId == 0 || !IsKind(kind)) return;
  platform::PostThreadMessage(m_threadId, kAlertMessage, static_cast<std::uintptr_t>(kind), 0);
}
