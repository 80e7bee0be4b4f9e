/*
 * The daemon's clients; see clients.h.
 */
#include "clients.h"

#include <arpa/inet.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "OPL_Sig.h"

enum { LISTEN_BACKLOG = 16, FIRST_ROOM = 1024, LINE_SIZE = 512 };

static const char kEndOfReply[] = ".\n";

static void AddText(Reply* reply, const char* text, uint32_t length) {
  if (reply->length + length > reply->room) {
    const uint32_t room = 2 * reply->room + length + FIRST_ROOM;
    char* grown = MillAllocate(room, 1);
    if (reply->text != NULL) memcpy(grown, reply->text, reply->length);
    MillFree(reply->text);
    reply->text = grown;
    reply->room = room;
  }
  memcpy(reply->text + reply->length, text, length);
  reply->length += length;
}

void ReplyAdd(Reply* reply, const char* format, ...) {
  char line[LINE_SIZE];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  AddText(reply, line, (uint32_t)strlen(line));
}

static void Listen(Clients* clients, uint32_t which, const OPL_SocketAddress* address) {
  OPL_Socket* listener = clients->listeners[which];
  MillRequire(OPL_SocketBind(listener, address), "binding a socket");
  MillRequire(OPL_SocketListen(listener, LISTEN_BACKLOG), "listening");
  MillRequire(OPL_SocketNonBlockingSet(listener, OPL_SOCKET_NON_BLOCKING), "making a socket not block");
  OPL_SyncWaitableEvent** event = &clients->listenerEvents[which];
  MillRequire(OPL_SocketWaitableEventCreate(listener, event, 0), "waiting for clients");
  MillRequire(OPL_SocketWaitableEventSet(listener, *event, OPL_SOCKET_NOTIFY_ACCEPT), "waiting for clients");
}

static void ListenLocally(Clients* clients, OPL_SocketAddress* address) {
  MillRequire(OPL_SocketOpen(clients->listeners[0], OPL_SOCKET_LOCAL, OPL_SOCKET_STREAM, 0),
              "opening a local socket");
  MillRequire(OPL_SocketAddressUnixSet(address, MILL_SOCKET), "naming the local socket");
  MillRequire(OPL_SocketAddressUnixGet(address, clients->path), "naming the local socket");
  Listen(clients, 0, address);
}

/* Port 0 asks the system for any that is free. Ports are in network byte order. */
static void ListenOnTcp(Clients* clients, OPL_SocketAddress* address) {
  uint32_t port = 0;
  MillRequire(OPL_SocketOpen(clients->listeners[1], OPL_SOCKET_INET, OPL_SOCKET_STREAM, 0),
              "opening a TCP socket");
  MillRequire(OPL_SocketAddressInetStringSet(address, 0, "127.0.0.1"), "naming the TCP socket");
  Listen(clients, 1, address);
  MillRequire(OPL_SocketAddressGet(clients->listeners[1], address), "finding the TCP port");
  MillRequire(OPL_SocketAddressInetGetPort(address, &port), "finding the TCP port");
  clients->port = ntohs((uint16_t)port);
}

void ClientsCreate(Clients* clients, Answer answer, void* argument) {
  clients->answer = answer;
  clients->argument = argument;
  /* A client that goes away is no reason to end. */
  MillRequire(OPL_SigSignal(0, SIGPIPE, SIG_IGN, NULL), "ignoring SIGPIPE");
  OPL_SocketAddress* address = NULL;
  MillRequire(OPL_SocketAddressCreate(&address, 0), "making an address");
  for (uint32_t i = 0; i < LISTENERS; ++i)
    MillRequire(OPL_SocketCreate(&clients->listeners[i], 0), "making a socket");
  ListenLocally(clients, address);
  ListenOnTcp(clients, address);
  MillRequire(OPL_SocketAddressDestroy(&address), "ending an address");
}

static void CloseClient(Client* client) {
  if (client->socket == NULL) return;
  MillCheck(OPL_SocketWaitableEventDestroy(client->socket, &client->event), "ending a client");
  MillCheck(OPL_SocketDestroy(&client->socket), "ending a client");
  MillFree(client->reply.text);
  memset(client, 0, sizeof *client);
}

void ClientsDestroy(Clients* clients) {
  for (uint32_t i = 0; i < CLIENTS_MAX; ++i) CloseClient(&clients->clients[i]);
  for (uint32_t i = 0; i < LISTENERS; ++i) {
    OPL_Socket* listener = clients->listeners[i];
    MillCheck(OPL_SocketWaitableEventDestroy(listener, &clients->listenerEvents[i]), "ending a socket");
    MillCheck(OPL_SocketDestroy(&clients->listeners[i]), "ending a socket");
  }
}

static Client* FreePlace(Clients* clients) {
  for (uint32_t i = 0; i < CLIENTS_MAX; ++i)
    if (clients->clients[i].socket == NULL) return &clients->clients[i];
  return NULL;
}

/* With all places taken, clients wait in the listeners' queues. */
uint32_t ClientsEvents(Clients* clients, OPL_SyncWaitableEvent** events) {
  uint32_t count = 0;
  if (FreePlace(clients) != NULL)
    for (uint32_t i = 0; i < LISTENERS; ++i) events[count++] = clients->listenerEvents[i];
  for (uint32_t i = 0; i < CLIENTS_MAX; ++i)
    if (clients->clients[i].socket != NULL) events[count++] = clients->clients[i].event;
  return count;
}

static void Accept(Clients* clients, OPL_Socket* listener) {
  Client* client = FreePlace(clients);
  if (client == NULL) return;
  MillRequire(OPL_SocketCreate(&client->socket, 0), "making a socket");
  /* The client may have gone again. */
  if (OPL_SocketAccept(listener, client->socket, NULL) != OPL_OK) {
    MillCheck(OPL_SocketDestroy(&client->socket), "ending a client");
    return;
  }
  MillRequire(OPL_SocketNonBlockingSet(client->socket, OPL_SOCKET_NON_BLOCKING), "making a socket not block");
  MillRequire(OPL_SocketWaitableEventCreate(client->socket, &client->event, 0), "waiting for a client");
  MillRequire(OPL_SocketWaitableEventSet(client->socket, client->event, OPL_SOCKET_NOTIFY_READ),
              "waiting for a client");
}

/* Sends as much as the client takes now. */
static void Send(Client* client) {
  uint32_t size = 0;
  const OPL_Result rc = OPL_SocketSend(client->socket, &size, client->reply.text + client->sent,
                                       client->reply.length - client->sent);
  if (rc == OPL_OK) client->sent += size;
  if ((rc != OPL_OK && rc != OPL_SOCKET_E_WOULD_BLOCK) || client->sent == client->reply.length)
    CloseClient(client);
}

static void AnswerRequest(Clients* clients, Client* client) {
  Reply lines = {NULL, 0, 0};
  const uint32_t status = clients->answer(clients->argument, client->request, &lines);
  ReplyAdd(&client->reply, "%u\n", (unsigned)status);
  if (lines.length != 0) AddText(&client->reply, lines.text, lines.length);
  MillFree(lines.text);
  ReplyAdd(&client->reply, kEndOfReply);
  MillRequire(OPL_SocketWaitableEventSet(client->socket, client->event, OPL_SOCKET_NOTIFY_WRITE),
              "waiting for a client");
  Send(client);
}

/* A line that is too long, or not ended before the client closes, gets no answer. */
static void Receive(Clients* clients, Client* client) {
  uint32_t size = 0;
  const OPL_Result rc = OPL_SocketReceive(client->socket, &size, client->request + client->received,
                                          MILL_REQUEST_SIZE - 1 - client->received);
  if (rc == OPL_SOCKET_E_WOULD_BLOCK) return;
  if (rc != OPL_OK || size == 0) {
    CloseClient(client);
    return;
  }
  client->received += size;
  char* end = memchr(client->request, '\n', client->received);
  if (end == NULL) return;
  *end = '\0';
  AnswerRequest(clients, client);
}

void ClientsServe(Clients* clients, const uint32_t* ready) {
  const bool accepts = FreePlace(clients) != NULL;
  const uint32_t* next = ready + (accepts ? LISTENERS : 0);
  for (uint32_t i = 0; i < CLIENTS_MAX; ++i) {
    Client* client = &clients->clients[i];
    if (client->socket == NULL || *next++ == 0) continue;
    if (client->reply.length != 0)
      Send(client);
    else
      Receive(clients, client);
  }
  for (uint32_t i = 0; accepts && i < LISTENERS; ++i)
    if (ready[i] != 0) Accept(clients, clients->listeners[i]);
}
