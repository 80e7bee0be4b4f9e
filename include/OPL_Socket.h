/**
 * @defgroup socket Sockets
 *
 * Addresses of IPv4 and of the local machine, the sockets themselves, and waiting for many of them.
 *
 * A socket is a record around one descriptor. See docs/sockets.md.
 *
 * A local socket has a file in the IPC directory while it is bound. OPL_SocketClose and OPL_SocketDestroy
 * remove the file that the record's own OPL_SocketBind has made, and no other.
 *
 * Sending to a peer that is gone raises SIGPIPE, which ends a process that neither ignores nor handles it.
 *
 * @callable after OPL_InitBegin, by one thread at a time for a socket (one may receive while another sends),
 * not in a signal handler
 * @{
 */
#ifndef OPL_SOCKET_H
#define OPL_SOCKET_H

#include <sys/socket.h>

#include "OPL_Sync.h"
#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes. */
enum {
  OPL_SOCKET_E_NO_MEMORY = 0x050902,    /**< no memory for the record */
  OPL_SOCKET_E_INVALID_MODE = 0x050903, /**< mode is not 0 */
  OPL_SOCKET_E_OPEN = 0x050905,         /**< the system refused the socket */
  OPL_SOCKET_E_BAD_OPTION = 0x050906,   /**< no such option */
  OPL_SOCKET_E_SET_OPTION = 0x050907,   /**< the option could not be set */
  OPL_SOCKET_E_RECEIVE = 0x050908,      /**< nothing could be received */
  OPL_SOCKET_E_SEND = 0x050909,         /**< nothing could be sent; the socket counts as dead from now on */
  OPL_SOCKET_E_BAD_NOTIFICATION = 0x05090B, /**< write and close are asked for without read */
  OPL_SOCKET_E_ACCEPT = 0x05090E,           /**< no connection could be accepted */
  OPL_SOCKET_E_LISTEN = 0x05090F,           /**< the socket cannot listen */
  OPL_SOCKET_E_BIND = 0x050910,             /**< the address could not be taken */
  OPL_SOCKET_E_CONNECT = 0x050911,          /**< no connection could be made */
  OPL_SOCKET_E_SHUTDOWN = 0x050912,         /**< the connection could not be shut down */
  OPL_SOCKET_E_INET_ADDR = 0x050913,        /**< the text is no IPv4 address, or is 255.255.255.255 */
  OPL_SOCKET_E_INET_NTOA = 0x050914,        /**< the address has no text */
  OPL_SOCKET_E_BAD_FAMILY = 0x05091A,       /**< the address is of another family, or of none */
  OPL_SOCKET_E_NO_ADDRESS = 0x05091B,       /**< the socket has no such address */
  OPL_SOCKET_E_WOULD_BLOCK = 0x05091D,      /**< not now; the connection is being made */
  OPL_SOCKET_E_TOO_SMALL = 0x05091E,        /**< the buffer is smaller than a packed address */
  OPL_SOCKET_E_PAIR = 0x05091F,             /**< the pair could not be made */
  OPL_SOCKET_E_MESSAGE_SEND = 0x050921,     /**< the message could not be sent */
  OPL_SOCKET_E_DUPLICATE = 0x050923,        /**< the descriptor could not be duplicated */
  OPL_SOCKET_E_BAD_ADDRESS = 0x050924,      /**< the address cannot be used */
  OPL_SOCKET_E_REFUSED = 0x050925,          /**< nobody listens there */
  OPL_SOCKET_E_UNREACHABLE = 0x050926,      /**< no route leads to the network */
  OPL_SOCKET_E_RESET = 0x050927,            /**< the peer has reset the connection */
  OPL_SOCKET_E_BROKEN_PIPE = 0x050928,      /**< the connection is broken */
  OPL_SOCKET_E_TIMEOUT = 0x050929,          /**< nothing became ready in time; the connection timed out */
  OPL_SOCKET_E_POLL = 0x05092A,             /**< poll failed */
  OPL_SOCKET_E_BAD_NAME = 0x05092B,         /**< the path is longer than OPL_SOCKET_PATH_MAX */
  OPL_SOCKET_E_NULL_ARGUMENT = 0x05092C,    /**< a required pointer argument is null */
  OPL_SOCKET_E_NOT_NULL = 0x05092D,         /**< a handle to be filled is set already */
  OPL_SOCKET_E_NON_BLOCKING = 0x05092E,     /**< the blocking mode could not be changed */
  OPL_SOCKET_E_NOT_CONNECTED = 0x050931,    /**< the socket to shut down is not connected */
  OPL_SOCKET_E_TOO_MANY = 0x050932          /**< more than OPL_SOCKET_SELECT_MAX sockets to select from */
};

/** Limits and sizes. */
enum {
  OPL_SOCKET_PATH_MAX = 92,             /**< characters of a local socket's path, without the terminator */
  OPL_SOCKET_PATH_SIZE = 93,            /**< bytes for any path that OPL_SocketAddressUnixGet yields */
  OPL_SOCKET_INET_TEXT_SIZE = 25,       /**< bytes that OPL_SocketAddressInetStringGet fills */
  OPL_SOCKET_ADDRESS_PACKED_SIZE = 112, /**< bytes of a packed address */
  OPL_SOCKET_SELECT_MAX = 4096          /**< descriptors that one OPL_SocketSelect waits for */
};

/** Families of OPL_SocketOpen. */
enum {
  OPL_SOCKET_INET = 0, /**< IPv4 */
  OPL_SOCKET_LOCAL = 1 /**< the local machine, by a path */
};

/** Types of OPL_SocketOpen. */
enum {
  OPL_SOCKET_STREAM = 0,  /**< a connection of bytes */
  OPL_SOCKET_DATAGRAM = 1 /**< messages */
};

/** What OPL_SocketShutdown stops. */
enum {
  OPL_SOCKET_SHUTDOWN_RECEIVE = 0, /**< receiving */
  OPL_SOCKET_SHUTDOWN_SEND = 1,    /**< sending */
  OPL_SOCKET_SHUTDOWN_BOTH = 2     /**< both */
};

/** Options of OPL_SocketSetOption, with the type of the value. */
enum {
  OPL_SOCKET_OPTION_LINGER = 0,        /**< struct linger: what a close does with unsent data */
  OPL_SOCKET_OPTION_KEEP_ALIVE = 1,    /**< int: probe an idle connection */
  OPL_SOCKET_OPTION_REUSE_ADDRESS = 2, /**< int: bind an address in its time of waiting */
  OPL_SOCKET_OPTION_SEND_BUFFER = 3,   /**< int: bytes of the send buffer */
  OPL_SOCKET_OPTION_RECEIVE_BUFFER = 4 /**< int: bytes of the receive buffer */
};

/** The flag of OPL_SocketNonBlockingSet, which reads the other way round than the function's name. */
enum {
  OPL_SOCKET_NON_BLOCKING = 0, /**< calls return OPL_SOCKET_E_WOULD_BLOCK instead of waiting */
  OPL_SOCKET_BLOCKING = 1      /**< calls wait */
};

/** Notifications of a socket's waitable event. */
enum {
  OPL_SOCKET_NOTIFY_READ = 0x01,    /**< there is something to receive */
  OPL_SOCKET_NOTIFY_WRITE = 0x02,   /**< something can be sent */
  OPL_SOCKET_NOTIFY_ACCEPT = 0x04,  /**< a connection waits */
  OPL_SOCKET_NOTIFY_CONNECT = 0x08, /**< a connection is made, or has failed */
  OPL_SOCKET_NOTIFY_CLOSE = 0x10    /**< the peer has closed */
};

/** A socket. */
typedef struct OPL_Socket OPL_Socket;

/** An address: an IPv4 address and a port, or the path of a local socket. */
typedef struct OPL_SocketAddress OPL_SocketAddress;

/**
 * @defgroup socketaddress Addresses
 *
 * Ports and IPv4 addresses are in network byte order everywhere, as htons and htonl make them: the library
 * never turns them round.
 *
 * A packed address is OPL_SOCKET_ADDRESS_PACKED_SIZE bytes that another process of the machine turns into an
 * address again, whatever the width of either.
 *
 * @callable after OPL_InitBegin, by one thread at a time for an address, not in a signal handler
 * @{
 */

/**
 * Makes an address of no family.
 *
 * @param phAddress  receives the address, ended with OPL_SocketAddressDestroy. Pass the address of a null
 *                   handle: a failure releases a handle that is already there, and stores null.
 * @param mode       0
 *
 * @return OPL_OK                      made
 * @return OPL_SOCKET_E_NULL_ARGUMENT  phAddress is null
 * @return OPL_SOCKET_E_INVALID_MODE   mode is not 0
 * @return OPL_SOCKET_E_NO_MEMORY      no memory
 */
OPL_API OPL_Result OPL_SocketAddressCreate(OPL_SocketAddress** phAddress, uint32_t mode);

/**
 * Releases an address and stores null.
 *
 * @param phAddress  the address, or a null handle; null afterwards
 *
 * @return OPL_OK                      released, or there was none
 * @return OPL_SOCKET_E_NULL_ARGUMENT  phAddress is null
 */
OPL_API OPL_Result OPL_SocketAddressDestroy(OPL_SocketAddress** phAddress);

/**
 * Sets an IPv4 address and a port.
 *
 * @param hAddress  the address
 * @param port      in network byte order
 * @param text      such as "127.0.0.1"
 *
 * @return OPL_OK                      set
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hAddress or text is null
 * @return OPL_SOCKET_E_INET_ADDR      the text is no address, or is 255.255.255.255; the address is set to
 *                                     that
 */
OPL_API OPL_Result OPL_SocketAddressInetStringSet(OPL_SocketAddress* hAddress, uint16_t port,
                                                  const char* text);

/**
 * Sets an IPv4 address and a port.
 *
 * @param hAddress  the address
 * @param port      in network byte order
 * @param address   in network byte order
 *
 * @return OPL_OK                      set
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hAddress is null
 */
OPL_API OPL_Result OPL_SocketAddressInetULongSet(OPL_SocketAddress* hAddress, uint16_t port,
                                                 uint32_t address);

/**
 * Tells an IPv4 address as text, and its port.
 *
 * @param hAddress  the address
 * @param pPort     receives the port in network byte order
 * @param buffer    OPL_SOCKET_INET_TEXT_SIZE bytes, all of which are written: the text and zeros
 *
 * @return OPL_OK                      told
 * @return OPL_SOCKET_E_NULL_ARGUMENT  an argument is null
 * @return OPL_SOCKET_E_BAD_FAMILY     the address is no IPv4 address
 * @return OPL_SOCKET_E_INET_NTOA      the address has no text
 */
OPL_API OPL_Result OPL_SocketAddressInetStringGet(const OPL_SocketAddress* hAddress, uint32_t* pPort,
                                                  char* buffer);

/**
 * Tells an IPv4 address and its port.
 *
 * @param hAddress  the address
 * @param pPort     receives the port in network byte order
 * @param pAddress  receives the address in network byte order
 *
 * @return OPL_OK                      told
 * @return OPL_SOCKET_E_NULL_ARGUMENT  an argument is null
 * @return OPL_SOCKET_E_BAD_FAMILY     the address is no IPv4 address
 */
OPL_API OPL_Result OPL_SocketAddressInetULongGet(const OPL_SocketAddress* hAddress, uint32_t* pPort,
                                                 uint32_t* pAddress);

/**
 * Sets the port alone. The family is not looked at.
 *
 * @param hAddress  the address
 * @param port      in network byte order
 *
 * @return OPL_OK                      set
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hAddress is null
 */
OPL_API OPL_Result OPL_SocketAddressInetSetPort(OPL_SocketAddress* hAddress, uint16_t port);

/**
 * Tells the port alone.
 *
 * @param hAddress  the address
 * @param pPort     receives the port in network byte order
 *
 * @return OPL_OK                      told
 * @return OPL_SOCKET_E_NULL_ARGUMENT  an argument is null
 * @return OPL_SOCKET_E_BAD_FAMILY     the address is no IPv4 address
 */
OPL_API OPL_Result OPL_SocketAddressInetGetPort(const OPL_SocketAddress* hAddress, uint32_t* pPort);

/**
 * Tells the size of a packed address.
 *
 * @param hAddress  not looked at
 * @param pSize     receives OPL_SOCKET_ADDRESS_PACKED_SIZE, in bytes
 *
 * @return OPL_OK                      told
 * @return OPL_SOCKET_E_NULL_ARGUMENT  pSize is null
 */
OPL_API OPL_Result OPL_SocketAddressPackedSizeGet(const OPL_SocketAddress* hAddress, uint32_t* pSize);

/**
 * Packs an address.
 *
 * @param hAddress  the address
 * @param buffer    receives OPL_SOCKET_ADDRESS_PACKED_SIZE bytes
 * @param size      bytes of buffer
 *
 * @return OPL_OK                      packed
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hAddress or buffer is null
 * @return OPL_SOCKET_E_TOO_SMALL      size is less than OPL_SOCKET_ADDRESS_PACKED_SIZE
 */
OPL_API OPL_Result OPL_SocketAddressPackedBufferFill(const OPL_SocketAddress* hAddress, void* buffer,
                                                     uint32_t size);

/**
 * Unpacks an address; any bytes are taken.
 *
 * @param hAddress  receives the address
 * @param buffer    a packed address
 * @param size      bytes of buffer
 *
 * @return OPL_OK                      unpacked
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hAddress or buffer is null
 * @return OPL_SOCKET_E_TOO_SMALL      size is less than OPL_SOCKET_ADDRESS_PACKED_SIZE
 */
OPL_API OPL_Result OPL_SocketAddressPackedAddrFill(OPL_SocketAddress* hAddress, const void* buffer,
                                                   uint32_t size);

/**
 * Copies an address.
 *
 * @param hSource       the address
 * @param hDestination  another, which receives it
 *
 * @return OPL_OK                      copied
 * @return OPL_SOCKET_E_NULL_ARGUMENT  an argument is null
 */
OPL_API OPL_Result OPL_SocketAddressCopy(const OPL_SocketAddress* hSource, OPL_SocketAddress* hDestination);

/**
 * Sets the address of a local socket of this instance: a path in the IPC directory.
 *
 * @param hAddress  the address
 * @param name      becomes part of the path
 *
 * @return OPL_OK                      set
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hAddress or name is null
 * @return OPL_SOCKET_E_BAD_NAME       the path is longer than OPL_SOCKET_PATH_MAX; nothing is changed
 */
OPL_API OPL_Result OPL_SocketAddressUnixSet(OPL_SocketAddress* hAddress, const char* name);

/**
 * Tells a local socket's path. The family is not looked at.
 *
 * @param hAddress  the address
 * @param buffer    receives the path; OPL_SOCKET_PATH_SIZE bytes
 *
 * @return OPL_OK                      told
 * @return OPL_SOCKET_E_NULL_ARGUMENT  an argument is null
 */
OPL_API OPL_Result OPL_SocketAddressUnixGet(const OPL_SocketAddress* hAddress, char* buffer);

/**
 * Tells whether there are local sockets: there are.
 *
 * @param ignored    not looked at
 * @param supported  receives 1
 *
 * @return OPL_OK                      told
 * @return OPL_SOCKET_E_NULL_ARGUMENT  supported is null
 */
OPL_API OPL_Result OPL_SocketAddressUnixIsSupported(uint32_t ignored, uint32_t* supported);

/**
 * Compares two addresses. IPv4 addresses are equal whatever their ports.
 *
 * @param hFirst    an address
 * @param hSecond   another
 * @param pIsEqual  receives 1 or 0; 0 on failure too
 *
 * @return OPL_OK                      compared
 * @return OPL_SOCKET_E_NULL_ARGUMENT  an argument is null
 * @return OPL_SOCKET_E_BAD_FAMILY     they are of different families, or of none
 */
OPL_API OPL_Result OPL_SocketAddressCompare(const OPL_SocketAddress* hFirst, const OPL_SocketAddress* hSecond,
                                            uint32_t* pIsEqual);

/** @} */

/** Does nothing. @return OPL_OK */
OPL_API OPL_Result OPL_SocketBegin(void);

/** Does nothing. @return OPL_OK */
OPL_API OPL_Result OPL_SocketEnd(void);

/**
 * Makes a record without a descriptor.
 *
 * @param ppSocket  receives the socket, ended with OPL_SocketDestroy
 * @param mode      0
 *
 * @return OPL_OK                      made
 * @return OPL_SOCKET_E_NULL_ARGUMENT  ppSocket is null
 * @return OPL_SOCKET_E_INVALID_MODE   mode is not 0
 * @return OPL_SOCKET_E_NO_MEMORY      no memory
 */
OPL_API OPL_Result OPL_SocketCreate(OPL_Socket** ppSocket, uint32_t mode);

/**
 * Refuses every socket: its check of the source is the wrong way round, and hosts count on that. Duplicate
 * the descriptor of OPL_SocketGetNativeSocket instead.
 *
 * @param pNewSocket     a null handle; stays null
 * @param hSourceSocket  a socket
 *
 * @return OPL_SOCKET_E_NOT_NULL       *pNewSocket is set
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSourceSocket is not null, or pNewSocket is null
 * @return OPL_SOCKET_E_DUPLICATE      hSourceSocket is null, and so has no descriptor
 * @return OPL_SOCKET_E_NO_MEMORY      hSourceSocket is null, and there is no memory
 */
OPL_API OPL_Result OPL_SocketDuplicate(OPL_Socket** pNewSocket, const OPL_Socket* hSourceSocket);

/**
 * Gives the record a new descriptor. One that it has is not closed.
 *
 * @param hSocket   the socket
 * @param family    OPL_SOCKET_INET or OPL_SOCKET_LOCAL; with another the record's family stays as it is
 * @param type      OPL_SOCKET_STREAM or OPL_SOCKET_DATAGRAM
 * @param protocol  of the system; 0 for the usual one
 *
 * @return OPL_OK                      opened
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSocket is null
 * @return OPL_SOCKET_E_OPEN           the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SocketOpen(OPL_Socket* hSocket, uint32_t family, uint32_t type, uint32_t protocol);

/**
 * Closes the descriptor that the record has and takes another.
 *
 * @param hSocket       the socket
 * @param nativeSocket  the descriptor, which is the record's from now on; -1 for none
 *
 * @return OPL_OK                      done
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSocket is null
 */
OPL_API OPL_Result OPL_SocketSetNativeSocket(OPL_Socket* hSocket, int32_t nativeSocket);

/**
 * Tells the descriptor; it stays the record's.
 *
 * @param hSocket        the socket
 * @param pNativeSocket  receives it, -1 where there is none
 *
 * @return OPL_OK                      told
 * @return OPL_SOCKET_E_NULL_ARGUMENT  an argument is null
 */
OPL_API OPL_Result OPL_SocketGetNativeSocket(OPL_Socket* hSocket, int32_t* pNativeSocket);

/**
 * Closes the descriptor, and removes the file of a local socket that this record has bound. The record may be
 * opened again.
 *
 * @param hSocket  the socket
 *
 * @return OPL_OK                      closed, or it was not open
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSocket is null
 */
OPL_API OPL_Result OPL_SocketClose(OPL_Socket* hSocket);

/**
 * Closes a socket, as OPL_SocketClose does, and releases the record.
 *
 * @param ppSocket  the socket, or a null handle; null afterwards
 *
 * @return OPL_OK                      released, or there was none
 * @return OPL_SOCKET_E_NULL_ARGUMENT  ppSocket is null
 */
OPL_API OPL_Result OPL_SocketDestroy(OPL_Socket** ppSocket);

/**
 * Closes a socket and releases the record, as OPL_SocketDestroy does, but leaves the file to the process that
 * has bound it.
 *
 * @param ppSocket  the socket, or a null handle; null afterwards
 *
 * @return OPL_OK                      released, or there was none
 * @return OPL_SOCKET_E_NULL_ARGUMENT  ppSocket is null
 */
OPL_API OPL_Result OPL_SocketDestroyLite(OPL_Socket** ppSocket);

/**
 * Receives once. A signal does not end the call.
 *
 * @param hSocket    the socket
 * @param pSizeRead  receives the bytes received, on success only; 0 when the peer of a stream has closed, or
 *                   for an empty message
 * @param buffer     receives them
 * @param length     bytes of buffer
 *
 * @return OPL_OK                      received
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSocket, pSizeRead or buffer is null
 * @return OPL_SOCKET_E_WOULD_BLOCK    there is nothing, and the socket does not block; no message
 * @return OPL_SOCKET_E_RESET          the peer has reset the connection
 * @return OPL_SOCKET_E_BROKEN_PIPE    the connection is broken
 * @return OPL_SOCKET_E_TIMEOUT        the connection has timed out
 * @return OPL_SOCKET_E_RECEIVE        the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SocketReceive(OPL_Socket* hSocket, uint32_t* pSizeRead, void* buffer, uint32_t length);

/**
 * Sends once.
 *
 * @param hSocket       the socket
 * @param pSizeWritten  receives the bytes sent, possibly fewer than length, on success only
 * @param buffer        what to send
 * @param length        bytes of it
 *
 * @return OPL_OK                      sent
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSocket, pSizeWritten or buffer is null
 * @return OPL_SOCKET_E_WOULD_BLOCK    there is no room, and the socket does not block; no message
 * @return OPL_SOCKET_E_SEND           the system refused, or a signal came; the socket counts as dead for
 *                                     OPL_SocketIsConnectionAlive
 */
OPL_API OPL_Result OPL_SocketSend(OPL_Socket* hSocket, uint32_t* pSizeWritten, const void* buffer,
                                  uint32_t length);

/**
 * Accepts a connection.
 *
 * @param hSocket    listens
 * @param hAccepted  receives the connection's descriptor, -1 on failure; one that it has is not closed
 * @param hAddress   receives the peer's address; may be null
 *
 * @return OPL_OK                      accepted
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSocket or hAccepted is null
 * @return OPL_SOCKET_E_ACCEPT         the system refused, or a signal came; OPL_ErrCodeGet gives its error
 *                                     number
 */
OPL_API OPL_Result OPL_SocketAccept(OPL_Socket* hSocket, OPL_Socket* hAccepted, OPL_SocketAddress* hAddress);

/**
 * Lets peers connect.
 *
 * @param hSocket  a stream socket with an address
 * @param backlog  connections that may wait
 *
 * @return OPL_OK                      listens
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSocket is null
 * @return OPL_SOCKET_E_LISTEN         the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SocketListen(OPL_Socket* hSocket, uint32_t backlog);

/**
 * Takes an address. A local socket's file must not exist yet.
 *
 * @param hSocket   the socket
 * @param hAddress  the address
 *
 * @return OPL_OK                      bound
 * @return OPL_SOCKET_E_NULL_ARGUMENT  an argument is null
 * @return OPL_SOCKET_E_BAD_ADDRESS    the address is a path longer than OPL_SOCKET_PATH_MAX
 * @return OPL_SOCKET_E_BIND           the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SocketBind(OPL_Socket* hSocket, const OPL_SocketAddress* hAddress);

/**
 * Connects to an address.
 *
 * @param hSocket   the socket
 * @param hAddress  the peer's address
 *
 * @return OPL_OK                      connected
 * @return OPL_SOCKET_E_NULL_ARGUMENT  an argument is null
 * @return OPL_SOCKET_E_WOULD_BLOCK    being connected: the socket does not block; no message
 * @return OPL_SOCKET_E_REFUSED        nobody listens there
 * @return OPL_SOCKET_E_UNREACHABLE    no route leads to the network
 * @return OPL_SOCKET_E_BAD_ADDRESS    the system does not take the address
 * @return OPL_SOCKET_E_CONNECT        the system refused, or a signal came; OPL_ErrCodeGet gives its number
 */
OPL_API OPL_Result OPL_SocketConnect(OPL_Socket* hSocket, const OPL_SocketAddress* hAddress);

/**
 * Stops receiving, sending or both.
 *
 * @param hSocket  the socket
 * @param how      OPL_SOCKET_SHUTDOWN_*; another number stops receiving
 *
 * @return OPL_OK                      stopped
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSocket is null
 * @return OPL_SOCKET_E_NOT_CONNECTED  the socket is not connected
 * @return OPL_SOCKET_E_SHUTDOWN       the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SocketShutdown(OPL_Socket* hSocket, uint32_t how);

/**
 * Sets an option.
 *
 * @param hSocket  the socket
 * @param option   OPL_SOCKET_OPTION_*
 * @param value    of the option's type
 * @param length   its bytes
 *
 * @return OPL_OK                      set
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSocket is null
 * @return OPL_SOCKET_E_BAD_OPTION     no such option
 * @return OPL_SOCKET_E_SET_OPTION     the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SocketSetOption(OPL_Socket* hSocket, uint32_t option, const void* value,
                                       uint32_t length);

/**
 * Lets the calls on a socket wait or not.
 *
 * @param hSocket  the socket
 * @param flag     OPL_SOCKET_NON_BLOCKING (0), or any other number for waiting
 *
 * @return OPL_OK                      set
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSocket is null
 * @return OPL_SOCKET_E_NON_BLOCKING   the system refused
 */
OPL_API OPL_Result OPL_SocketNonBlockingSet(OPL_Socket* hSocket, uint32_t flag);

/**
 * Tells a socket's own address.
 *
 * @param hSocket   the socket
 * @param hAddress  receives it. A local socket's path is told whole only when the address is one of a local
 *                  socket already (OPL_SocketAddressUnixSet), else its first 14 characters.
 *
 * @return OPL_OK                      told
 * @return OPL_SOCKET_E_NULL_ARGUMENT  an argument is null
 * @return OPL_SOCKET_E_NO_ADDRESS     the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SocketAddressGet(OPL_Socket* hSocket, OPL_SocketAddress* hAddress);

/**
 * Tells the peer's address.
 *
 * @param hSocket   the socket
 * @param hAddress  receives it; for a local socket's path as with OPL_SocketAddressGet
 *
 * @return as OPL_SocketAddressGet
 */
OPL_API OPL_Result OPL_SocketPeerAddressGet(OPL_Socket* hSocket, OPL_SocketAddress* hAddress);

/**
 * Makes two local datagram sockets that are connected with each other.
 *
 * @param pair  receives both sockets, each ended with OPL_SocketDestroy; null on failure
 * @param mode  0
 *
 * @return OPL_OK                      made
 * @return OPL_SOCKET_E_NULL_ARGUMENT  pair is null
 * @return OPL_SOCKET_E_INVALID_MODE   mode is not 0
 * @return OPL_SOCKET_E_NO_MEMORY      no memory
 * @return OPL_SOCKET_E_PAIR           the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SocketPairCreate(OPL_Socket* pair[2], uint32_t mode);

/**
 * Receives a message as the system's recvmsg does, with passed descriptors and all.
 *
 * @param hSocket   the socket
 * @param pMessage  the caller's, handed on as it is
 * @param flags     of recvmsg
 * @param pLength   receives the bytes received; 0xFFFFFFFF when recvmsg failed, errno telling why
 *
 * @return OPL_OK                      done, also when recvmsg failed
 * @return OPL_SOCKET_E_NULL_ARGUMENT  an argument is null
 */
OPL_API OPL_Result OPL_SocketMessageReceive(OPL_Socket* hSocket, struct msghdr* pMessage, uint32_t flags,
                                            uint32_t* pLength);

/**
 * Sends a message as the system's sendmsg does, with passed descriptors and all.
 *
 * @param hSocket   the socket
 * @param pMessage  the caller's, handed on as it is
 * @param flags     of sendmsg
 *
 * @return OPL_OK                      sent
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSocket or pMessage is null
 * @return OPL_SOCKET_E_MESSAGE_SEND   the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SocketMessageSend(OPL_Socket* hSocket, const struct msghdr* pMessage, uint32_t flags);

/**
 * Tells whether a connection still stands, without waiting: no send has failed, and the peer has not closed.
 *
 * @param hSocket   the socket
 * @param pIsAlive  receives 1 or 0; may be null
 *
 * @return OPL_OK                      told
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSocket is null
 * @return OPL_SOCKET_E_POLL           the system refused; the connection counts as dead
 */
OPL_API OPL_Result OPL_SocketIsConnectionAlive(OPL_Socket* hSocket, uint32_t* pIsAlive);

/**
 * Removes the files of the instance's local sockets whose names match a pattern. Called by
 * OPL_InitTerminateIPC.
 *
 * @param ignored  not looked at
 * @param pattern  as the shell matches names, relative to the IPC directory
 *
 * @return OPL_OK  removed, or there was none
 * @return OPL_FILE_E_REMOVE, or a code of OPL_FileNameFind; all files are gone through all the same
 */
OPL_API OPL_Result OPL_SocketTerminateIPC(uint32_t ignored, const char* pattern);

/** @} */

/**
 * @defgroup socketwait Waiting for sockets
 * @ingroup socket
 *
 * One of many sockets, or sockets together with events (OPL_SyncWaitableEventWaitForMultiple).
 *
 * @callable after OPL_InitBegin, by one thread at a time for a socket and its waitable event, not in a signal
 * handler
 * @{
 */

/**
 * Waits until one of many sockets is ready. Nothing is allocated; the call takes some 50 kB of stack.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 *
 * @param mode            not looked at
 * @param read            sockets to wait for something to receive from, ended by null; may be null
 * @param write           sockets to wait for room to send in
 * @param except          sockets to wait for errors of
 * @param readResult      receives 1 or 0 for each entry of read; like the next two, needed for a list that is
 *                        not empty, and all 0 on failure
 * @param writeResult     for write
 * @param exceptResult    for except
 * @param timeoutSeconds  longest wait; null waits without limit; above 2,147,483 as that. A signal begins the
 *                        wait anew.
 *
 * @return OPL_OK                      one is ready at least
 * @return OPL_SOCKET_E_NULL_ARGUMENT  the results of a list are null
 * @return OPL_SOCKET_E_TOO_MANY       the lists name more than OPL_SOCKET_SELECT_MAX descriptors. One in
 *                                     several lists counts once; one that read names twice counts twice.
 * @return OPL_SOCKET_E_TIMEOUT        none became ready in time
 * @return OPL_SOCKET_E_POLL           the system refused; OPL_ErrCodeGet gives its error number
 */
OPL_API OPL_Result OPL_SocketSelect(uint32_t mode, OPL_Socket** read, OPL_Socket** write, OPL_Socket** except,
                                    uint32_t* readResult, uint32_t* writeResult, uint32_t* exceptResult,
                                    const uint32_t* timeoutSeconds);

/**
 * Makes a waitable event for a socket: waited for with others by OPL_SyncWaitableEventWaitForMultiple.
 *
 * @param hSocket  the socket
 * @param pHandle  receives it, ended with OPL_SocketWaitableEventDestroy; null on failure
 * @param mode     0
 *
 * @return OPL_OK                      made
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSocket or pHandle is null
 * @return OPL_SOCKET_E_INVALID_MODE   mode is not 0
 * @return OPL_SYNC_E_NO_MEMORY        no memory
 */
OPL_API OPL_Result OPL_SocketWaitableEventCreate(OPL_Socket* hSocket, OPL_SyncWaitableEvent** pHandle,
                                                 uint32_t mode);

/**
 * Binds a waitable event to a socket's descriptor. Once more after the socket was opened anew.
 *
 * @param hSocket        the socket, which is open
 * @param hEvent         the waitable event
 * @param notifications  OPL_SOCKET_NOTIFY_*
 *
 * @return OPL_OK                         bound
 * @return OPL_SOCKET_E_NULL_ARGUMENT     hSocket or hEvent is null
 * @return OPL_SOCKET_E_BAD_NOTIFICATION  write and close are asked for without read
 */
OPL_API OPL_Result OPL_SocketWaitableEventSet(OPL_Socket* hSocket, OPL_SyncWaitableEvent* hEvent,
                                              uint32_t notifications);

/**
 * Tells what the last wait found.
 *
 * @param hSocket         the socket
 * @param hEvent          the waitable event, bound to that socket
 * @param pNotifications  receives OPL_SOCKET_NOTIFY_*: read, accept and close together where there is
 *                        something to receive, but accept alone on a socket for which it was asked; write and
 *                        connect together where something can be sent; 0 for an error
 *
 * @return OPL_OK                      told
 * @return OPL_SOCKET_E_NULL_ARGUMENT  an argument is null
 */
OPL_API OPL_Result OPL_SocketWaitableEventGet(OPL_Socket* hSocket, OPL_SyncWaitableEvent* hEvent,
                                              uint32_t* pNotifications);

/**
 * Releases a waitable event and stores null.
 *
 * @param hSocket  the socket
 * @param pHandle  the waitable event; null afterwards
 *
 * @return OPL_OK                      released
 * @return OPL_SOCKET_E_NULL_ARGUMENT  hSocket is null
 * @return OPL_SYNC_E_NULL_ARGUMENT    pHandle is null
 */
OPL_API OPL_Result OPL_SocketWaitableEventDestroy(OPL_Socket* hSocket, OPL_SyncWaitableEvent** pHandle);

/** @} */

OPL_END_DECLS

#endif
