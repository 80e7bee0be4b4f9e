// Owns a file descriptor and closes it.
#ifndef OPL_BASE_FD_H
#define OPL_BASE_FD_H

#include <unistd.h>

#include <utility>

namespace opl {

class Fd {
 public:
  explicit Fd(int number = -1) : number_(number) {}
  Fd(Fd&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Fd& operator=(Fd&&) = delete;
  ~Fd() { Close(); }

  bool IsOpen() const { return number_ != -1; }
  int Get() const { return number_; }

  void Close() {
    if (number_ != -1) (void)::close(number_);
    number_ = -1;
  }

 private:
  int number_;
};

}  // namespace opl

#endif
