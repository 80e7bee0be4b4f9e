// A scope guard: what is declared in the line after a step undoes that step unless the function gets to
// Keep().
#ifndef OPL_BASE_UNDO_H
#define OPL_BASE_UNDO_H

#include <utility>

namespace opl {

template <typename Action>
class [[nodiscard]] Undo {
 public:
  explicit Undo(Action action) : action_(std::move(action)) {}
  ~Undo() {
    if (!kept_) action_();
  }
  Undo(const Undo&) = delete;
  Undo& operator=(const Undo&) = delete;

  void Keep() { kept_ = true; }

 private:
  Action action_;
  bool kept_ = false;
};

}  // namespace opl

#endif
