/*
 * Processes, and tasks, which are forked child processes.
 */
#ifndef QVOPL_PROCESSES_HPP
#define QVOPL_PROCESSES_HPP

#include "../OPL_Process.h"
#include "../OPL_UserInfo.h"
#include "handle.hpp"

namespace qvopl {

/** A process by its id: this one, its parent, or any other. */
class Process {
 public:
  /** That process. */
  explicit constexpr Process(uint32_t id) noexcept : id_(id) {}

  /** This process, by the id that the library works with: the one that was set, or the system's. */
  static Result<Process> Current(std::nothrow_t) noexcept { return Told(OPL_ProcessIdGet); }
  /** This process, by the system's id whatever was set. */
  static Result<Process> Real(std::nothrow_t) noexcept { return Told(OPL_ProcessRealIdGet); }
  /** This process's parent. */
  static Result<Process> Parent(std::nothrow_t) noexcept { return Told(OPL_ProcessParentIdGet); }
  /** Sets the id that the library works with from now on; OPL_PROCESS_NO_ID brings the system's back. */
  static void SetCurrent(Process process) noexcept { (void)OPL_ProcessIdSet(process.id()); }

  /** The process id. */
  [[nodiscard]] constexpr uint32_t id() const noexcept { return id_; }
  /** Whether it exists; one that has ended does until its parent has waited for it. */
  Result<bool> IsAlive(std::nothrow_t) const noexcept { return detail::TellWhether(OPL_ProcessIsAlive, id_); }
  /** Asks it to end (SIGTERM). */
  Result<void> Terminate(std::nothrow_t) const noexcept { return OPL_ProcessTerminate(id_); }

#if QVOPL_EXCEPTIONS
  /** This process, by the id that the library works with; throws an Error. */
  [[nodiscard]] static Process Current() { return Current(std::nothrow).value(); }
  /** This process, by the system's id; throws an Error. */
  [[nodiscard]] static Process Real() { return Real(std::nothrow).value(); }
  /** This process's parent; throws an Error. */
  [[nodiscard]] static Process Parent() { return Parent(std::nothrow).value(); }
  /** Whether it exists; throws an Error. */
  [[nodiscard]] bool IsAlive() const { return IsAlive(std::nothrow).value(); }
  /** Asks it to end; throws an Error. */
  void Terminate() const { Terminate(std::nothrow).value(); }
#endif

  /** Whether both are the same process. */
  [[nodiscard]] friend constexpr bool operator==(Process first, Process second) noexcept {
    return first.id_ == second.id_;
  }
  /** Whether they are not. */
  [[nodiscard]] friend constexpr bool operator!=(Process first, Process second) noexcept {
    return first.id_ != second.id_;
  }

 private:
  static Result<Process> Told(OPL_Result (*tell)(uint32_t*)) noexcept {
    uint32_t id = 0;
    if (const OPL_Result code = tell(&id); code != OPL_OK) return Result<Process>::Failure(code);
    return Process(id);
  }

  uint32_t id_;
};

/** A forked child process. Its id is not told, and it is not waited for. */
class Task {
 public:
  /**
   * Forks a child that begins the library, calls the function object, ends the library and exits with status
   * 0. The child has a copy of it. What it throws ends the child.
   */
  template <typename Function>
  static Result<void> Start(std::nothrow_t, Function function) noexcept {
    const auto run = [](void* argument) noexcept { (*static_cast<Function*>(argument))(); };
    return OPL_TaskCreate(0, run, &function);
  }
#if QVOPL_EXCEPTIONS
  /** The same; throws an Error. */
  template <typename Function>
  static void Start(Function function) {
    Start(std::nothrow, std::move(function)).value();
  }
#endif
};

/** The user on whose behalf the process runs. */
class User {
 public:
  /** The longest login name that Name tells. */
  static constexpr uint32_t kNameMax = 255;

  /** The effective user's login name. */
  static Result<FixedText<kNameMax + 1>> Name(std::nothrow_t) noexcept {
    FixedText<kNameMax + 1> name;
    if (const OPL_Result code = OPL_UserInfoUserNameGet(0, name.buffer(), kNameMax); code != OPL_OK)
      return Result<FixedText<kNameMax + 1>>::Failure(code);
    return name;
  }
  /** The effective user's id. */
  static Result<uint32_t> Id(std::nothrow_t) noexcept {
    return detail::Tell<uint32_t>(OPL_UserInfoUserIdGet, 0U);
  }
#if QVOPL_EXCEPTIONS
  /** The effective user's login name; throws an Error. */
  [[nodiscard]] static FixedText<kNameMax + 1> Name() { return Name(std::nothrow).value(); }
  /** The effective user's id; throws an Error. */
  [[nodiscard]] static uint32_t Id() { return Id(std::nothrow).value(); }
#endif
};

}  // namespace qvopl

#endif
