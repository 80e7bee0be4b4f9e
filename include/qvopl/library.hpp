/*
 * Beginning and ending the library, the instance, and what an administrator does with it.
 */
#ifndef QVOPL_LIBRARY_HPP
#define QVOPL_LIBRARY_HPP

#include <utility>

#include "../OPL_Init.h"
#include "handle.hpp"

/**
 * Names the instance of a program: processes with the same name share their named objects. Stands once in the
 * program, outside of all functions and namespaces, with a text or an expression that gives one. The program
 * is linked with -rdynamic, so that the library finds it.
 */
#define QVOPL_INSTANCE(name)                                          \
  extern "C" OPL_API const char* OPL_InitInstanceStringSetCallback(); \
  extern "C" const char* OPL_InitInstanceStringSetCallback() { return name; }

namespace qvopl {

/**
 * The library in use by this process: begun by the constructor, ended by the destructor. Begins nest, but the
 * last end tears the library down for good. It outlives all other objects of this interface.
 */
class [[nodiscard]] Library {
 public:
#if QVOPL_EXCEPTIONS
  /** Begins the library; throws an Error. */
  [[nodiscard]] Library() : Library(Begin(std::nothrow).value()) {}
#endif
  /** Begins the library. */
  static Result<Library> Begin(std::nothrow_t) noexcept {
    if (const OPL_Result code = OPL_InitBegin(0); code != OPL_OK) return Result<Library>::Failure(code);
    return Library(true);
  }

  ~Library() {
    if (isBegun_) (void)OPL_InitEnd(OPL_INIT_END_ORDINARY);
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  /** The other ends nothing any more. */
  Library(Library&& other) noexcept : isBegun_(std::exchange(other.isBegun_, false)) {}
  /** Ends what this one has begun, and takes the other's over. */
  Library& operator=(Library&& other) noexcept {
    const Library old(std::exchange(isBegun_, std::exchange(other.isBegun_, false)));
    return *this;
  }

  /** Ends what this object has begun. */
  Result<void> End(std::nothrow_t) noexcept {
    if (!std::exchange(isBegun_, false)) return OPL_INIT_E_STOPPED;
    return OPL_InitEnd(OPL_INIT_END_ORDINARY);
  }
  /** For a forked child with one thread: forgets everything at once, and leaves what its parent has alone. */
  Result<void> Forget(std::nothrow_t) noexcept {
    isBegun_ = false;
    return OPL_InitEnd(OPL_INIT_END_FORCED);
  }
  /** For a forked child that goes on where its parent stopped: makes it the owner of what it inherited. */
  static Result<void> TakeOver(std::nothrow_t) noexcept { return OPL_InitSetCurrentPid(); }
  /**
   * For an administrator: removes the objects of this instance and version whose files match a pattern, once
   * no process uses them. Works at any time.
   */
  static Result<void> RemoveObjects(std::nothrow_t, Text pattern = "*") noexcept {
    return OPL_InitTerminateIPC(0, pattern.c_str());
  }

#if QVOPL_EXCEPTIONS
  /** Ends what this object has begun; throws an Error. */
  void End() { End(std::nothrow).value(); }
  /** See above; throws an Error. */
  void Forget() { Forget(std::nothrow).value(); }
  /** See above; throws an Error. */
  static void TakeOver() { TakeOver(std::nothrow).value(); }
  /** See above; throws an Error. */
  static void RemoveObjects(Text pattern = "*") { RemoveObjects(std::nothrow, pattern).value(); }
#endif

  /** Whether the library may be used in this process. */
  [[nodiscard]] static bool IsBegun() noexcept { return OPL_InitIsStopped(0) == OPL_OK; }
  /** The instance string, valid as long as the process lives; null where there is none. */
  [[nodiscard]] static const char* InstanceName() noexcept { return OPL_InitInstanceStringGet(); }
  /** The build version, which is part of every IPC file's name. */
  [[nodiscard]] static const char* Version() noexcept { return OPL_InitBuildVersionStringGet(0); }
  /** The IPC directory, cut where it is longer. */
  [[nodiscard]] static FixedText<4096> IpcDirectory() noexcept {
    FixedText<4096> directory;
    (void)OPL_InitIPCPathGet(0, directory.buffer(), directory.size());
    return directory;
  }

 private:
  explicit Library(bool isBegun) noexcept : isBegun_(isBegun) {}

  bool isBegun_;
};

}  // namespace qvopl

#endif
