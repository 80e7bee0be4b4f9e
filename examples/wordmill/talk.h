/*
 * The controller's side of a conversation with the daemon; what is said is in clients.h.
 */
#ifndef WORDMILL_TALK_H
#define WORDMILL_TALK_H

#include <stdint.h>

enum { TALK_NOBODY = 100 /* the daemon does not run, or has gone away */ };

/*
 * Sends a request and receives the lines of the reply.
 *
 * @param port    a TCP port of 127.0.0.1; 0 takes the local socket
 * @param pLines  receives a text, released with MillFree; null for TALK_NOBODY
 *
 * @return how the command ended, MILL_*, or TALK_NOBODY
 */
uint32_t Talk(uint16_t port, const char* request, char** pLines);

#endif
