// Sockets as waitable events: a socket's notifications are translated into the conditions of a waitable event
// and back.
#include <atomic>

#include "OPL_Socket.h"
#include "OPL_Sync.h"
#include "opl_err/src/Fail.h"
#include "opl_socket/src/Socket.h"

namespace {

using opl::Code;
using opl::Fail;

struct Translation {
  uint32_t notification;
  uint32_t condition;
};
constexpr Translation kTranslations[] = {
    {OPL_SOCKET_NOTIFY_READ, OPL_SYNC_WAIT_READABLE},   {OPL_SOCKET_NOTIFY_WRITE, OPL_SYNC_WAIT_WRITABLE},
    {OPL_SOCKET_NOTIFY_ACCEPT, OPL_SYNC_WAIT_READABLE}, {OPL_SOCKET_NOTIFY_CONNECT, OPL_SYNC_WAIT_WRITABLE},
    {OPL_SOCKET_NOTIFY_CLOSE, OPL_SYNC_WAIT_READABLE},
};

uint32_t ConditionsOf(uint32_t notifications) {
  uint32_t conditions = 0;
  for (const Translation& row : kTranslations)
    if ((notifications & row.notification) != 0) conditions |= row.condition;
  return conditions;
}

uint32_t NotificationsOf(uint32_t conditions) {
  uint32_t notifications = 0;
  for (const Translation& row : kTranslations)
    if ((conditions & row.condition) != 0) notifications |= row.notification;
  return notifications;
}

// A close shows as something to read: it could not be told from a write's readiness.
bool LacksRead(uint32_t notifications) {
  constexpr uint32_t kWriteAndClose = OPL_SOCKET_NOTIFY_WRITE | OPL_SOCKET_NOTIFY_CLOSE;
  return (notifications & (OPL_SOCKET_NOTIFY_READ | kWriteAndClose)) == kWriteAndClose;
}

}  // namespace

OPL_Result OPL_SocketWaitableEventCreate(OPL_Socket* hSocket, OPL_SyncWaitableEvent** pHandle,
                                         uint32_t mode) {
  // Cleared before all checks, that for a stopped library too.
  if (pHandle != nullptr) *pHandle = nullptr;
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  if (pHandle == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: pHandle is NULL");
  if (mode != 0) return Fail(OPL_SOCKET_E_INVALID_MODE, "%s: Invalid Mode ");
  return OPL_SyncWaitableEventCreate(pHandle, 0);
}

OPL_Result OPL_SocketWaitableEventSet(OPL_Socket* hSocket, OPL_SyncWaitableEvent* hEvent,
                                      uint32_t notifications) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  if (hEvent == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: EventHandle is NULL");
  if (LacksRead(notifications)) return Fail(OPL_SOCKET_E_BAD_NOTIFICATION, "%s: Invalid notifications");
  std::atomic_ref(hSocket->notifications).store(notifications, std::memory_order_relaxed);
  return OPL_SyncWaitableEventNativeHandleSet(hEvent, hSocket->descriptor, ConditionsOf(notifications));
}

OPL_Result OPL_SocketWaitableEventGet(OPL_Socket* hSocket, OPL_SyncWaitableEvent* hEvent,
                                      uint32_t* pNotifications) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  if (hEvent == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: EventHandle is NULL");
  if (pNotifications == nullptr) return Fail(OPL_SOCKET_E_NULL_ARGUMENT, "%s: pNotification is NULL");
  *pNotifications = 0;
  int32_t descriptor = -1;
  uint32_t conditions = 0;
  if (const Code rc = OPL_SyncWaitableEventNativeHandleGet(hEvent, &descriptor, &conditions)) return rc;
  const uint32_t asked = std::atomic_ref(hSocket->notifications).load(std::memory_order_relaxed);
  const uint32_t found = NotificationsOf(conditions);
  // A listening socket has nothing to read but connections.
  const bool isConnectionWaiting =
      (asked & OPL_SOCKET_NOTIFY_ACCEPT) != 0 && (found & OPL_SOCKET_NOTIFY_READ) != 0;
  *pNotifications = isConnectionWaiting ? static_cast<uint32_t>(OPL_SOCKET_NOTIFY_ACCEPT) : found;
  return OPL_OK;
}

OPL_Result OPL_SocketWaitableEventDestroy(OPL_Socket* hSocket, OPL_SyncWaitableEvent** pHandle) {
  if (const Code rc = opl::CheckSocket(hSocket)) return rc;
  return OPL_SyncWaitableEventDestroy(pHandle);
}
