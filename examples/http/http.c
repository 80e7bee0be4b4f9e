/*
 * A small HTTP responder for the machine itself: one thread that serves many clients at a time.
 *
 *   http PORT              a page of its own; with port 0 the system chooses one
 *   http PORT DIRECTORY    the files below a directory
 *   http PORT DIRECTORY SECONDS    how long to bear with a client that does not move; 10 otherwise
 *
 * It prints its address when it is ready, and SIGTERM or SIGINT ends it. It answers one GET on each
 * connection; names are taken as they are sent, without %-escapes, and symbolic links are followed.
 *
 * No client can make it wait or grow: sockets do not block, each client has one buffer, and there is a most
 * of clients. All waiting is done in one place, by OPL_SocketSelect in Serve.
 */
#define _POSIX_C_SOURCE 200809L
#define _FILE_OFFSET_BITS 64

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Sig.h"
#include "OPL_Socket.h"

enum {
  kMostClients = 400,  /* each takes a socket and a file; many systems allow 1,024 descriptors */
  kBacklog = 128,      /* more connections wait in the system */
  kBufferSize = 16384, /* of a client; a request may be as long, too */
  kNoFile = -1
};

enum State {
  kRequest, /* being received */
  kAnswer,  /* being sent */
  kFarewell /* all is sent; waiting for the client to close */
};

struct Client {
  OPL_Socket* socket;
  enum State state;
  time_t lastMove;
  int file;     /* the rest of the answer */
  off_t left;   /* of it */
  size_t begin; /* of what is still to be sent of the buffer */
  size_t end;   /* of what is in it */
  char buffer[kBufferSize + 1];
};

struct Server {
  OPL_Socket* listener;
  OPL_Socket* stop[2];
  int directory;
  time_t patience;  /* in seconds, with a client that does not move */
  time_t restUntil; /* when connections may be accepted again */
  size_t count;
  struct Client* clients[kMostClients];
};

/* What select is called with: what stops the server, the clients, and the listener; null ends a list. */
struct Lists {
  OPL_Socket* read[kMostClients + 3];
  OPL_Socket* write[kMostClients + 1];
  uint32_t readable[kMostClients + 3];
  uint32_t writable[kMostClients + 1];
  bool isListening;
};

static const char kPage[] =
    "<!DOCTYPE html><title>It works</title><p>One thread, one select, many clients.</p>\n";

/* A result code says that a call failed; the message in the thread's error record says why. */
static void Require(OPL_Result rc, const char* what) {
  if (rc == OPL_OK) return;
  fprintf(stderr, "%s: failed with 0x%06X: %s\n", what, (unsigned)rc, OPL_ErrMessageGet(0));
  exit(EXIT_FAILURE);
}

static time_t Now(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

/* The answer's head, with all of a short body; a file follows in pieces. */
static void Answer(struct Client* client, const char* status, const char* type, long long length,
                   const char* body) {
  const int written = snprintf(client->buffer, kBufferSize,
                               "HTTP/1.1 %s\r\nContent-Type: %s\r\nContent-Length: %lld\r\n"
                               "Allow: GET\r\nConnection: close\r\n\r\n%s",
                               status, type, length, body);
  client->begin = 0;
  client->end = (size_t)written;
}

static void Refuse(struct Client* client, const char* status) {
  Answer(client, status, "text/plain", (long long)strlen(status), status);
}

static const char* TypeOf(const char* name) {
  static const char* const kTypes[][2] = {{".html", "text/html"},
                                          {".txt", "text/plain"},
                                          {".css", "text/css"},
                                          {".js", "text/javascript"},
                                          {".png", "image/png"}};
  const char* const suffix = strrchr(name, '.');
  for (size_t i = 0; suffix != NULL && i < sizeof kTypes / sizeof *kTypes; ++i)
    if (strcmp(suffix, kTypes[i][0]) == 0) return kTypes[i][1];
  return "application/octet-stream";
}

/* A name relative to the directory. A FIFO in a file's place is not waited for. */
static void AnswerFile(struct Client* client, int directory, const char* name) {
  struct stat status;
  client->file = openat(directory, name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (client->file != kNoFile && fstat(client->file, &status) == 0 && S_ISREG(status.st_mode)) {
    client->left = status.st_size;
    Answer(client, "200 OK", TypeOf(name), (long long)status.st_size, "");
    return;
  }
  if (client->file != kNoFile) close(client->file);
  client->file = kNoFile;
  Refuse(client, "404 Not Found");
}

static void AnswerName(struct Client* client, int directory, const char* name) {
  if (directory != kNoFile)
    AnswerFile(client, directory, *name == '\0' ? "index.html" : name);
  else if (*name == '\0')
    Answer(client, "200 OK", "text/html", (long long)strlen(kPage), kPage);
  else
    Refuse(client, "404 Not Found");
}

/* The request is a text now: "GET /name?query HTTP/1.1", and lines that nobody looks at. */
static void AnswerRequest(struct Client* client, int directory) {
  char* const method = client->buffer;
  method[strcspn(method, "\r\n")] = '\0';
  char* const target = strchr(method, ' ');
  char* const version = target == NULL ? NULL : strchr(target + 1, ' ');
  if (version == NULL || target == method || strncmp(version, " HTTP/1.", 8) != 0) {
    Refuse(client, "400 Bad Request");
    return;
  }
  *target = *version = '\0';
  char* const path = target + 1;
  path[strcspn(path, "?#")] = '\0';
  /* openat takes a name that begins with a slash for one from the root. */
  const char* const name = path + strspn(path, "/");
  if (name == path || strstr(path, "..") != NULL)
    Refuse(client, "400 Bad Request");
  else if (strcmp(method, "GET") != 0)
    Refuse(client, "405 Method Not Allowed");
  else
    AnswerName(client, directory, name);
}

/*
 * The three steps of a client. Each does what can be done now and returns false when the client is to be
 * dropped. A socket that was ready may not be so any more: then it will be again.
 */

/* Sends a piece at a time, so that a fast client does not keep the others waiting. */
static bool SendPiece(struct Client* client) {
  if (client->begin == client->end && client->left > 0) {
    const size_t most = client->left < kBufferSize ? (size_t)client->left : kBufferSize;
    const ssize_t size = read(client->file, client->buffer, most);
    if (size <= 0) return false; /* or it has become shorter: the client sees that something is missing */
    client->left -= size;
    client->begin = 0;
    client->end = (size_t)size;
  }
  if (client->begin == client->end) {
    /* Closed now, the connection would be reset if the client has sent more than was read, and the client
     * might never see its answer. */
    client->state = kFarewell;
    return OPL_SocketShutdown(client->socket, OPL_SOCKET_SHUTDOWN_SEND) == OPL_OK;
  }
  uint32_t sent = 0;
  const OPL_Result rc = OPL_SocketSend(client->socket, &sent, client->buffer + client->begin,
                                       (uint32_t)(client->end - client->begin));
  if (rc == OPL_SOCKET_E_WOULD_BLOCK) return true;
  if (rc != OPL_OK) return false;
  client->begin += sent;
  client->lastMove = Now();
  return true;
}

/* Requests come in pieces. Their time counts from the beginning: a byte now and then keeps nobody alive. */
static bool ReceiveRequest(struct Client* client, int directory) {
  uint32_t received = 0;
  const OPL_Result rc = OPL_SocketReceive(client->socket, &received, client->buffer + client->end,
                                          (uint32_t)(kBufferSize - client->end));
  if (rc == OPL_SOCKET_E_WOULD_BLOCK) return true;
  if (rc != OPL_OK || received == 0) return false;
  client->end += received;
  client->buffer[client->end] = '\0';
  const bool isWhole = strstr(client->buffer, "\r\n\r\n") != NULL || strstr(client->buffer, "\n\n") != NULL;
  const bool mayBecomeWhole = client->end < kBufferSize && strlen(client->buffer) == client->end;
  if (!isWhole && mayBecomeWhole) return true;
  if (isWhole)
    AnswerRequest(client, directory);
  else
    Refuse(client, "400 Bad Request");
  client->state = kAnswer;
  client->lastMove = Now();
  return SendPiece(client);
}

static bool AwaitClose(struct Client* client) {
  uint32_t received = 0;
  const OPL_Result rc = OPL_SocketReceive(client->socket, &received, client->buffer, kBufferSize);
  return rc == OPL_SOCKET_E_WOULD_BLOCK || (rc == OPL_OK && received != 0);
}

static bool Move(struct Client* client, int directory) {
  switch (client->state) {
    case kRequest:
      return ReceiveRequest(client, directory);
    case kAnswer:
      return SendPiece(client);
    default:
      return AwaitClose(client);
  }
}

static void Drop(struct Client* client) {
  if (client->file != kNoFile) close(client->file);
  OPL_SocketDestroy(&client->socket);
  free(client);
}

/* A refusal is no reason to end. Out of memory or descriptors, the listener stays ready: it gets a rest. */
static void Accept(struct Server* server) {
  server->restUntil = Now() + 1;
  struct Client* const client = calloc(1, sizeof *client);
  if (client == NULL) return;
  client->file = kNoFile;
  client->lastMove = Now();
  if (OPL_SocketCreate(&client->socket, 0) != OPL_OK ||
      OPL_SocketAccept(server->listener, client->socket, NULL) != OPL_OK ||
      OPL_SocketNonBlockingSet(client->socket, OPL_SOCKET_NON_BLOCKING) != OPL_OK) {
    Drop(client);
    return;
  }
  server->clients[server->count++] = client;
  server->restUntil = 0;
}

/* Waits until something can be done, a second at most: so long may it take to notice who does not move. */
static void Wait(const struct Server* server, struct Lists* lists) {
  const uint32_t seconds = 1;
  size_t reads = 0;
  size_t writes = 0;
  lists->read[reads++] = server->stop[1];
  for (size_t i = 0; i < server->count; ++i)
    if (server->clients[i]->state == kAnswer)
      lists->write[writes++] = server->clients[i]->socket;
    else
      lists->read[reads++] = server->clients[i]->socket;
  lists->isListening = server->count < kMostClients && Now() >= server->restUntil;
  if (lists->isListening) lists->read[reads++] = server->listener;
  lists->read[reads] = NULL;
  lists->write[writes] = NULL;
  const OPL_Result rc =
      OPL_SocketSelect(0, lists->read, lists->write, NULL, lists->readable, lists->writable, NULL, &seconds);
  if (rc != OPL_SOCKET_E_TIMEOUT) Require(rc, "OPL_SocketSelect");
}

/* Until somebody asks it to stop. The results stand in the order in which Wait has named the sockets. */
static void Serve(struct Server* server) {
  static struct Lists lists;
  for (Wait(server, &lists); lists.readable[0] == 0; Wait(server, &lists)) {
    const time_t now = Now();
    const size_t count = server->count;
    size_t reads = 1;
    size_t writes = 0;
    server->count = 0;
    for (size_t i = 0; i < count; ++i) {
      struct Client* const client = server->clients[i];
      const uint32_t isReady = client->state == kAnswer ? lists.writable[writes++] : lists.readable[reads++];
      if ((isReady == 0 || Move(client, server->directory)) && now - client->lastMove <= server->patience)
        server->clients[server->count++] = client;
      else
        Drop(client);
    }
    if (lists.isListening && lists.readable[reads] != 0) Accept(server);
  }
}

/* Listens, and tells where. */
static void Listen(struct Server* server, uint16_t port) {
  const int yes = 1;
  uint32_t listening = 0;
  OPL_SocketAddress* address = NULL;
  Require(OPL_SocketAddressCreate(&address, 0), "OPL_SocketAddressCreate");
  Require(OPL_SocketAddressInetStringSet(address, htons(port), "127.0.0.1"),
          "OPL_SocketAddressInetStringSet");
  Require(OPL_SocketCreate(&server->listener, 0), "OPL_SocketCreate");
  Require(OPL_SocketOpen(server->listener, OPL_SOCKET_INET, OPL_SOCKET_STREAM, 0), "OPL_SocketOpen");
  /* Without it, the port of a server that has just ended is refused for a minute. */
  Require(OPL_SocketSetOption(server->listener, OPL_SOCKET_OPTION_REUSE_ADDRESS, &yes, sizeof yes),
          "OPL_SocketSetOption");
  Require(OPL_SocketBind(server->listener, address), "OPL_SocketBind");
  Require(OPL_SocketListen(server->listener, kBacklog), "OPL_SocketListen");
  /* A connection that select has seen may be gone when it is to be accepted. */
  Require(OPL_SocketNonBlockingSet(server->listener, OPL_SOCKET_NON_BLOCKING), "OPL_SocketNonBlockingSet");
  Require(OPL_SocketAddressGet(server->listener, address), "OPL_SocketAddressGet");
  Require(OPL_SocketAddressInetGetPort(address, &listening), "OPL_SocketAddressInetGetPort");
  Require(OPL_SocketAddressDestroy(&address), "OPL_SocketAddressDestroy");
  printf("http://127.0.0.1:%u/\n", (unsigned)ntohs((uint16_t)listening));
  fflush(stdout);
}

/*
 * A signal does not end a select, which begins its wait anew. So the handler sends a byte to a socket that
 * select waits for, with a call that a handler may make; the library's own are not among those.
 */
static int gStopDescriptor;

static void HandleStop(int signalNumber) {
  const int number = errno;
  (void)signalNumber;
  if (write(gStopDescriptor, "", 1) == -1) {
    /* It is asked to stop already. */
  }
  errno = number;
}

static void StopOnSignals(struct Server* server) {
  Require(OPL_SocketPairCreate(server->stop, 0), "OPL_SocketPairCreate");
  Require(OPL_SocketNonBlockingSet(server->stop[0], OPL_SOCKET_NON_BLOCKING), "OPL_SocketNonBlockingSet");
  Require(OPL_SocketGetNativeSocket(server->stop[0], &gStopDescriptor), "OPL_SocketGetNativeSocket");
  Require(OPL_SigSignal(0, SIGTERM, HandleStop, NULL), "OPL_SigSignal");
  Require(OPL_SigSignal(0, SIGINT, HandleStop, NULL), "OPL_SigSignal");
  /* A client that goes away is an error of its own connection, not the end of the process. */
  Require(OPL_SigSignal(0, SIGPIPE, SIG_IGN, NULL), "OPL_SigSignal");
}

static void Close(struct Server* server) {
  for (size_t i = 0; i < server->count; ++i) Drop(server->clients[i]);
  OPL_SocketDestroy(&server->listener);
  /* No signal may find its descriptor closed, or another's. */
  Require(OPL_SigSignal(0, SIGTERM, SIG_IGN, NULL), "OPL_SigSignal");
  Require(OPL_SigSignal(0, SIGINT, SIG_IGN, NULL), "OPL_SigSignal");
  OPL_SocketDestroy(&server->stop[0]);
  OPL_SocketDestroy(&server->stop[1]);
  if (server->directory != kNoFile) close(server->directory);
}

/* A decimal number up to the most, or -1. */
static long NumberOf(const char* text, long most) {
  char* end = NULL;
  const long number = strtol(text, &end, 10);
  return end == text || *end != '\0' || number < 0 || number > most ? -1 : number;
}

int main(int argc, char** argv) {
  static struct Server server = {.directory = kNoFile};
  const long port = argc >= 2 ? NumberOf(argv[1], UINT16_MAX) : -1;
  server.patience = argc >= 4 ? NumberOf(argv[3], 3600) : 10;
  if (port == -1 || server.patience == -1 || argc > 4) {
    fprintf(stderr, "usage: http PORT [DIRECTORY [SECONDS]]\n");
    return 2;
  }
  if (argc >= 3) {
    server.directory = open(argv[2], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (server.directory == kNoFile) {
      perror(argv[2]);
      return EXIT_FAILURE;
    }
  }
  Require(OPL_InitBegin(0), "OPL_InitBegin");
  StopOnSignals(&server);
  Listen(&server, (uint16_t)port);
  Serve(&server);
  Close(&server);
  Require(OPL_InitEnd(0), "OPL_InitEnd");
  return EXIT_SUCCESS;
}
