// Waitable events: descriptors with conditions, and one poll for many of them.
#include <poll.h>

#include <cerrno>

#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "opl_base/src/Retry.h"
#include "opl_err/src/Fail.h"
#include "opl_mem/src/Owned.h"
#include "opl_sync/src/WaitableEvent.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::NativeError;

constexpr uint32_t kAllConditions = OPL_SYNC_WAIT_ERROR | OPL_SYNC_WAIT_WRITABLE | OPL_SYNC_WAIT_READABLE;
constexpr int kNoLimit = -1;

// Which of poll's conditions a condition asks for, and which stand for it in the answer.
struct Condition {
  uint32_t bit;
  short asked;
  short answered;
};
constexpr Condition kConditions[] = {
    {OPL_SYNC_WAIT_ERROR, 0, POLLERR | POLLHUP | POLLNVAL},
    {OPL_SYNC_WAIT_WRITABLE, POLLOUT, POLLOUT},
    {OPL_SYNC_WAIT_READABLE, POLLIN, POLLIN},
};

short AskedOf(uint32_t waitBitmap) {
  int asked = 0;
  for (const Condition& condition : kConditions)
    if ((waitBitmap & condition.bit) != 0) asked |= condition.asked;
  return static_cast<short>(asked);
}

uint32_t ReadyOf(short answered) {
  uint32_t ready = 0;
  for (const Condition& condition : kConditions)
    if ((answered & condition.answered) != 0) ready |= condition.bit;
  return ready;
}

// Prepares each record's entry, in order, up to the first that cannot be waited for.
Code Prepare(uint32_t count, OPL_SyncWaitableEvent** events, pollfd* entries) {
  const Caller caller{"OPL_SyncWaitableEventWaitForMultiple"};
  for (uint32_t i = 0; i < count; ++i) {
    OPL_SyncWaitableEvent* const event = events[i];
    if (event == nullptr) return Fail(caller, OPL_SYNC_E_NULL_ARGUMENT, "%s: Wait is NULL");
    if ((event->waitBitmap & kAllConditions) == 0)
      return Fail(caller, OPL_SYNC_E_NO_CONDITION, "%s: no event to select");
    entries[i] = {event->nativeHandle, AskedOf(event->waitBitmap), 0};
    event->readyBitmap = 0;
  }
  return OPL_OK;
}

}  // namespace

OPL_Result OPL_SyncWaitableEventCreate(OPL_SyncWaitableEvent** ppWait, uint32_t mode) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (mode != 0) return Fail(OPL_SYNC_E_INVALID_MODE, "%s: invalid mode");
  if (ppWait == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: ppWait is NULL");
  opl::Owned<OPL_SyncWaitableEvent> event = opl::Allocate<OPL_SyncWaitableEvent>();
  if (event == nullptr) {
    const NativeError error;
    return Fail(error, OPL_SYNC_E_NO_MEMORY, "%s: OPL_MEMMALLOC error :%i", error.number());
  }
  *ppWait = event.release();
  return OPL_OK;
}

OPL_Result OPL_SyncWaitableEventCopy(OPL_SyncWaitableEvent** pNewWait, OPL_SyncWaitableEvent* hSource) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pNewWait != nullptr) *pNewWait = nullptr;
  // Deliberate: what the checks find is recorded, and the copy is made all the same.
  if (pNewWait == nullptr) (void)Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: pNewWait is NULL");
  if (hSource == nullptr) (void)Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: hSource is NULL");
  if (pNewWait != nullptr && *pNewWait != nullptr)
    (void)Fail(OPL_SYNC_E_NOT_NULL, "%s: *pNewWait is not NULL");
  if (const Code rc = OPL_SyncWaitableEventCreate(pNewWait, 0)) return rc;
  if (hSource != nullptr) (*pNewWait)->reserved0 = hSource->reserved0;
  return OPL_OK;
}

OPL_Result OPL_SyncWaitableEventDestroy(OPL_SyncWaitableEvent** pWait) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pWait == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: pWait is NULL");
  opl::Free(*pWait);
  *pWait = nullptr;
  return OPL_OK;
}

OPL_Result OPL_SyncWaitableEventNativeHandleSet(OPL_SyncWaitableEvent* wait, int32_t handle,
                                                uint32_t bitmap) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (wait == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: Wait is NULL");
  wait->nativeHandle = handle;
  wait->waitBitmap = bitmap;
  return OPL_OK;
}

OPL_Result OPL_SyncWaitableEventNativeHandleGet(OPL_SyncWaitableEvent* wait, int32_t* pHandle,
                                                uint32_t* pBitmap) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (wait == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: Wait is NULL");
  if (pHandle == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: pHandle is NULL");
  if (pBitmap == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: pBitmap is NULL");
  *pHandle = wait->nativeHandle;
  // Deliberate: the conditions found, not those wanted.
  *pBitmap = wait->readyBitmap;
  return OPL_OK;
}

OPL_Result OPL_SyncWaitableEventReset(OPL_SyncWaitableEvent* wait) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (wait == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: Wait is NULL");
  wait->reserved0 = 0;
  wait->reserved1 = 0;
  return OPL_OK;
}

OPL_Result OPL_SyncWaitableEventWaitForMultiple(uint32_t /*reserved*/, uint32_t count,
                                                OPL_SyncWaitableEvent** events, uint32_t* ready,
                                                const int32_t* pTimeout) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (count > OPL_SYNC_WAIT_MAX)
    return Fail(NativeError(0), OPL_SYNC_E_TOO_MANY_EVENTS, "%s: Too many waitable events.");
  if (count != 0 && (events == nullptr || ready == nullptr))
    return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: Events or ready flags are NULL");

  for (uint32_t i = 0; i < count; ++i) ready[i] = 0;
  pollfd entries[OPL_SYNC_WAIT_MAX];
  if (const Code rc = Prepare(count, events, entries)) return rc;
  const int timeout = pTimeout != nullptr ? *pTimeout : kNoLimit;
  // Deliberate: a wait that a signal interrupts begins anew, with the whole time-out.
  const int found = opl::RetryOnEintr([&] { return ::poll(entries, count, timeout); });
  if (found == -1) {
    const NativeError error;
    return Fail(error, OPL_SYNC_E_POLL, "%s: poll error %i,%s", error.number(), error.text());
  }
  if (found == 0) return Fail(OPL_SYNC_E_TIMEOUT, "%s: poll timeout");
  for (uint32_t i = 0; i < count; ++i) {
    events[i]->readyBitmap = ReadyOf(entries[i].revents);
    ready[i] = events[i]->readyBitmap != 0 ? 1 : 0;
  }
  return OPL_OK;
}
