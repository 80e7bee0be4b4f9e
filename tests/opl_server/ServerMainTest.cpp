// A daemon's own frame: its signals, its way from the terminal, and what it says of its state.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <new>
#include <string>
#include <thread>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Process.h"
#include "OPL_Server.h"
#include "OPL_Sync.h"
#include "tests/opl_server/Servers.h"
#include "tests/support/Child.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/SemaphoreSets.h"

namespace {

using opltest::Child;
using opltest::ContentsOf;
using opltest::ControllerFile;
using opltest::ExpectError;
using opltest::Failure;
using opltest::Fault;
using opltest::LastFailure;
using opltest::NewServer;
using opltest::PidBytes;
using opltest::Replacement;
using opltest::SemaphoreSets;
using opltest::ServerHandle;
using opltest::Steps;
using opltest::WriteFile;

uint32_t Return77(void*, void*, void*) { return 77; }

OPL_Server* gServer = nullptr;
int gCalls = 0;
void* gArgument = nullptr;
void Count(void* argument) {
  ++gCalls;
  gArgument = argument;
}

class ServerMain : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    server_ = NewServer({.scripts = "/none", .mode = OPL_SERVER_FOREGROUND});
    gServer = server_.get();
  }
  void TearDown() override {
    (void)::unlink(ControllerFile().c_str());
    server_.reset();
    Instance::TearDown();
  }
  OPL_Result Run(OPL_ServerMainFunction main, OPL_ServerSignalCallback callback = nullptr,
                 uint32_t* result = nullptr) {
    static int a, b, c;
    a_ = &a;
    b_ = &b;
    c_ = &c;
    return OPL_ServerMain(server_.get(), 0, main, callback, &a, &b, &c, result);
  }

  ServerHandle server_;
  static inline void* a_ = nullptr;
  static inline void* b_ = nullptr;
  static inline void* c_ = nullptr;
};

// In the foreground, where nothing but the handlers and the state is set up.

TEST_F(ServerMain, CallsTheMainFunctionWithItsThreeArguments) {
  uint32_t result = 0;
  EXPECT_EQ(OPL_OK,
            Run([](void* a, void* b, void* c) -> uint32_t { return a == a_ && b == b_ && c == c_ ? 77 : 78; },
                nullptr, &result));
  EXPECT_EQ(77u, result);
}

TEST_F(ServerMain, MayHaveNoPlaceForTheResult) { EXPECT_EQ(OPL_OK, Run(Return77)); }

TEST_F(ServerMain, StaysTheSameProcessInTheForeground) {
  const pid_t pid = ::getpid();
  const pid_t group = ::getpgrp();
  const mode_t mask = ::umask(022);
  (void)::umask(mask);
  const Fault fault("fork", 1, EIO, Fault::kForGood);
  EXPECT_EQ(OPL_OK, Run(Return77));
  EXPECT_FALSE(fault.Fired());
  EXPECT_EQ(pid, ::getpid());
  EXPECT_EQ(group, ::getpgrp());
  EXPECT_EQ(mask, ::umask(mask));
  EXPECT_NE(-1, ::fcntl(0, F_GETFD));
}

TEST_F(ServerMain, RunsOnceAtATime) {
  uint32_t result = 0;
  EXPECT_EQ(OPL_OK, Run(
                        [](void*, void*, void*) -> uint32_t {
                          const uint32_t rc = OPL_ServerMain(gServer, 0, Return77, nullptr, nullptr, nullptr,
                                                             nullptr, nullptr);
                          ExpectError(0x050B11, "OPL_ServerMain: already in OPL_ServerMain.");
                          // The refusal leaves the run as it was.
                          EXPECT_EQ(OPL_OK, OPL_ServerSetStarted());
                          return rc;
                        },
                        nullptr, &result));
  EXPECT_EQ(0x050B11u, result);
}

TEST_F(ServerMain, RunsAgainAfterwards) {
  EXPECT_EQ(OPL_OK, Run(Return77));
  EXPECT_EQ(OPL_OK, Run(Return77));
}

TEST_F(ServerMain, RefusesNullForTheMainFunction) {
  EXPECT_EQ(0x050B26u, Run(nullptr));
  ExpectError(0x050B26, "OPL_ServerMain: pMain is NULL.");
  EXPECT_EQ(OPL_OK, Run(Return77));
}

TEST_F(ServerMain, RecordsBothSignalsAndCallsTheCallback) {
  EXPECT_EQ(OPL_OK, Run(
                        [](void*, void*, void*) -> uint32_t {
                          for (const int signal : {SIGUSR1, SIGTERM}) {
                            errno = 4711;
                            EXPECT_EQ(0, ::raise(signal));
                            EXPECT_EQ(4711, errno);
                            EXPECT_EQ(
                                Failure(static_cast<uint32_t>(signal),
                                        "SignalHandler: Received signal: " + std::to_string(signal) + "."),
                                LastFailure());
                          }
                          return 0;
                        },
                        Count));
  EXPECT_EQ(2, gCalls);
  EXPECT_EQ(c_, gArgument);
}

TEST_F(ServerMain, MayHaveNoCallback) {
  EXPECT_EQ(OPL_OK, Run([](void*, void*, void*) -> uint32_t {
              EXPECT_EQ(0, ::raise(SIGTERM));
              EXPECT_EQ(Failure(SIGTERM, "SignalHandler: Received signal: 15."), LastFailure());
              return 0;
            }));
}

TEST_F(ServerMain, CallsNothingAfterItsEnd) {
  EXPECT_EQ(OPL_OK, Run(Return77, Count));
  EXPECT_EQ(0, ::raise(SIGTERM));
  EXPECT_EQ(0, gCalls);
}

// A thread that the signal interrupts in the midst of the allocator must not enter it again.
TEST_F(ServerMain, AllocatesNothingInTheHandler) {
  EXPECT_EQ(OPL_OK, Run(
                        [](void*, void*, void*) -> uint32_t {
                          std::thread([] {
                            const Fault fault("pthread_setspecific", 1, ENOMEM, Fault::kForGood);
                            EXPECT_EQ(0, ::pthread_kill(::pthread_self(), SIGUSR1));
                            EXPECT_FALSE(fault.Fired());
                          }).join();
                          return 0;
                        },
                        Count));
  EXPECT_EQ(1, gCalls);
}

TEST_F(ServerMain, PassesOnThatASignalCannotBeHandled) {
  uint32_t result = 4711;
  const Fault fault("signal", 2, EINVAL);
  EXPECT_EQ(0x050407u, Run(Return77, nullptr, &result));
  ExpectError(EINVAL, "OPL_SigSignal: signal error : 22,Invalid argument");
  EXPECT_EQ(4711u, result);
  EXPECT_EQ(OPL_OK, Run(Return77, nullptr, &result));
  EXPECT_EQ(77u, result);
}

// What the daemon says of its state.

class ServerState : public ServerMain {
 protected:
  static inline void (*body_)() = nullptr;
  void InMain(void (*body)()) {
    body_ = body;
    EXPECT_EQ(OPL_OK, Run([](void*, void*, void*) -> uint32_t {
                body_();
                return 0;
              }));
  }
  static void ExpectFailure(uint32_t code, uint32_t recorded, const std::string& text) {
    EXPECT_EQ(code, OPL_ServerSetStarted());
    ExpectError(recorded, ("OPL_ServerSetStarted: " + text + "\nFile " + ControllerFile()).c_str());
  }
};

TEST_F(ServerState, IsWrittenIntoTheControllerFile) {
  InMain([] {
    EXPECT_EQ(OPL_OK, OPL_ServerSetStarted());
    struct stat status {};
    EXPECT_EQ(0, ::stat(ControllerFile().c_str(), &status));
    EXPECT_EQ(PidBytes(static_cast<uint32_t>(::getpid())), ContentsOf(ControllerFile()));
    EXPECT_EQ(0600u, status.st_mode & 07777);
    tm local{};
    (void)::localtime_r(&status.st_atime, &local);
    EXPECT_EQ(136, local.tm_year);
    uint32_t pid = 0;
    EXPECT_EQ(OPL_OK, OPL_ServerControllerPidGet(gServer, &pid));
    EXPECT_EQ(static_cast<uint32_t>(::getpid()), pid);
    EXPECT_EQ(OPL_OK, OPL_ServerSetStop());
    EXPECT_NE(0, ::access(ControllerFile().c_str(), F_OK));
  });
}

TEST_F(ServerState, IsWrittenOverWhatIsThere) {
  WriteFile(ControllerFile(), "abcdefgh");
  InMain([] {
    EXPECT_EQ(OPL_OK, OPL_ServerSetStarted());
    EXPECT_EQ(PidBytes(static_cast<uint32_t>(::getpid())) + "efgh", ContentsOf(ControllerFile()));
  });
}

TEST_F(ServerState, MayBeTakenBackWithoutHavingBeenSaid) {
  InMain([] {
    EXPECT_EQ(OPL_OK, OPL_ServerSetStop());
    EXPECT_EQ(OPL_OK, OPL_ServerSetStop());
  });
}

TEST_F(ServerState, IsForTheMainFunctionOnly) {
  EXPECT_EQ(0x050B26u, OPL_ServerSetStarted());
  ExpectError(0x050B26, "OPL_ServerSetStarted: not in OPL_ServerMain.");
  EXPECT_EQ(0x050B26u, OPL_ServerSetStop());
  ExpectError(0x050B26, "OPL_ServerSetStop: not in OPL_ServerMain.");
  InMain([] {});
  EXPECT_EQ(0x050B26u, OPL_ServerSetStarted());
}

TEST_F(ServerState, IsWrittenThroughNoLinkAndIntoNoFifo) {
  WriteFile("victim", "precious");
  ASSERT_EQ(0, ::symlink((opltest::WorkDirectory() + "/victim").c_str(), ControllerFile().c_str()));
  InMain([] { ExpectFailure(0x050B0B, ELOOP, "open error :40,Too many levels of symbolic links"); });
  EXPECT_EQ("precious", ContentsOf("victim"));
  ASSERT_EQ(0, ::unlink(ControllerFile().c_str()));
  ASSERT_EQ(0, ::link("victim", ControllerFile().c_str()));
  InMain([] { ExpectFailure(0x050B0B, EINVAL, "open error :22,Invalid argument"); });
  EXPECT_EQ("precious", ContentsOf("victim"));
  ASSERT_EQ(0, ::unlink(ControllerFile().c_str()));
  ASSERT_EQ(0, ::mkfifo(ControllerFile().c_str(), 0600));
  InMain([] { ExpectFailure(0x050B0B, ENXIO, "open error :6,No such device or address"); });
  const int reader = ::open(ControllerFile().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_NE(-1, reader);
  InMain([] { ExpectFailure(0x050B0B, EINVAL, "open error :22,Invalid argument"); });
  (void)::close(reader);
}

TEST_F(ServerState, TellsWhatTheSystemRefuses) {
  InMain([] {
    {
      const Fault fault("open64", 1, EACCES);
      ExpectFailure(0x050B0B, EACCES, "open error :13,Permission denied");
    }
    {
      const Fault fault("write", 1, ENOSPC);
      ExpectFailure(0x050B14, ENOSPC, "write error :28,No space left on device");
    }
    {
      const Replacement half(
          "write", +[](int, const void*, size_t) -> ssize_t { return 2; });
      ExpectFailure(0x050B14, 0x050B14, "write error: invalid size written (wanted 4, written 2)");
    }
    const Fault fault("write", 1, EINTR);
    EXPECT_EQ(OPL_OK, OPL_ServerSetStarted());
    EXPECT_TRUE(fault.Fired());
  });
}

// Detached. The body runs in a forked process, of which the test sees the last that is left.

class ServerDetached : public opltest::Instance {
 protected:
  struct Run {
    OPL_Result code = 0;
    bool mainRan = false;
  };
  // Begins the library, for a process whose parent has begun it too, and runs OPL_ServerMain.
  static Run Detach(uint32_t closeStd, OPL_ServerMainFunction main) {
    static bool mainRan;
    mainRan = false;
    static OPL_ServerMainFunction body;
    body = main;
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    Run run;
    {
      const ServerHandle server = NewServer({.scripts = "/none"});
      run.code = OPL_ServerMain(
          server.get(), closeStd,
          [](void*, void*, void*) -> uint32_t {
            mainRan = true;
            return body(nullptr, nullptr, nullptr);
          },
          nullptr, nullptr, nullptr, nullptr, nullptr);
    }
    run.mainRan = mainRan;
    return run;
  }
};

std::string HandlerOf(int signal) {
  struct sigaction action {};
  EXPECT_EQ(0, ::sigaction(signal, nullptr, &action));
  return action.sa_handler == SIG_IGN ? "ignored" : action.sa_handler == SIG_DFL ? "default" : "handled";
}

Steps* gSteps = nullptr;

TEST_F(ServerDetached, GoesOnInAGrandchildOfTheProcess) {
  Child child([](Steps& steps) {
    gSteps = &steps;
    steps.Send(std::to_string(::getpid()) + " " + std::to_string(::getpgrp()));
    const Run run = Detach(0, [](void*, void*, void*) -> uint32_t {
      gSteps->Send(std::to_string(::getpid()) + " " + std::to_string(::getpgrp()));
      gSteps->WaitForGo();
      uint32_t id = 0;
      EXPECT_EQ(OPL_OK, OPL_ProcessIdGet(&id));
      EXPECT_EQ(static_cast<uint32_t>(::getpid()), id);
      EXPECT_EQ(OPL_OK, OPL_InitIsStopped(0));
      for (const int signal : {SIGTTOU, SIGTTIN, SIGTSTP, SIGHUP}) EXPECT_EQ("ignored", HandlerOf(signal));
      for (const int signal : {SIGUSR1, SIGTERM}) EXPECT_EQ("handled", HandlerOf(signal));
      for (const int signal : {SIGINT, SIGQUIT, SIGCHLD}) EXPECT_EQ("default", HandlerOf(signal));
      EXPECT_EQ(077u, ::umask(077));
      return 0;
    });
    EXPECT_EQ(OPL_OK, run.code);
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    steps.Send(::testing::Test::HasFailure() ? "failed" : "passed");
  });
  int pid = 0;
  int group = 0;
  int daemonPid = 0;
  int daemonGroup = 0;
  ASSERT_EQ(2, std::sscanf(child.Receive().c_str(), "%d %d", &pid, &group));
  ASSERT_EQ(2, std::sscanf(child.Receive().c_str(), "%d %d", &daemonPid, &daemonGroup));
  EXPECT_EQ(child.pid(), pid);
  EXPECT_NE(pid, daemonPid);
  EXPECT_NE(group, daemonGroup);
  EXPECT_NE(daemonPid, daemonGroup);
  child.Go();
  EXPECT_EQ("passed", child.Receive());
  child.ExpectSuccess();
}

TEST_F(ServerDetached, ClosesTheStandardFilesOnlyWhenAskedWith1) {
  for (const uint32_t closeStd : {0u, 1u, 2u}) {
    Child child([closeStd](Steps& steps) {
      gSteps = &steps;
      (void)Detach(closeStd, [](void*, void*, void*) -> uint32_t {
        std::string open;
        for (const int fd : {0, 1, 2})
          if (::fcntl(fd, F_GETFD) != -1) open += std::to_string(fd);
        gSteps->Send(open);
        return 0;
      });
      EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
      steps.Send("done");
    });
    EXPECT_EQ(closeStd == 1 ? "" : "012", child.Receive());
    EXPECT_EQ("done", child.Receive());
    child.ExpectSuccess();
  }
}

struct Refusal {
  const char* function;
  int nth;
  int error;
  uint32_t code;
  const char* message;
};

constexpr Refusal kRefusals[] = {
    {"signal", 3, EINVAL, 0x050407, "OPL_SigSignal: signal error : 22,Invalid argument"},
    {"socketpair", 1, EMFILE, 0x050B17, "BecomeDaemon: socketpair error : 24,Too many open files."},
    {"fork", 1, EAGAIN, 0x050B17, "BecomeDaemon: fork error : 11,Resource temporarily unavailable."},
    {"setpgrp", 1, EPERM, 0x050B18, "BecomeDaemon: setpgrp error : 1,Operation not permitted."},
    {"signal", 6, EINVAL, 0x050407, "OPL_SigSignal: signal error : 22,Invalid argument"},
    {"socketpair", 2, EMFILE, 0x050B17, "BecomeDaemon: socketpair error : 24,Too many open files."},
    {"fork", 2, ENOMEM, 0x050B17, "BecomeDaemon: fork error : 12,Cannot allocate memory."},
};

TEST_F(ServerDetached, TellsWhatTheSystemRefusesAndClosesTheStandardFilesAllTheSame) {
  for (const Refusal& refusal : kRefusals) {
    SCOPED_TRACE(std::string(refusal.function) + " " + std::to_string(refusal.nth));
    Child child([&refusal](Steps& steps) {
      const Fault fault(refusal.function, refusal.nth, refusal.error);
      const mode_t mask = ::umask(031);
      const Run run = Detach(1, Return77);
      const std::string message = OPL_ErrMessageGet(0);
      const bool holds = run.code == refusal.code && !run.mainRan && ::umask(mask) == 031 &&
                         ::fcntl(1, F_GETFD) == -1 &&
                         OPL_ErrCodeGet(0) == static_cast<uint32_t>(refusal.error);
      (void)OPL_InitEnd(0);
      steps.Send(holds ? message : "wrong: " + std::to_string(run.code) + " " + message);
    });
    EXPECT_EQ(refusal.message, child.Receive());
    child.ExpectSuccess();
  }
}

// While a daemon leaves its parents behind, one of them counts as a user of the instance at any time.

Steps* gForkSteps = nullptr;
pid_t ForkAndHoldTheChild() {
  const auto real = reinterpret_cast<pid_t (*)()>(::dlsym(RTLD_NEXT, "fork"));
  const pid_t pid = real();
  if (pid == 0) {
    gForkSteps->Reach();
    gForkSteps->WaitForGo();
  }
  return pid;
}

uint32_t SayThatItRuns(void*, void*, void*) {
  gForkSteps->Reach();
  gForkSteps->WaitForGo();
  return 0;
}

void BeginAndEndInAnotherProcess() {
  Child([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  }).ExpectSuccess();
}

TEST(ServerDetachedAlone, KeepsTheInstanceWhileItForks) {
  Child child([](Steps& steps) {
    gForkSteps = &steps;
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    {
      const Replacement fork("fork", ForkAndHoldTheChild);
      const ServerHandle server = NewServer({.scripts = "/none"});
      EXPECT_EQ(OPL_OK,
                OPL_ServerMain(server.get(), 0, SayThatItRuns, nullptr, nullptr, nullptr, nullptr, nullptr));
    }
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    steps.Send(::testing::Test::HasFailure() ? "failed" : "passed");
  });
  child.Await();
  const std::vector<int> sets = SemaphoreSets();
  ASSERT_EQ(1u, sets.size());
  BeginAndEndInAnotherProcess();
  EXPECT_EQ(sets, SemaphoreSets());
  child.Go();
  child.Await();
  BeginAndEndInAnotherProcess();
  EXPECT_EQ(sets, SemaphoreSets());
  child.Go();
  child.Await();
  BeginAndEndInAnotherProcess();
  EXPECT_EQ(sets, SemaphoreSets());
  child.Go();
  EXPECT_EQ("passed", child.Receive());
  EXPECT_TRUE(SemaphoreSets().empty());
  child.ExpectSuccess();
}

// What a parent has of the instance it gives back at its end: were that after the daemon's own, nobody would
// remove what is left. Each parent lingers here once its child has taken over, then counts itself.

std::atomic<int>* gEndingParents = nullptr;  // shared by the processes
int gEndedBeforeTheSecondFork = -1;

pid_t ForkAndCountTheParents() {
  const auto real = reinterpret_cast<pid_t (*)()>(::dlsym(RTLD_NEXT, "fork"));
  gEndedBeforeTheSecondFork = *gEndingParents;
  return real();
}

ssize_t ReadAndLinger(int fd, void* data, size_t size) {
  const auto real = reinterpret_cast<ssize_t (*)(int, void*, size_t)>(::dlsym(RTLD_NEXT, "read"));
  const ssize_t count = real(fd, data, size);
  if (size != 1) return count;
  (void)::poll(nullptr, 0, 200);
  ++*gEndingParents;
  return count;
}

// A child waits a second at most, which a busy machine may need.
int PollWithoutLimit(pollfd* entries, nfds_t count, int timeoutMs) {
  const auto real = reinterpret_cast<int (*)(pollfd*, nfds_t, int)>(::dlsym(RTLD_NEXT, "poll"));
  return real(entries, count, timeoutMs == 1000 ? -1 : timeoutMs);
}

TEST_F(ServerDetached, GoesOnWhenItsParentsHaveEnded) {
  void* const shared =
      ::mmap(nullptr, sizeof *gEndingParents, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, shared);
  gEndingParents = new (shared) std::atomic<int>(0);
  Child child([](Steps& steps) {
    const Replacement fork("fork", ForkAndCountTheParents);
    const Replacement read("read", ReadAndLinger);
    const Replacement poll("poll", PollWithoutLimit);
    static int ended;
    const Run run = Detach(0, [](void*, void*, void*) -> uint32_t {
      ended = *gEndingParents;
      return 0;
    });
    EXPECT_EQ(OPL_OK, run.code);
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    steps.Send(std::to_string(gEndedBeforeTheSecondFork) + " " + std::to_string(ended));
  });
  EXPECT_EQ("1 2", child.Receive());
  child.ExpectSuccess();
  EXPECT_EQ(0, ::munmap(shared, sizeof *gEndingParents));
}

TEST_F(ServerDetached, TakesTheUseOfMutexesAlong) {
  Child child([](Steps& steps) {
    gSteps = &steps;
    const Replacement poll("poll", PollWithoutLimit);
    static OPL_SyncMutex* mutex = nullptr;
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    EXPECT_EQ(OPL_OK, OPL_SyncMutexCreate(&mutex, 0, "door", OPL_SYNC_MUTEX_PRIVATE));
    const Run run = Detach(0, [](void*, void*, void*) -> uint32_t {
      gSteps->Reach();
      gSteps->WaitForGo();
      EXPECT_EQ(OPL_OK, OPL_SyncMutexAcquire(mutex));
      EXPECT_EQ(OPL_OK, OPL_SyncMutexRelease(mutex));
      return 0;
    });
    EXPECT_EQ(OPL_OK, run.code);
    EXPECT_EQ(OPL_OK, OPL_SyncMutexClose(&mutex));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
    steps.Send(::testing::Test::HasFailure() ? "failed" : "passed");
  });
  child.Await();
  const std::string file = opltest::IpcDirectory() + "/door.mutex." + opltest::InstanceString() + ".006.021";
  EXPECT_EQ(32000 - 1, opltest::ValueOf(opltest::SetNamedBy(file), 1));
  child.Go();
  EXPECT_EQ("passed", child.Receive());
  child.ExpectSuccess();
  EXPECT_NE(0, ::access(file.c_str(), F_OK));
}

TEST(ServerDetachedAlone, DoesNotKeepItsParentWhenItDies) {
  Child child([](Steps& steps) {
    gForkSteps = &steps;
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    const Replacement fork(
        "fork", +[]() -> pid_t {
          const auto real = reinterpret_cast<pid_t (*)()>(::dlsym(RTLD_NEXT, "fork"));
          const pid_t pid = real();
          if (pid == 0) (void)::raise(SIGKILL);
          return pid;
        });
    const ServerHandle server = NewServer({.scripts = "/none"});
    (void)OPL_ServerMain(server.get(), 0, SayThatItRuns, nullptr, nullptr, nullptr, nullptr, nullptr);
  });
  child.ExpectSuccess();
  // The next user of the instance is its last.
  BeginAndEndInAnotherProcess();
  EXPECT_TRUE(SemaphoreSets().empty());
}

}  // namespace
