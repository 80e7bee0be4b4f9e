// Which use counts of named objects this process holds, one for each open handle. A process gives back only
// what it holds, whatever its tables of names say.
#ifndef OPL_PRIVATE_USE_LIST_H
#define OPL_PRIVATE_USE_LIST_H

#include <cstdint>

#include "opl_private/src/IpcFile.h"

namespace opl {

// Part of a handle.
struct Use {
  bool isHeld;
  int32_t semId;
  FileStamp file;  // the set's, as it was when the handle was made
  Use* previous;
  Use* next;
};

// The handles of one module; guarded by the module's process lock.
class UseList {
 public:
  // Called before anything else with the process's fork generation: in a forked child, what the parent holds
  // is not held.
  void EnterProcess(uint32_t generation) {
    if (generation == generation_) return;
    generation_ = generation;
    ForgetAll();
  }

  // A new handle's use, which is held.
  void Add(Use* use, int32_t semId, const FileStamp& file) {
    *use = {true, semId, file, nullptr, first_};
    if (first_ != nullptr) first_->previous = use;
    first_ = use;
  }

  // Before the handle is released. A use that is in no list is left alone.
  void Remove(Use* use) {
    if (use->previous != nullptr)
      use->previous->next = use->next;
    else if (first_ == use)
      first_ = use->next;
    if (use->next != nullptr) use->next->previous = use->previous;
    use->previous = nullptr;
    use->next = nullptr;
  }

  // A use of that set which is held, or not; null when there is none.
  Use* Find(int32_t semId, bool isHeld) {
    for (Use* use = first_; use != nullptr; use = use->next)
      if (use->semId == semId && use->isHeld == isHeld) return use;
    return nullptr;
  }

  void ForgetAll() {
    for (Use* use = first_; use != nullptr; use = use->next) use->isHeld = false;
  }

 private:
  Use* first_ = nullptr;
  uint32_t generation_ = 0;
};

// Takes the held mark off a use; whether it was held.
inline bool TakeUse(Use* use) {
  if (use == nullptr || !use->isHeld) return false;
  use->isHeld = false;
  return true;
}

}  // namespace opl

#endif
