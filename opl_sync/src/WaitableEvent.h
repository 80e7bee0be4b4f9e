// The record of a waitable event, for the modules that bind one.
#ifndef OPL_SYNC_WAITABLE_EVENT_H
#define OPL_SYNC_WAITABLE_EVENT_H

#include <cstdint>

struct OPL_SyncWaitableEvent {
  uint32_t reserved0;  // the binding module's; the only word that a copy carries over
  uint32_t reserved1;
  uint32_t waitBitmap;   // the conditions to wait for
  uint32_t readyBitmap;  // those that the last wait found
  int32_t nativeHandle;  // the descriptor
};

#endif
