/*
 * Talking to the daemon; see talk.h.
 */
#include "talk.h"

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

#include "OPL_Socket.h"
#include "wordmill.h"

enum { FIRST_ROOM = 8192 };

static bool Connect(OPL_Socket* socket, uint16_t port) {
  OPL_SocketAddress* address = NULL;
  MillRequire(OPL_SocketAddressCreate(&address, 0), "making an address");
  if (port != 0)
    MillRequire(OPL_SocketAddressInetStringSet(address, htons(port), "127.0.0.1"), "setting the address");
  else
    MillRequire(OPL_SocketAddressUnixSet(address, MILL_SOCKET), "setting the address");
  MillRequire(OPL_SocketOpen(socket, port != 0 ? OPL_SOCKET_INET : OPL_SOCKET_LOCAL, OPL_SOCKET_STREAM, 0),
              "opening a socket");
  const bool isConnected = OPL_SocketConnect(socket, address) == OPL_OK;
  MillCheck(OPL_SocketAddressDestroy(&address), "ending an address");
  return isConnected;
}

static bool Send(OPL_Socket* socket, const char* text, uint32_t length) {
  uint32_t size = 0;
  for (; length != 0; text += size, length -= size)
    if (OPL_SocketSend(socket, &size, text, length) != OPL_OK) return false;
  return true;
}

static bool IsEnded(const char* text, uint32_t length) {
  return length >= 3 && memcmp(text + length - 3, "\n.\n", 3) == 0;
}

/* Receives up to the line that is a dot, and cuts that off. */
static char* Receive(OPL_Socket* socket) {
  uint32_t room = FIRST_ROOM;
  uint32_t length = 0;
  uint32_t size = 0;
  char* text = MillAllocate(room, 1);
  while (!IsEnded(text, length)) {
    if (OPL_SocketReceive(socket, &size, text + length, room - length) != OPL_OK || size == 0) {
      MillFree(text);
      return NULL;
    }
    length += size;
    if (length < room) continue;
    char* grown = MillAllocate(2 * room, 1);
    memcpy(grown, text, length);
    MillFree(text);
    text = grown;
    room *= 2;
  }
  text[length - 2] = '\0';
  return text;
}

/* The first line is the status; the others move to its place. */
static uint32_t TakeStatus(char* text) {
  char* lines = NULL;
  const uint32_t status = (uint32_t)strtoul(text, &lines, 10);
  if (*lines == '\n') ++lines;
  memmove(text, lines, strlen(lines) + 1);
  return status;
}

uint32_t Talk(uint16_t port, const char* request, char** pLines) {
  OPL_Socket* socket = NULL;
  *pLines = NULL;
  MillRequire(OPL_SocketCreate(&socket, 0), "making a socket");
  if (Connect(socket, port) && Send(socket, request, (uint32_t)strlen(request)) && Send(socket, "\n", 1))
    *pLines = Receive(socket);
  MillCheck(OPL_SocketDestroy(&socket), "ending a socket");
  return *pLines != NULL ? TakeStatus(*pLines) : TALK_NOBODY;
}
