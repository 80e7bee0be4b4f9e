/**
 * @defgroup net Network look-ups
 *
 * Look-ups in the network databases: hosts, protocols and services. They leave no message.
 *
 * The caller owns both the entry and the buffer that holds what the entry points to; the buffer has
 * OPL_NET_BUFFER_SIZE bytes at least. See docs/network-lookups.md.
 *
 * @callable at any time, by any thread, not in a signal handler
 * @{
 */
#ifndef OPL_NET_H
#define OPL_NET_H

#include <netdb.h>

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes. */
enum {
  OPL_NET_E_FAILED = 0x050801,          /**< not found, or a damaged entry of a database */
  OPL_NET_E_HOST_NOT_FOUND = 0x050802,  /**< there is no such host */
  OPL_NET_E_TRY_AGAIN = 0x050803,       /**< no answer now */
  OPL_NET_E_NO_RECOVERY = 0x050804,     /**< no answer, and none to come */
  OPL_NET_E_NO_DATA = 0x050805,         /**< the host has no address */
  OPL_NET_E_TOO_SMALL = 0x050806,       /**< the answer does not fit into the buffer */
  OPL_NET_E_INVALID_ARGUMENT = 0x05080C /**< an argument that the system does not take, or null */
};

/** Limits. */
enum {
  OPL_NET_BUFFER_SIZE = 8192 /**< bytes of the buffer that every look-up takes */
};

/**
 * Looks a host up by its name.
 *
 * @param name    the host's name, or an IPv4 address as text
 * @param entry   receives the host
 * @param buffer  OPL_NET_BUFFER_SIZE bytes
 *
 * @return OPL_OK                      found
 * @return OPL_NET_E_HOST_NOT_FOUND, _TRY_AGAIN, _NO_RECOVERY, _NO_DATA, _FAILED  not found
 * @return OPL_NET_E_TOO_SMALL         the host has too many names or addresses
 * @return OPL_NET_E_INVALID_ARGUMENT  an argument is null, or the system refused one
 */
OPL_API OPL_Result OPL_NetGetHostByName(const char* name, struct hostent* entry, char* buffer);

/**
 * Looks a host up by its address.
 *
 * @param address  in network byte order
 * @param length   its bytes: 4 for IPv4
 * @param type     its family: AF_INET
 * @param entry    receives the host
 * @param buffer   OPL_NET_BUFFER_SIZE bytes
 *
 * @return as OPL_NetGetHostByName
 */
OPL_API OPL_Result OPL_NetGetHostByAddr(const void* address, uint32_t length, uint32_t type,
                                        struct hostent* entry, char* buffer);

/**
 * Looks a protocol up by its name or by another of its names.
 *
 * @param name    such as "tcp"
 * @param entry   receives the protocol
 * @param buffer  OPL_NET_BUFFER_SIZE bytes
 *
 * @return OPL_OK                      found
 * @return OPL_NET_E_FAILED            not found, or its line in the database is damaged
 * @return OPL_NET_E_TOO_SMALL         it has too many names
 * @return OPL_NET_E_INVALID_ARGUMENT  an argument is null
 */
OPL_API OPL_Result OPL_NetGetProtoByName(const char* name, struct protoent* entry, char* buffer);

/**
 * Looks a service up by its name or by another of its names. One look-up at a time in a process: they take
 * gCrit.
 *
 * @callable after OPL_InitBegin, by any thread that is not in gCrit, not in a signal handler
 *
 * @param name      such as "http"
 * @param protocol  such as "tcp"; null for any
 * @param entry     receives the service; its port is in network byte order
 * @param buffer    OPL_NET_BUFFER_SIZE bytes
 *
 * @return as OPL_NetGetProtoByName, or a code of OPL_SyncCriticalSectionInit, OPL_SyncCriticalSectionEnter or
 *         OPL_SyncCriticalSectionLeave
 */
OPL_API OPL_Result OPL_NetGetServByName(const char* name, const char* protocol, struct servent* entry,
                                        char* buffer);

/** @} */

OPL_END_DECLS

#endif
