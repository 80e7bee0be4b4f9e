// Keeps the thread's error record as it is: around an undo, whose own failures must not hide the one that led
// to it.
#ifndef OPL_ERR_MESSAGE_KEEPER_H
#define OPL_ERR_MESSAGE_KEEPER_H

#include <cstdint>

#include "OPL_Err.h"

namespace opl {

class MessageKeeper {
 public:
  MessageKeeper();
  ~MessageKeeper();
  MessageKeeper(const MessageKeeper&) = delete;
  MessageKeeper& operator=(const MessageKeeper&) = delete;

 private:
  bool hasRecord_ = false;
  uint32_t code_ = 0;
  char message_[OPL_ERR_TEXT_SIZE];
};

}  // namespace opl

#endif
