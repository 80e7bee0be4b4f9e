#include "tests/support/Faults.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <glob.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/times.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct Entry {
  const char* name;
  std::atomic<bool> armed{false};
  std::atomic<int> calls{0};
  int nth = 0;
  int error = 0;
  bool forGood = false;
  bool kill = false;
  const std::function<void()>* action = nullptr;
  std::atomic<void*> standIn{nullptr};
  std::atomic<void*> real{nullptr};

  explicit Entry(const char* functionName);

  // 0 lets the call through, else the error number it fails with.
  int Hit() {
    if (!armed.load(std::memory_order_acquire)) return 0;
    const int call = ++calls;
    if (call != nth && !(forGood && call > nth)) return 0;
    if (kill) (void)::kill(::getpid(), SIGKILL);
    if (action != nullptr && call == nth) (*action)();
    return error;
  }

  // The system's function. No static variable with a guard remembers it, and its name is not the entry's:
  // both may be missing when the loader's first calls come.
  template <typename Function>
  Function* Real(const char* functionName) {
    void* found = real.load(std::memory_order_acquire);
    if (found == nullptr) {
      found = ::dlsym(RTLD_NEXT, functionName);
      real.store(found, std::memory_order_release);
    }
    return reinterpret_cast<Function*>(found);
  }

  // The function that makes the call: the test's own where there is one, else the system's.
  template <typename Function>
  Function* Chosen(Function* systems) const {
    void* const own = standIn.load(std::memory_order_acquire);
    return own != nullptr ? reinterpret_cast<Function*>(own) : systems;
  }
};

// Filled while the program is loaded, only read after.
constexpr int kMost = 128;
Entry* gEntries[kMost];
int gCount = 0;

Entry::Entry(const char* functionName) : name(functionName) { gEntries[gCount++] = this; }

Entry* Find(const char* name) {
  for (int i = 0; i < gCount; ++i)
    if (std::strcmp(gEntries[i]->name, name) == 0) return gEntries[i];
  std::fprintf(stderr, "Faults.cpp does not interpose %s\n", name);
  std::abort();
}

}  // namespace

namespace opltest {

Fault::Fault(const char* function, int nth, int error, Duration duration) : function_(function) {
  Entry* const entry = Find(function);
  entry->calls = 0;
  entry->nth = nth;
  entry->error = error;
  entry->forGood = duration == kForGood;
  entry->kill = false;
  entry->action = nullptr;
  entry->armed.store(true, std::memory_order_release);
}

Fault::Fault(const char* function, int nth, Kill) : Fault(function, nth, 0) { Find(function)->kill = true; }

Fault::Fault(const char* function, int nth, std::function<void()> action) : Fault(function, nth, 0) {
  action_ = std::move(action);
  Find(function)->action = &action_;
}

Fault::~Fault() { Find(function_.c_str())->armed = false; }

bool Fault::Fired() const {
  const Entry* const entry = Find(function_.c_str());
  return entry->calls >= entry->nth;
}

int Fault::Calls() const { return Find(function_.c_str())->calls; }

void Replacement::Put(const char* function, void* standIn) {
  Find(function)->standIn.store(standIn, std::memory_order_release);
}

}  // namespace opltest

// A function that fails with a result of its own and the number in errno.
#define OPLTEST_FAULT(Result, failed, name, parameters, arguments)     \
  static Entry gEntryOf_##name(#name);                                 \
  extern "C" Result name parameters {                                  \
    if (const int error = gEntryOf_##name.Hit()) {                     \
      errno = error;                                                   \
      return failed;                                                   \
    }                                                                  \
    auto* const real = gEntryOf_##name.Real<Result parameters>(#name); \
    return gEntryOf_##name.Chosen(real) arguments;                     \
  }

// A function that returns its error number and leaves errno alone.
#define OPLTEST_FAULT_NUMBER(name, parameters, arguments)           \
  static Entry gEntryOf_##name(#name);                              \
  extern "C" int name parameters {                                  \
    if (const int error = gEntryOf_##name.Hit()) {                  \
      errno = opltest::Fault::kDecoy;                               \
      return error;                                                 \
    }                                                               \
    auto* const real = gEntryOf_##name.Real<int parameters>(#name); \
    return gEntryOf_##name.Chosen(real) arguments;                  \
  }

OPLTEST_FAULT_NUMBER(pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes),
                     (mutex, attributes))
OPLTEST_FAULT_NUMBER(pthread_mutex_destroy, (pthread_mutex_t * mutex), (mutex))
OPLTEST_FAULT_NUMBER(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
OPLTEST_FAULT_NUMBER(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))
OPLTEST_FAULT_NUMBER(pthread_key_create, (pthread_key_t * key, void (*destructor)(void*)), (key, destructor))
OPLTEST_FAULT_NUMBER(pthread_key_delete, (pthread_key_t key), (key))
OPLTEST_FAULT_NUMBER(pthread_setspecific, (pthread_key_t key, const void* value), (key, value))
OPLTEST_FAULT_NUMBER(pthread_attr_init, (pthread_attr_t * attributes), (attributes))
OPLTEST_FAULT_NUMBER(pthread_attr_destroy, (pthread_attr_t * attributes), (attributes))
OPLTEST_FAULT_NUMBER(pthread_attr_setdetachstate, (pthread_attr_t * attributes, int state),
                     (attributes, state))
OPLTEST_FAULT_NUMBER(pthread_attr_getscope, (const pthread_attr_t* attributes, int* scope),
                     (attributes, scope))
OPLTEST_FAULT_NUMBER(pthread_attr_getstacksize, (const pthread_attr_t* attributes, size_t* size),
                     (attributes, size))
OPLTEST_FAULT_NUMBER(pthread_create,
                     (pthread_t * thread, const pthread_attr_t* attributes, void* (*start)(void*),
                      void* argument),
                     (thread, attributes, start, argument))
OPLTEST_FAULT_NUMBER(getpwuid_r,
                     (uid_t user, struct passwd* entry, char* buffer, size_t size, struct passwd** found),
                     (user, entry, buffer, size, found))

OPLTEST_FAULT(void*, nullptr, dlopen, (const char* name, int flags), (name, flags))
OPLTEST_FAULT(char*, nullptr, strerror_r, (int number, char* work, size_t size), (number, work, size))
OPLTEST_FAULT(pid_t, -1, getpid, (), ())
OPLTEST_FAULT(pid_t, -1, getppid, (), ())
OPLTEST_FAULT(uid_t, static_cast<uid_t>(-1), geteuid, (), ())
OPLTEST_FAULT(clock_t, static_cast<clock_t>(-1), times, (struct tms * ticks), (ticks))
OPLTEST_FAULT(int, -1, clock_gettime, (clockid_t clock, struct timespec* time), (clock, time))
OPLTEST_FAULT(int, -1, gettimeofday, (struct timeval * time, void* zone), (time, zone))
OPLTEST_FAULT(int, -1, sched_yield, (), ())
OPLTEST_FAULT(int, -1, system, (const char* command), (command))
OPLTEST_FAULT(key_t, -1, ftok, (const char* path, int project), (path, project))
OPLTEST_FAULT(int, -1, truncate64, (const char* path, off64_t length), (path, length))
OPLTEST_FAULT(int, -1, stat64, (const char* path, struct stat64* status), (path, status))
OPLTEST_FAULT(int, -1, fstat64, (int fd, struct stat64* status), (fd, status))
OPLTEST_FAULT(int, -1, select,
              (int count, fd_set* readable, fd_set* writable, fd_set* exceptions, struct timeval* timeout),
              (count, readable, writable, exceptions, timeout))
OPLTEST_FAULT(ssize_t, -1, writev, (int fd, const struct iovec* pieces, int count), (fd, pieces, count))

OPLTEST_FAULT(int, -1, semget, (key_t key, int count, int flags), (key, count, flags))
OPLTEST_FAULT(int, -1, semop, (int id, struct sembuf* operations, size_t count), (id, operations, count))
OPLTEST_FAULT(int, -1, semtimedop,
              (int id, struct sembuf* operations, size_t count, const struct timespec* timeout),
              (id, operations, count, timeout))
OPLTEST_FAULT(int, -1, shmget, (key_t key, size_t size, int flags), (key, size, flags))
OPLTEST_FAULT(void*, reinterpret_cast<void*>(-1), shmat, (int id, const void* address, int flags),
              (id, address, flags))
OPLTEST_FAULT(int, -1, shmdt, (const void* address), (address))
OPLTEST_FAULT(int, -1, shmctl, (int id, int command, struct shmid_ds* status), (id, command, status))

OPLTEST_FAULT(ssize_t, -1, read, (int fd, void* data, size_t size), (fd, data, size))
OPLTEST_FAULT(ssize_t, -1, write, (int fd, const void* data, size_t size), (fd, data, size))
OPLTEST_FAULT(int, -1, fchmod, (int fd, mode_t mode), (fd, mode))
OPLTEST_FAULT(int, -1, flock, (int fd, int operation), (fd, operation))
OPLTEST_FAULT(int, -1, futimens, (int fd, const struct timespec* times), (fd, times))
OPLTEST_FAULT(int, -1, lstat64, (const char* path, struct stat64* status), (path, status))
OPLTEST_FAULT(int, -1, link, (const char* from, const char* to), (from, to))
OPLTEST_FAULT(int, -1, unlink, (const char* path), (path))
OPLTEST_FAULT(int, -1, mkdir, (const char* path, mode_t mode), (path, mode))
OPLTEST_FAULT(int, -1, rmdir, (const char* path), (path))
OPLTEST_FAULT(char*, nullptr, realpath, (const char* path, char* resolved), (path, resolved))
OPLTEST_FAULT(char*, nullptr, tempnam, (const char* directory, const char* prefix), (directory, prefix))
OPLTEST_FAULT(int, GLOB_ABORTED, glob64,
              (const char* pattern, int flags, int (*report)(const char*, int), glob64_t* matches),
              (pattern, flags, report, matches))

OPLTEST_FAULT(int, -1, poll, (struct pollfd * entries, nfds_t count, int timeout), (entries, count, timeout))
OPLTEST_FAULT(int, -1, mkfifo, (const char* path, mode_t mode), (path, mode))
OPLTEST_FAULT(int, -1, rename, (const char* from, const char* to), (from, to))
OPLTEST_FAULT(int, -1, access, (const char* path, int mode), (path, mode))
OPLTEST_FAULT(off64_t, -1, lseek64, (int fd, off64_t offset, int whence), (fd, offset, whence))

OPLTEST_FAULT(int, -1, socket, (int family, int type, int protocol), (family, type, protocol))
OPLTEST_FAULT(int, -1, socketpair, (int family, int type, int protocol, int fds[2]),
              (family, type, protocol, fds))
OPLTEST_FAULT(int, -1, accept, (int fd, struct sockaddr* address, socklen_t* length), (fd, address, length))
OPLTEST_FAULT(int, -1, bind, (int fd, const struct sockaddr* address, socklen_t length),
              (fd, address, length))
OPLTEST_FAULT(int, -1, connect, (int fd, const struct sockaddr* address, socklen_t length),
              (fd, address, length))
OPLTEST_FAULT(int, -1, listen, (int fd, int backlog), (fd, backlog))
OPLTEST_FAULT(ssize_t, -1, recv, (int fd, void* data, size_t size, int flags), (fd, data, size, flags))
OPLTEST_FAULT(ssize_t, -1, send, (int fd, const void* data, size_t size, int flags), (fd, data, size, flags))
OPLTEST_FAULT(ssize_t, -1, recvmsg, (int fd, struct msghdr* message, int flags), (fd, message, flags))
OPLTEST_FAULT(ssize_t, -1, sendmsg, (int fd, const struct msghdr* message, int flags), (fd, message, flags))
OPLTEST_FAULT(int, -1, setsockopt, (int fd, int level, int option, const void* value, socklen_t length),
              (fd, level, option, value, length))
OPLTEST_FAULT(int, -1, getsockname, (int fd, struct sockaddr* address, socklen_t* length),
              (fd, address, length))
OPLTEST_FAULT(int, -1, getpeername, (int fd, struct sockaddr* address, socklen_t* length),
              (fd, address, length))
OPLTEST_FAULT(int, -1, shutdown, (int fd, int how), (fd, how))
OPLTEST_FAULT(int, -1, dup, (int fd), (fd))
OPLTEST_FAULT(char*, nullptr, inet_ntoa, (struct in_addr address), (address))
OPLTEST_FAULT_NUMBER(gethostbyname_r,
                     (const char* name, struct hostent* entry, char* buffer, size_t size,
                      struct hostent** found, int* status),
                     (name, entry, buffer, size, found, status))
OPLTEST_FAULT_NUMBER(gethostbyaddr_r,
                     (const void* address, socklen_t length, int family, struct hostent* entry, char* buffer,
                      size_t size, struct hostent** found, int* status),
                     (address, length, family, entry, buffer, size, found, status))
OPLTEST_FAULT_NUMBER(getprotobyname_r,
                     (const char* name, struct protoent* entry, char* buffer, size_t size,
                      struct protoent** found),
                     (name, entry, buffer, size, found))
OPLTEST_FAULT_NUMBER(getservbyname_r,
                     (const char* name, const char* protocol, struct servent* entry, char* buffer,
                      size_t size, struct servent** found),
                     (name, protocol, entry, buffer, size, found))

OPLTEST_FAULT(pid_t, -1, fork, (), ())
OPLTEST_FAULT(pid_t, -1, waitpid, (pid_t pid, int* status, int options), (pid, status, options))
OPLTEST_FAULT(int, -1, kill, (pid_t pid, int signal), (pid, signal))
OPLTEST_FAULT(sighandler_t, SIG_ERR, signal, (int signal, sighandler_t handler), (signal, handler))
OPLTEST_FAULT(int, -1, sigaction, (int signal, const struct sigaction* action, struct sigaction* old),
              (signal, action, old))
OPLTEST_FAULT(int, -1, sigemptyset, (sigset_t * set), (set))
OPLTEST_FAULT(int, -1, sigfillset, (sigset_t * set), (set))
OPLTEST_FAULT(int, -1, raise, (int signal), (signal))
OPLTEST_FAULT_NUMBER(sigwait, (const sigset_t* set, int* signal), (set, signal))
OPLTEST_FAULT_NUMBER(pthread_sigmask, (int how, const sigset_t* set, sigset_t* old), (how, set, old))
// What pthread_atfork is made of.
OPLTEST_FAULT_NUMBER(__register_atfork, (void (*prepare)(), void (*parent)(), void (*child)(), void* object),
                     (prepare, parent, child, object))

OPLTEST_FAULT(FILE*, nullptr, popen, (const char* command, const char* mode), (command, mode))
OPLTEST_FAULT(char*, nullptr, fgets, (char* line, int size, FILE* stream), (line, size, stream))
OPLTEST_FAULT(int, EOF, getc, (FILE * stream), (stream))
OPLTEST_FAULT(ssize_t, -1, pread64, (int fd, void* data, size_t size, off64_t offset),
              (fd, data, size, offset))
OPLTEST_FAULT(int, -1, pipe2, (int* ends, int flags), (ends, flags))
OPLTEST_FAULT(pid_t, -1, setpgrp, (), ())
OPLTEST_FAULT(char*, nullptr, ctermid, (char* name), (name))
OPLTEST_FAULT(int, -1, tcgetattr, (int fd, struct termios* settings), (fd, settings))
OPLTEST_FAULT(int, -1, ppoll,
              (struct pollfd * entries, nfds_t count, const struct timespec* timeout, const sigset_t* mask),
              (entries, count, timeout, mask))

// Its arguments go on as a list.
static Entry gEntryOf_execl("execl");
extern "C" int execl(const char* path, const char* first, ...) {
  if (const int error = gEntryOf_execl.Hit()) {
    errno = error;
    return -1;
  }
  constexpr int kMostArguments = 16;
  char* arguments[kMostArguments] = {const_cast<char*>(first)};
  va_list rest;
  va_start(rest, first);
  for (int i = 0; arguments[i] != nullptr && i + 1 < kMostArguments; ++i)
    arguments[i + 1] = va_arg(rest, char*);
  va_end(rest);
  return ::execv(path, arguments);
}

// As on Linux, a close that fails has closed the descriptor all the same.
static Entry gEntryOf_close("close");
extern "C" int close(int fd) {
  const int error = gEntryOf_close.Hit();
  auto* const real = gEntryOf_close.Real<int(int)>("close");
  const int result = gEntryOf_close.Chosen(real)(fd);
  if (error == 0) return result;
  errno = error;
  return -1;
}

static Entry gEntryOf_semctl("semctl");
extern "C" int semctl(int id, int index, int command, ...) {
  if (const int error = gEntryOf_semctl.Hit()) {
    errno = error;
    return -1;
  }
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);  // a union of the size of its pointers
  va_end(arguments);
  auto* const real = gEntryOf_semctl.Real<int(int, int, int, ...)>("semctl");
  return gEntryOf_semctl.Chosen(real)(id, index, command, argument);
}

static Entry gEntryOf_fcntl64("fcntl64");
extern "C" int fcntl64(int fd, int command, ...) {
  if (const int error = gEntryOf_fcntl64.Hit()) {
    errno = error;
    return -1;
  }
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);  // or a number of no greater size
  va_end(arguments);
  auto* const real = gEntryOf_fcntl64.Real<int(int, int, ...)>("fcntl64");
  return gEntryOf_fcntl64.Chosen(real)(fd, command, argument);
}

static Entry gEntryOf_open64("open64");
extern "C" int open64(const char* path, int flags, ...) {
  if (const int error = gEntryOf_open64.Hit()) {
    errno = error;
    return -1;
  }
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = va_arg(arguments, mode_t);
  va_end(arguments);
  auto* const real = gEntryOf_open64.Real<int(const char*, int, ...)>("open64");
  return gEntryOf_open64.Chosen(real)(path, flags, mode);
}
