// A private event that is posted, waited for and reset, against what it is made of: a byte through a pair of
// sockets, and poll.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "OPL_Sync.h"
#include "bench/support/Bench.h"
#include "bench/support/Processes.h"

namespace {

using oplbench::Require;

constexpr double kTarget = 1.1;

void PrivateEvent(benchmark::State& state) {
  OPL_SyncPrivateEvent* event = nullptr;
  OPL_SyncWaitableEvent* wait = nullptr;
  Require(OPL_SyncPrivateEventCreate(&event, 0, 0) == OPL_OK, "OPL_SyncPrivateEventCreate");
  Require(OPL_SyncPrivateEventWaitableEventCreate(event, &wait) == OPL_OK,
          "OPL_SyncPrivateEventWaitableEventCreate");
  uint32_t ready = 0;
  for (auto _ : state) {
    Require(OPL_SyncPrivateEventPost(event) == OPL_OK, "OPL_SyncPrivateEventPost");
    Require(OPL_SyncWaitableEventWaitForMultiple(0, 1, &wait, &ready, nullptr) == OPL_OK,
            "OPL_SyncWaitableEventWaitForMultiple");
    Require(OPL_SyncPrivateEventReset(event) == OPL_OK, "OPL_SyncPrivateEventReset");
  }
  Require(ready == 1, "the wait");
  (void)OPL_SyncPrivateEventWaitableEventDestroy(event, &wait);
  (void)OPL_SyncPrivateEventClose(&event);
}

void SocketPair(benchmark::State& state) {
  int ends[2];
  Require(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
  pollfd entry = {ends[1], POLLIN, 0};
  char post = 1;
  for (auto _ : state) {
    Require(::send(ends[0], &post, sizeof post, 0) == sizeof post, "send");
    Require(::poll(&entry, 1, -1) == 1, "poll");
    Require(::recv(ends[1], &post, sizeof post, MSG_DONTWAIT) == sizeof post, "recv");
  }
  for (const int end : ends) (void)::close(end);
}

const oplbench::Row kPrivateEvent("private event: post, wait, reset", PrivateEvent,
                                  {{"socket pair", SocketPair, kTarget}});

}  // namespace
