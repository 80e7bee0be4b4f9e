/*
 * Threads, their attributes and values of their own, and signals held off a thread.
 */
#ifndef QVOPL_THREADS_HPP
#define QVOPL_THREADS_HPP

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <memory>
#include <type_traits>
#include <utility>

#include "../OPL_Sig.h"
#include "../OPL_Thread.h"
#include "handle.hpp"

namespace qvopl {

/** Attributes of threads to be started. */
class [[nodiscard]] ThreadAttributes : public Handle<OPL_ThreadAttr, OPL_ThreadAttrDestroy> {
 public:
  using Handle::Handle;

  /** The system's defaults. */
  static Result<ThreadAttributes> Create(std::nothrow_t) noexcept {
    return detail::Make<ThreadAttributes, OPL_ThreadAttr>(OPL_ThreadAttrCreate, 0U);
  }
  /** Sets the bytes of stack. */
  Result<void> SetStackSize(std::nothrow_t, uint32_t sizeBytes) noexcept {
    return OPL_ThreadAttrSet(native(), OPL_THREAD_ATTR_STACK_SIZE, &sizeBytes);
  }
  /** The bytes of stack; UINT32_MAX for more. */
  Result<uint32_t> StackSize(std::nothrow_t) const noexcept {
    return detail::Tell<uint32_t>(OPL_ThreadAttrGet, native(),
                                  static_cast<uint32_t>(OPL_THREAD_ATTR_STACK_SIZE));
  }

#if QVOPL_EXCEPTIONS
  /** The system's defaults; throws an Error. */
  static ThreadAttributes Create() { return Create(std::nothrow).value(); }
  /** Sets the bytes of stack; throws an Error. */
  void SetStackSize(uint32_t sizeBytes) { SetStackSize(std::nothrow, sizeBytes).value(); }
  /** The bytes of stack; throws an Error. */
  [[nodiscard]] uint32_t StackSize() const { return StackSize(std::nothrow).value(); }
#endif
};

namespace detail {

// What a thread runs, and how it is found again by who joins it. Run is not noexcept: OPL_ThreadExit and a
// cancellation unwind it, and an exception that leaves it ends the program all the same.
struct ThreadBody {
  ThreadBody() noexcept { (void)::sem_init(&isKnown, 0, 0); }
  virtual ~ThreadBody() { (void)::sem_destroy(&isKnown); }
  ThreadBody(const ThreadBody&) = delete;
  ThreadBody& operator=(const ThreadBody&) = delete;
  virtual void Run() = 0;

  ::sem_t isKnown;       // posted once thread is set
  ::pthread_t thread{};  // written by the thread itself: the C interface tells an id alone
  const ::pid_t process = ::getpid();
};

template <typename Function>
struct ThreadBodyOf final : ThreadBody {
  explicit ThreadBodyOf(Function&& body) : function(std::move(body)) {}
  void Run() override { function(); }
  Function function;
};

inline void* RunJoined(void* argument) {
  auto* const body = static_cast<ThreadBody*>(argument);
  body->thread = ::pthread_self();
  (void)::sem_post(&body->isKnown);
  body->Run();
  return nullptr;
}

inline void* RunDetached(void* argument) {
  const std::unique_ptr<ThreadBody> body(static_cast<ThreadBody*>(argument));
  body->Run();
  return nullptr;
}

}  // namespace detail

/**
 * A thread of the library that runs a function object, joined at the end of its own life. The function object
 * must not throw: what it throws ends the program.
 */
class [[nodiscard]] Thread {
 public:
  /** No thread. */
  Thread() noexcept = default;
  ~Thread() { Wait(); }
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;
  /** Leaves the other without a thread. */
  Thread(Thread&& other) noexcept : body_(std::move(other.body_)), id_(std::exchange(other.id_, 0)) {}
  /** Waits for the end of the thread that is there, and leaves the other without one. */
  Thread& operator=(Thread&& other) noexcept {
    if (this == &other) return *this;
    Wait();
    body_ = std::move(other.body_);
    id_ = std::exchange(other.id_, 0);
    return *this;
  }

  /** Starts a thread, with the system's defaults. */
  template <typename Function>
  static Result<Thread> Start(std::nothrow_t, Function function) noexcept {
    Result<ThreadAttributes> attributes = ThreadAttributes::Create(std::nothrow);
    if (!attributes) return Result<Thread>::Failure(attributes.code());
    return Start(std::nothrow, *attributes, std::move(function));
  }
  /** Starts a thread, with these attributes. */
  template <typename Function>
  static Result<Thread> Start(std::nothrow_t, ThreadAttributes& attributes, Function function) noexcept {
    Thread thread(new (std::nothrow) detail::ThreadBodyOf<Function>(std::move(function)));
    const OPL_Result code =
        Create(attributes, PTHREAD_CREATE_JOINABLE, detail::RunJoined, thread.body_.get(), &thread.id_);
    if (code == OPL_OK) return thread;
    thread.body_.reset();
    return Result<Thread>::Failure(code);
  }
  /** Starts a thread that nobody waits for. */
  template <typename Function>
  static Result<void> StartDetached(std::nothrow_t, Function function) noexcept {
    Result<ThreadAttributes> attributes = ThreadAttributes::Create(std::nothrow);
    if (!attributes) return attributes.code();
    return StartDetached(std::nothrow, *attributes, std::move(function));
  }
  /** The same, with these attributes. */
  template <typename Function>
  static Result<void> StartDetached(std::nothrow_t, ThreadAttributes& attributes,
                                    Function function) noexcept {
    std::unique_ptr<detail::ThreadBody> body(new (std::nothrow)
                                                 detail::ThreadBodyOf<Function>(std::move(function)));
    uint32_t id = 0;
    const OPL_Result code = Create(attributes, PTHREAD_CREATE_DETACHED, detail::RunDetached, body.get(), &id);
    // From here on it is the thread's.
    if (code == OPL_OK) (void)body.release();
    return code;
  }

  /**
   * Waits for the end of the thread. Does nothing where there is none, as in a forked child, which has but
   * the thread that forked. Not in the thread itself.
   */
  void Wait() noexcept {
    if (body_ == nullptr) return;
    if (body_->process == ::getpid()) Join();
    body_.reset();
  }
  /** Whether there is a thread to wait for. */
  [[nodiscard]] explicit operator bool() const noexcept { return body_ != nullptr; }
  /** The thread's id, as CurrentId tells it there. */
  [[nodiscard]] uint32_t id() const noexcept { return id_; }
  /** The calling thread's id. */
  [[nodiscard]] static uint32_t CurrentId() noexcept {
    uint32_t id = 0;
    (void)OPL_ThreadIdGet(&id);
    return id;
  }

#if QVOPL_EXCEPTIONS
  /** Starts a thread, with the system's defaults; throws an Error. */
  template <typename Function>
  static Thread Start(Function function) {
    return Start(std::nothrow, std::move(function)).value();
  }
  /** Starts a thread, with these attributes; throws an Error. */
  template <typename Function>
  static Thread Start(ThreadAttributes& attributes, Function function) {
    return Start(std::nothrow, attributes, std::move(function)).value();
  }
  /** Starts a thread that nobody waits for; throws an Error. */
  template <typename Function>
  static void StartDetached(Function function) {
    StartDetached(std::nothrow, std::move(function)).value();
  }
  /** The same, with these attributes; throws an Error. */
  template <typename Function>
  static void StartDetached(ThreadAttributes& attributes, Function function) {
    StartDetached(std::nothrow, attributes, std::move(function)).value();
  }
#endif

 private:
  explicit Thread(detail::ThreadBody* body) noexcept : body_(body) {}

  void Join() noexcept {
    while (::sem_wait(&body_->isKnown) != 0) {
    }
    (void)::pthread_join(body_->thread, nullptr);
  }

  static OPL_Result Create(ThreadAttributes& attributes, int detachState, void* (*run)(void*),
                           detail::ThreadBody* body, uint32_t* pId) noexcept {
    if (body == nullptr) return detail::Refuse(OPL_THREAD_E_RESOURCES, "Thread::Start");
    ::pthread_attr_t* posix = nullptr;
    if (const OPL_Result code = OPL_ThreadAttrPosixGet(attributes.native(), &posix); code != OPL_OK)
      return code;
    // No value but these two is refused. The C functions start detached threads from the same attributes.
    (void)::pthread_attr_setdetachstate(posix, detachState);
    const OPL_Result code = OPL_ThreadCreate(0, attributes.native(), run, body, pId);
    (void)::pthread_attr_setdetachstate(posix, PTHREAD_CREATE_DETACHED);
    return code;
  }

  std::unique_ptr<detail::ThreadBody> body_;
  uint32_t id_ = 0;
};

/** A key under which every thread keeps a pointer of its own, null at first. Works at any time. */
class [[nodiscard]] ThreadKey {
 public:
  /** No key. */
  ThreadKey() noexcept = default;
  ~ThreadKey() {
    if (key_ != OPL_THREAD_NO_KEY) (void)OPL_ThreadTsdFreeKey(&key_);
  }
  ThreadKey(const ThreadKey&) = delete;
  ThreadKey& operator=(const ThreadKey&) = delete;
  /** Leaves the other without a key. */
  ThreadKey(ThreadKey&& other) noexcept : key_(std::exchange(other.key_, OPL_THREAD_NO_KEY)) {}
  /** Releases the key that is there, and leaves the other without one. */
  ThreadKey& operator=(ThreadKey&& other) noexcept {
    ThreadKey old(std::move(*this));
    key_ = std::exchange(other.key_, OPL_THREAD_NO_KEY);
    return *this;
  }

  /** Allocates a key; the function gets a thread's pointer at its end, unless that is null. */
  static Result<ThreadKey> Create(std::nothrow_t, void (*atThreadEnd)(void*) = nullptr) noexcept {
    ThreadKey key;
    if (const OPL_Result code = OPL_ThreadTsdAllocKey(&key.key_, atThreadEnd); code != OPL_OK)
      return Result<ThreadKey>::Failure(code);
    return key;
  }
  /** Stores the calling thread's pointer. */
  Result<void> Set(std::nothrow_t, void* value) noexcept { return OPL_ThreadTsdSetValue(key_, value); }
  /** The calling thread's pointer; null without a key. */
  [[nodiscard]] void* Get() const noexcept {
    void* value = nullptr;
    (void)OPL_ThreadTsdGetValue(key_, &value);
    return value;
  }

#if QVOPL_EXCEPTIONS
  /** Allocates a key; throws an Error. */
  static ThreadKey Create(void (*atThreadEnd)(void*) = nullptr) {
    return Create(std::nothrow, atThreadEnd).value();
  }
  /** Stores the calling thread's pointer; throws an Error. */
  void Set(void* value) { Set(std::nothrow, value).value(); }
#endif

 private:
  uint32_t key_ = OPL_THREAD_NO_KEY;
};

/** All signals held off the calling thread, until the end of the object's life in the same thread. */
class [[nodiscard]] SignalBlock {
 public:
#if QVOPL_EXCEPTIONS
  /** Holds all signals off; throws an Error. */
  [[nodiscard]] SignalBlock() : SignalBlock(Take(std::nothrow).value()) {}
#endif
  /** Holds all signals off. */
  static Result<SignalBlock> Take(std::nothrow_t) noexcept {
    sigset_t* saved = nullptr;
    if (const OPL_Result code = OPL_SigBlock(0, &saved); code != OPL_OK)
      return Result<SignalBlock>::Failure(code);
    return SignalBlock(saved);
  }
  ~SignalBlock() {
    if (saved_ != nullptr) (void)OPL_SigReset(0, &saved_);
  }
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;
  /** The other holds nothing off any more. */
  SignalBlock(SignalBlock&& other) noexcept : saved_(std::exchange(other.saved_, nullptr)) {}
  SignalBlock& operator=(SignalBlock&&) = delete;

 private:
  explicit SignalBlock(sigset_t* saved) noexcept : saved_(saved) {}

  sigset_t* saved_;
};

}  // namespace qvopl

#endif
