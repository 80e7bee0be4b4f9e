/*
 * What the library allocates for its callers: lists of file names, temporary names, formatted texts, and
 * memory contexts.
 */
#ifndef QVOPL_FILES_HPP
#define QVOPL_FILES_HPP

#include <memory>
#include <utility>

#include "../OPL_Crt.h"
#include "../OPL_File.h"
#include "../OPL_Mem.h"
#include "handle.hpp"

namespace qvopl {

/** Releases what an allocation function of the library returned; for std::unique_ptr. */
struct MemoryDeleter {
  /** Releases it. */
  void operator()(void* memory) const noexcept { detail::Free(memory); }
};

/** A text that the library has allocated, as that of OPL_CrtASPrintf. */
using OwnedText = std::unique_ptr<char, MemoryDeleter>;

/** Callbacks that take the place of the allocation functions; set them with OPL_MemMallocCallbackSet, ... */
class [[nodiscard]] MemoryContext : public Handle<OPL_MemContext, OPL_MemContextDestroy> {
 public:
  using Handle::Handle;

  /** A context without callbacks. */
  static Result<MemoryContext> Create(std::nothrow_t) noexcept {
    return detail::Make<MemoryContext, OPL_MemContext>(OPL_MemContextCreate);
  }
#if QVOPL_EXCEPTIONS
  /** A context without callbacks; throws an Error. */
  static MemoryContext Create() { return Create(std::nothrow).value(); }
#endif
};

/** The names of the files that match a pattern, sorted. */
class [[nodiscard]] FileNames : public Handle<OPL_FileNameList, OPL_FileNameFindEnd> {
 public:
  /** No names. */
  FileNames() noexcept = default;

  /** Lists the names that match a pattern, such as "/tmp/x*"; none is no failure. */
  static Result<FileNames> Find(std::nothrow_t, Text pattern) noexcept {
    OPL_FileNameList* record = nullptr;
    char** names = nullptr;
    uint32_t count = 0;
    const OPL_Result code = OPL_FileNameFind(OPL_FILE_FIND_NEW, &record, pattern.c_str(), &names, &count);
    if (code == OPL_FILE_E_NO_MATCH) return FileNames();
    if (code != OPL_OK) return Result<FileNames>::Failure(code);
    return FileNames(record, names, count);
  }
#if QVOPL_EXCEPTIONS
  /** Lists the names that match a pattern; throws an Error. */
  static FileNames Find(Text pattern) { return Find(std::nothrow, pattern).value(); }
#endif

  /** The number of names; none when the list was moved away or closed. */
  [[nodiscard]] uint32_t size() const noexcept { return *this ? count_ : 0; }
  /** One of them; the index is not checked. */
  [[nodiscard]] const char* operator[](uint32_t index) const noexcept { return names_[index]; }
  /** The first name. */
  [[nodiscard]] const char* const* begin() const noexcept { return names_; }
  /** Behind the last name. */
  [[nodiscard]] const char* const* end() const noexcept { return names_ + size(); }

 private:
  FileNames(OPL_FileNameList* record, char** names, uint32_t count) noexcept
      : Handle(record), names_(names), count_(count) {}

  char** names_ = nullptr;
  uint32_t count_ = 0;
};

}  // namespace qvopl

#endif
