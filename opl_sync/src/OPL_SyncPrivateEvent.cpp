// Private events: a connected pair of sockets. A post is a byte on its way from one to the other, and the
// event is set while there is one.
#include <fcntl.h>

#include "OPL_Init.h"
#include "OPL_Socket.h"
#include "OPL_Sync.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/Fail.h"
#include "opl_mem/src/Owned.h"

enum PrivateEventEnd { kSender, kReceiver, kPrivateEventEnds };

struct OPL_SyncPrivateEvent {
  OPL_Socket* ends[kPrivateEventEnds];  // the receiver does not block
};

namespace {

using opl::Code;
using opl::Fail;
using opl::NativeError;

constexpr uint8_t kPost = 1;

// The event is this process's: a program that it executes has no use for the descriptors.
void CloseEndsOnExec(const OPL_SyncPrivateEvent& event) {
  for (OPL_Socket* const end : event.ends) {
    int32_t descriptor = -1;
    (void)OPL_SocketGetNativeSocket(end, &descriptor);
    (void)::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  }
}

void DestroyEnds(OPL_SyncPrivateEvent* event) {
  for (OPL_Socket*& end : event->ends) {
    if (end == nullptr) continue;
    (void)OPL_SocketClose(end);
    (void)OPL_SocketDestroy(&end);
  }
}

}  // namespace

OPL_Result OPL_SyncPrivateEventCreate(OPL_SyncPrivateEvent** phPrivateEvent, uint32_t mode, uint32_t flags) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (phPrivateEvent == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: phPrivateEvent is NULL");
  *phPrivateEvent = nullptr;
  opl::Owned<OPL_SyncPrivateEvent> event = opl::Allocate<OPL_SyncPrivateEvent>();
  if (event == nullptr) {
    const NativeError error;
    return Fail(error, OPL_SYNC_E_NO_MEMORY, "%s: malloc error :%i", error.number());
  }
  if (mode != 0) return Fail(OPL_SYNC_E_INVALID_MODE, "%s: Invalid mode");
  if (const Code rc = OPL_SocketPairCreate(event->ends, 0)) return rc;
  opl::Undo destroyEnds([&] { DestroyEnds(event.get()); });
  CloseEndsOnExec(*event);
  if (const Code rc = OPL_SocketNonBlockingSet(event->ends[kReceiver], OPL_SOCKET_NON_BLOCKING)) return rc;
  if ((flags & OPL_SYNC_PRIVATE_EVENT_SET) != 0)
    if (const Code rc = OPL_SyncPrivateEventPost(event.get())) return rc;
  destroyEnds.Keep();
  *phPrivateEvent = event.release();
  return OPL_OK;
}

OPL_Result OPL_SyncPrivateEventPost(OPL_SyncPrivateEvent* hEvent) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (hEvent == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: hEvent is NULL");
  uint32_t sent = 0;
  return OPL_SocketSend(hEvent->ends[kSender], &sent, &kPost, sizeof kPost);
}

OPL_Result OPL_SyncPrivateEventReset(OPL_SyncPrivateEvent* hEvent) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (hEvent == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: hEvent is NULL");
  // Deliberate: one reset takes back one post, and an event that was posted twice is still set.
  uint32_t received = 0;
  uint8_t post = 0;
  const Code rc = OPL_SocketReceive(hEvent->ends[kReceiver], &received, &post, sizeof post);
  return opl::Translate(rc, OPL_SOCKET_E_WOULD_BLOCK, OPL_OK);
}

OPL_Result OPL_SyncPrivateEventClose(OPL_SyncPrivateEvent** phPrivateEvent) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (phPrivateEvent == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: phPrivateEvent is NULL");
  if (*phPrivateEvent == nullptr) return OPL_OK;
  DestroyEnds(*phPrivateEvent);
  opl::Free(*phPrivateEvent);
  *phPrivateEvent = nullptr;
  return OPL_OK;
}

OPL_Result OPL_SyncPrivateEventWaitableEventCreate(OPL_SyncPrivateEvent* hPrivateEvent,
                                                   OPL_SyncWaitableEvent** ppWait) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (hPrivateEvent == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: hPrivateEvent is NULL");
  if (ppWait == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: ppWait is NULL");
  OPL_Socket* const receiver = hPrivateEvent->ends[kReceiver];
  if (const Code rc = OPL_SocketWaitableEventCreate(receiver, ppWait, 0)) return rc;
  return OPL_SocketWaitableEventSet(receiver, *ppWait, OPL_SOCKET_NOTIFY_READ);
}

OPL_Result OPL_SyncPrivateEventWaitableEventDestroy(OPL_SyncPrivateEvent* hPrivateEvent,
                                                    OPL_SyncWaitableEvent** ppWait) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (hPrivateEvent == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: hPrivateEvent is NULL");
  if (ppWait == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: ppWait is NULL");
  return OPL_SocketWaitableEventDestroy(hPrivateEvent->ends[kReceiver], ppWait);
}
