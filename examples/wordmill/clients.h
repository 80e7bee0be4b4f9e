/*
 * The daemon's clients: a local socket, a TCP port of 127.0.0.1, and a conversation with each that connects.
 *
 * A client sends one line: "status", "progress", "query WORD", "top N" (0: all), "fault mutex" or "fault
 * counts". The answer begins with a number as commands end with it (MILL_OK, MILL_NO, MILL_USAGE), has its
 * lines, and ends with a line that is a dot. No client keeps the daemon waiting, whether it sends, reads or
 * does nothing.
 */
#ifndef WORDMILL_CLIENTS_H
#define WORDMILL_CLIENTS_H

#include "OPL_Socket.h"
#include "OPL_Sync.h"
#include "wordmill.h"

enum { CLIENTS_MAX = 32, LISTENERS = 2 };

/* A text that grows. */
typedef struct Reply {
  char* text;
  uint32_t length;
  uint32_t room;
} Reply;

typedef struct Client {
  OPL_Socket* socket; /* null: the place is free */
  OPL_SyncWaitableEvent* event;
  char request[MILL_REQUEST_SIZE];
  uint32_t received;
  Reply reply;
  uint32_t sent;
} Client;

/* What answers a request: adds lines to the reply and tells how it ended. */
typedef uint32_t (*Answer)(void* argument, char* request, Reply* reply);

typedef struct Clients {
  OPL_Socket* listeners[LISTENERS];
  OPL_SyncWaitableEvent* listenerEvents[LISTENERS];
  char path[OPL_SOCKET_PATH_SIZE]; /* of the local socket */
  uint32_t port;                   /* of the TCP socket */
  Client clients[CLIENTS_MAX];
  Answer answer;
  void* argument;
} Clients;

void ClientsCreate(Clients* clients, Answer answer, void* argument);
void ClientsDestroy(Clients* clients);

/* Puts what to wait for into events, up to CLIENTS_MAX + LISTENERS, and tells how many there are. */
uint32_t ClientsEvents(Clients* clients, OPL_SyncWaitableEvent** events);

/* Goes on with those that are ready, flagged in the same order as ClientsEvents has put them. */
void ClientsServe(Clients* clients, const uint32_t* ready);

void ReplyAdd(Reply* reply, const char* format, ...) __attribute__((format(printf, 2, 3)));

#endif
