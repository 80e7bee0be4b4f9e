// Puts errno back to what it was: for work on the way of a failure that the caller still wants to look at.
#ifndef OPL_BASE_ERRNO_KEEPER_H
#define OPL_BASE_ERRNO_KEEPER_H

#include <cerrno>

namespace opl {

class ErrnoKeeper {
 public:
  ErrnoKeeper() : number_(errno) {}
  ~ErrnoKeeper() { errno = number_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  const int number_;
};

}  // namespace opl

#endif
