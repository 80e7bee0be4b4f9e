// The library's named event, as the benchmarks of events and of waiting use it.
#ifndef OPL_BENCH_OPL_SYNC_EVENTS_H
#define OPL_BENCH_OPL_SYNC_EVENTS_H

#include <string>

#include "OPL_Sync.h"
#include "bench/opl_sync/Locks.h"
#include "bench/support/Processes.h"

namespace oplbench {

// A process's handle of an event, with what waits for it.
class OplEvent {
 public:
  explicit OplEvent(const std::string& name) {
    OpenOrCreate([&] { return OPL_SyncEventOpen(&event_, 0, name.c_str(), OPL_SYNC_EVENT_PRIVATE); },
                 [&] { return OPL_SyncEventCreate(&event_, 0, name.c_str(), OPL_SYNC_EVENT_PRIVATE); });
    Require(OPL_SyncEventWaitableEventCreate(event_, &wait_) == OPL_OK, "OPL_SyncEventWaitableEventCreate");
  }
  ~OplEvent() {
    (void)OPL_SyncEventWaitableEventDestroy(event_, &wait_);
    (void)OPL_SyncEventClose(&event_);
  }
  OplEvent(const OplEvent&) = delete;
  OplEvent& operator=(const OplEvent&) = delete;

  void Post() { Require(OPL_SyncEventPost(event_) == OPL_OK, "OPL_SyncEventPost"); }
  void Reset() { Require(OPL_SyncEventReset(event_) == OPL_OK, "OPL_SyncEventReset"); }
  void Wait() {
    uint32_t ready = 0;
    Require(OPL_SyncWaitableEventWaitForMultiple(0, 1, &wait_, &ready, nullptr) == OPL_OK,
            "OPL_SyncWaitableEventWaitForMultiple");
  }

  OPL_SyncWaitableEvent* waitable() { return wait_; }
  int Descriptor() const {
    int32_t fd = -1;
    uint32_t ready = 0;
    (void)OPL_SyncWaitableEventNativeHandleGet(wait_, &fd, &ready);
    return fd;
  }

 private:
  OPL_SyncEvent* event_ = nullptr;
  OPL_SyncWaitableEvent* wait_ = nullptr;
};

}  // namespace oplbench

#endif
