// A process that dies at any system call of begin, end, create, open or close leaves an instance in which the
// next process works as if nothing had been.
#include <gtest/gtest.h>
#include <unistd.h>

#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "OPL_Init.h"
#include "tests/opl_sync/NamedObjects.h"
#include "tests/opl_sync/SyncActor.h"
#include "tests/support/KillPoints.h"

namespace {

using opltest::KillAtEverySystemCall;
using opltest::SemaphoreSets;
using opltest::SyncActor;

struct Work {
  const char* name;
  std::vector<const char*> before;
  const char* killed;
  int nameless;  // at how many of its system calls a set is made that no file names yet
};

// Between the making of a set and the writing of its id the values are set: it can die before either.
constexpr int kNamelessOfAMaker = 2;

void PrintTo(const Work& work, std::ostream* out) { *out << work.name; }

void DoAll(const std::vector<const char*>& commands) {
  for (const std::string command : commands) {
    std::istringstream words(command);
    std::string verb;
    std::string name;
    uint32_t number = 0;
    words >> verb >> name >> number;
    EXPECT_EQ(0u, opltest::Act(verb, name, number)) << command;
  }
}

// Creates or opens until one of them works: the object may come and go between the two.
void CreateOrOpen(SyncActor& actor, const std::string& kind, const std::string& object, uint32_t exists,
                  uint32_t missing) {
  for (;;) {
    const uint32_t created = actor.Do(kind + "-create " + object);
    if (created == 0) return;
    ASSERT_EQ(exists, created) << actor.Message();
    const uint32_t opened = actor.Do(kind + "-open " + object);
    if (opened == 0) return;
    ASSERT_EQ(missing, opened) << actor.Message();
  }
}

// Uses everything, in a process of its own.
void ExpectWorking(int width) {
  SCOPED_TRACE("a process of " + std::to_string(width) + " bits");
  SyncActor actor(width);
  ASSERT_EQ(0u, actor.Do("begin"));
  CreateOrOpen(actor, "mutex", "q 4", 0x050003, 0x050005);
  CreateOrOpen(actor, "rwlock", "q 1", 0x050014, 0x050016);
  for (const char* const command :
       {"mutex-acquire q", "mutex-release q", "rwlock-lock q 2", "rwlock-unlock q", "rwlock-lock q 1",
        "rwlock-unlock q", "mutex-close q", "rwlock-close q", "end"})
    EXPECT_EQ(0u, actor.Do(command)) << command << ": " << actor.Message();
  actor.Quit();
}

class SyncKill : public ::testing::TestWithParam<Work> {
 protected:
  void Kill() {
    const int rounds = KillAtEverySystemCall([&] { DoAll(GetParam().before); },
                                             [&] { DoAll({GetParam().killed}); }, [&](int) { Recover(); });
    if (rounds != 0) {
      EXPECT_EQ(GetParam().nameless, nameless_);
    }
  }

  void Recover() {
    for (const int width : opltest::PeerWidths()) ExpectWorking(width);
    EXPECT_EQ(0u, OPL_InitTerminateIPC(0, "*"));
    EXPECT_EQ(std::vector<std::string>(), opltest::FilesIn(opltest::IpcDirectory()));
    // A set whose maker died before it wrote the id into a file is nobody's: an administrator removes it.
    const std::vector<int> sets = SemaphoreSets();
    EXPECT_LE(sets.size(), 1u);
    for (const int set : sets) opltest::RemoveSet(set);
    nameless_ += static_cast<int>(sets.size());
  }

  int nameless_ = 0;
};

TEST_P(SyncKill, LeavesWhatTheNextProcessCanUse) { Kill(); }

INSTANTIATE_TEST_SUITE_P(
    At, SyncKill,
    ::testing::Values(Work{"Begin", {}, "begin", kNamelessOfAMaker}, Work{"End", {"begin"}, "end", 0},
                      Work{
                          "EndWithOpenObjects", {"begin", "mutex-create q 4", "rwlock-create q 1"}, "end", 0},
                      Work{"MutexCreate", {"begin"}, "mutex-create q 4", kNamelessOfAMaker},
                      Work{"MutexOpen", {"begin", "mutex-create q 4"}, "mutex-open q 4", 0},
                      Work{"MutexClose", {"begin", "mutex-create q 4"}, "mutex-close q", 0},
                      Work{"RWLockCreate", {"begin"}, "rwlock-create q 1", kNamelessOfAMaker},
                      Work{"RWLockOpen", {"begin", "rwlock-create q 1"}, "rwlock-open q 1", 0},
                      Work{"RWLockClose", {"begin", "rwlock-create q 1"}, "rwlock-close q", 0}),
    [](const ::testing::TestParamInfo<Work>& test) { return std::string(test.param.name); });

}  // namespace
