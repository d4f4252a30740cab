// Alerts: asynchronous requests (interrupt, terminate, suspend, resume, two
// user requests) turned into calls of client handlers on one worker thread,
// one at a time and under the allocator's thread lock; and the lazy
// process-wide singletons that hold the listener.
//
//   omi_AlertListener& listener = omi_Singleton<omi_AlertListener>::Instance();
//   listener.SetHandler(omi_AlertInterrupt, OnInterrupt);  // called with 2
//   listener.Arm();
//   omi_AlertTrigger(listener).Alert(omi_AlertInterrupt);  // from any thread
//
// While armed, the process's SIGINT, SIGTERM, SIGTSTP, SIGCONT, SIGUSR1 and
// SIGUSR2 reach the handler of their kind, for each kind whose handler is set;
// signals of kinds without a handler keep their own action. Disarming puts the
// earlier actions back.
#ifndef ZMXUTI_CORE_ALERTS_H
#define ZMXUTI_CORE_ALERTS_H

#include <atomic>
#include <cstdint>

#include "core/export.h"

// Alert kinds; each handler receives its kind's signal number:
// 2, 15, 20, 18, 10, 12 in this order, on every platform.
enum omi_AlertEnm {
  omi_AlertInterrupt = 0,
  omi_AlertTerminate,
  omi_AlertSuspend,
  omi_AlertResume,
  omi_AlertUser1,
  omi_AlertUser2
};

// A callback base whose only virtual operation is its destructor.
template <class Result>
class ZMXUTI_API omn_Callback {
 public:
  virtual ~omn_Callback();
};
extern template class omn_Callback<bool>;

// Owner of the worker thread that runs the handlers.
class ZMXUTI_API omi_AlertListener {
 public:
  using Handler = void (*)(int signalNumber);

  omi_AlertListener();
  ~omi_AlertListener();  // disarms
  omi_AlertListener(const omi_AlertListener&) = delete;
  omi_AlertListener& operator=(const omi_AlertListener&) = delete;

  // Stores the handler of `kind` (null unsets it). While armed the kind's
  // signal is routed to the worker from now on (or given back when unset).
  void SetHandler(omi_AlertEnm kind, Handler handler);
  // Starts the worker unless armed; returns once the worker takes messages.
  // When the system refuses the thread or its queue, stays disarmed.
  void Arm();
  // Stops the worker if armed and waits for it to end. Called by one of this
  // listener's own handlers (on the worker), it cannot wait: the listener
  // reads disarmed at once, the worker ends as soon as that handler returns,
  // without touching the listener again, and alerts still queued are dropped.
  // So a handler may disarm, re-arm or destroy its own listener.
  void Disarm();

  // The worker's thread id, 0 while disarmed.
  std::uint32_t ThreadId() const { return m_threadId; }

 private:
  static void WorkerMain(void* self);
  static void StopRouting(std::uint32_t threadId);
  void RouteKind(int kind) const;
  void RunMessageLoop() const;

  std::atomic<Handler> m_handlers[6];
  std::uint32_t m_threadId;
  void* m_handle;  // the start-up event while arming, then the worker thread
};

// Posts alerts to the worker of the listener it was made from (as armed then).
class ZMXUTI_API omi_AlertTrigger {
 public:
  explicit omi_AlertTrigger(const omi_AlertListener& listener);
  // Queues `kind` for the worker; nothing happens when the listener was not
  // armed. A kind without a handler is consumed without a call.
  void Alert(omi_AlertEnm kind) const;

 private:
  std::uint32_t m_threadId;
};

// The current instance of T, or null; Finalize destroys and frees it.
// Creation and finalisation are unsynchronised (start-up and shut-down only).
template <class T>
class ZMXUTI_API omi_SingletonBase {
 public:
  static T* Instance() { return s_instance; }
  static void Finalize();

 protected:
  static T* s_instance;
};

// Creates the instance (value-initialised, through the library's operator
// new) on first use.
template <class T>
class ZMXUTI_API omi_Singleton : public omi_SingletonBase<T> {
 public:
  static T& Instance();
};

template <class T>
T* omi_SingletonBase<T>::s_instance = nullptr;

template <class T>
void omi_SingletonBase<T>::Finalize() {
  T* instance = s_instance;
  s_instance = nullptr;
  delete instance;
}

template <class T>
T& omi_Singleton<T>::Instance() {
  if (omi_SingletonBase<T>::s_instance == nullptr) omi_SingletonBase<T>::s_instance = new T();
  return *omi_SingletonBase<T>::s_instance;
}

extern template class omi_SingletonBase<omi_AlertListener>;
extern template class omi_Singleton<omi_AlertListener>;

#endif  // ZMXUTI_CORE_ALERTS_H
