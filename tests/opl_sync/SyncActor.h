// A process that does with mutexes and read-write locks what the test tells it, one command a line:
//
//   SyncActor actor(32);                                  // a program of that width
//   EXPECT_EQ(0u, actor.Do("begin"));
//   EXPECT_EQ(0u, actor.Do("mutex-open q 4"));            // name, flags
//   actor.Start("mutex-acquire q");                       // may wait
//   EXPECT_EQ(0u, actor.Finish());
//
// Objects go by their names. "fork" makes a child that obeys in the place of its maker until it gets "exit"
// or "quit", or dies; then the maker goes on. "exit" ends a process as exit does, "quit" as _exit does.
#ifndef OPL_TESTS_OPL_SYNC_SYNC_ACTOR_H
#define OPL_TESTS_OPL_SYNC_SYNC_ACTOR_H

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "tests/support/Instance.h"
#include "tests/support/Peer.h"

namespace opltest {

// What this process has open, for itself and for the children it forks.
inline std::map<std::string, OPL_SyncMutex*> gOpenMutexes;
inline std::map<std::string, OPL_SyncRWLock*> gOpenRWLocks;

inline uint32_t ActOnMutex(const std::string& verb, const std::string& name, uint32_t number) {
  OPL_SyncMutex*& mutex = gOpenMutexes[name];
  if (verb == "create") return OPL_SyncMutexCreate(&mutex, 0, name.c_str(), number);
  if (verb == "open") return OPL_SyncMutexOpen(&mutex, 0, name.c_str(), number);
  if (verb == "acquire") return OPL_SyncMutexAcquire(mutex);
  if (verb == "release") return OPL_SyncMutexRelease(mutex);
  if (verb == "close") return OPL_SyncMutexClose(&mutex);
  std::abort();
}

inline uint32_t ActOnRWLock(const std::string& verb, const std::string& name, uint32_t number) {
  OPL_SyncRWLock*& rwLock = gOpenRWLocks[name];
  if (verb == "create") return OPL_SyncRWLockCreate(&rwLock, 0, name.c_str(), number);
  if (verb == "open") return OPL_SyncRWLockOpen(&rwLock, 0, name.c_str(), number);
  if (verb == "lock") return OPL_SyncRWLockLock(rwLock, number);
  if (verb == "unlock") return OPL_SyncRWLockUnlock(rwLock);
  if (verb == "close") return OPL_SyncRWLockClose(&rwLock);
  std::abort();
}

inline uint32_t Act(const std::string& verb, const std::string& name, uint32_t number) {
  if (verb.starts_with("mutex-")) return ActOnMutex(verb.substr(6), name, number);
  if (verb.starts_with("rwlock-")) return ActOnRWLock(verb.substr(7), name, number);
  if (verb == "nothing") return 0;
  if (verb == "begin") return OPL_InitBegin(0);
  if (verb == "end") return OPL_InitEnd(0);
  if (verb == "end-forced") return OPL_InitEnd(1);
  if (verb == "adopt") return OPL_InitSetCurrentPid();
  if (verb == "terminate") return OPL_InitTerminateIPC(0, name.c_str());
  std::abort();
}

// How many makers wait for this process to end.
inline int gMakersWaiting = 0;

[[noreturn]] inline void End(Steps& steps, bool ordinarily) {
  // A maker that waits answers when this process is gone; the test itself sees it end.
  if (gMakersWaiting == 0) steps.Send("0");
  if (ordinarily) std::exit(0);
  ::_exit(0);
}

// Makes a child that goes on in this process's place, and returns in the child at once.
inline void Fork(Steps& steps) {
  const pid_t child = ::fork();
  if (child == 0) {
    ++gMakersWaiting;
  } else {
    (void)::waitpid(child, nullptr, 0);
  }
  steps.Send("0");
}

// Answers with the code, or with the error record's parts.
inline void Obey(Steps& steps) {
  for (;;) {
    std::istringstream command(steps.Receive());
    std::string verb;
    std::string name;
    uint32_t number = 0;
    command >> verb >> name >> number;
    if (verb == "quit" || verb == "exit")
      End(steps, verb == "exit");
    else if (verb == "fork")
      Fork(steps);
    else if (verb == "message")
      steps.Send(OPL_ErrMessageGet(0));
    else
      steps.Send(std::to_string(Act(verb, name, number)));
  }
}

inline const PeerBody kSyncActor("SyncActor", Obey);

class SyncActor {
 public:
  // A program of its own.
  explicit SyncActor(int width) : process_(std::make_unique<Peer>(kSyncActor, width)) {}
  // A forked child of the test, with what the test has in gOpenMutexes and gOpenRWLocks.
  SyncActor() : process_(std::make_unique<Child>(Obey)) {}

  void Start(const std::string& command) { process_->Send(command); }
  uint32_t Finish() { return static_cast<uint32_t>(std::strtoul(process_->Receive().c_str(), nullptr, 10)); }
  uint32_t Do(const std::string& command) {
    Start(command);
    return Finish();
  }
  std::string Message() {
    Start("message");
    return process_->Receive();
  }

  void Quit() {
    EXPECT_EQ(0u, Do("quit"));
    process_->ExpectSuccess();
  }
  void Exit() {
    EXPECT_EQ(0u, Do("exit"));
    process_->ExpectSuccess();
  }
  void Kill() {
    process_->Kill();
    process_->ExpectKilledBy(SIGKILL);
  }
  Child& process() { return *process_; }

 private:
  std::unique_ptr<Child> process_;
};

// For suites that run each test with a peer of either width.
class WithPeer : public Instance, public ::testing::WithParamInterface<int> {};

inline std::string NameOfWidth(const ::testing::TestParamInfo<int>& test) {
  return "Of" + std::to_string(test.param) + "Bits";
}

#define OPLTEST_WITH_EITHER_PEER(Suite) \
  INSTANTIATE_TEST_SUITE_P(Peer, Suite, ::testing::ValuesIn(opltest::PeerWidths()), opltest::NameOfWidth)

}  // namespace opltest

#endif
