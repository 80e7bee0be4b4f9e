// Listing the names that match a pattern.
#include <glob.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "OPL_File.h"
#include "OPL_Init.h"
#include "tests/support/Child.h"
#include "tests/support/CountedMemory.h"
#include "tests/support/FailingMemory.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/User.h"

namespace {

using opltest::Failure;
using opltest::Fault;
using opltest::LastFailure;

using Names = std::vector<std::string>;

class FileNameFind : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    for (const char* name : {"b1", "a1", "a2", ".hidden"}) opltest::WriteFile(name, "");
  }
  void TearDown() override {
    if (list_ != nullptr) {
      EXPECT_EQ(OPL_OK, OPL_FileNameFindEnd(&list_));
    }
    Instance::TearDown();
  }

  OPL_Result Find(uint32_t mode, const char* pattern) {
    return OPL_FileNameFind(mode, &list_, pattern, &names_, &count_);
  }
  Names Found() const { return Names(names_, names_ + count_); }

  OPL_FileNameList* list_ = nullptr;
  char** names_ = nullptr;
  uint32_t count_ = 77;
};

class FileNameFindEnd : public FileNameFind {};

TEST_F(FileNameFind, ListsTheNamesInOrder) {
  ASSERT_EQ(OPL_OK, Find(OPL_FILE_FIND_NEW, "*"));
  EXPECT_EQ((Names{"a1", "a2", "b1"}), Found());
}

TEST_F(FileNameFind, ListsFullNamesForAFullPattern) {
  const std::string pattern = opltest::WorkDirectory() + "/a?";
  ASSERT_EQ(OPL_OK, Find(OPL_FILE_FIND_NEW, pattern.c_str()));
  EXPECT_EQ((Names{opltest::WorkDirectory() + "/a1", opltest::WorkDirectory() + "/a2"}), Found());
}

TEST_F(FileNameFind, TakesEveryModeBut1AsNew) {
  for (const uint32_t mode : {0u, 2u, 0xFFFFFFFFu}) {
    ASSERT_EQ(OPL_OK, Find(mode, "a*"));
    EXPECT_EQ((Names{"a1", "a2"}), Found());
    EXPECT_EQ(OPL_OK, OPL_FileNameFindEnd(&list_));
  }
}

TEST_F(FileNameFind, AppendsToTheList) {
  ASSERT_EQ(OPL_OK, Find(OPL_FILE_FIND_NEW, "b*"));
  OPL_FileNameList* const list = list_;
  ASSERT_EQ(OPL_OK, Find(OPL_FILE_FIND_APPEND, "a*"));
  EXPECT_EQ(list, list_);
  EXPECT_EQ((Names{"b1", "a1", "a2"}), Found());
}

TEST_F(FileNameFind, KeepsTheListWhenNothingIsThereToAppend) {
  ASSERT_EQ(OPL_OK, Find(OPL_FILE_FIND_NEW, "a*"));
  OPL_FileNameList* const list = list_;
  EXPECT_EQ(OPL_FILE_E_NO_MATCH, Find(OPL_FILE_FIND_APPEND, "x*"));
  EXPECT_EQ(list, list_);
  EXPECT_EQ(2u, count_);
  ASSERT_EQ(OPL_OK, Find(OPL_FILE_FIND_APPEND, "b*"));
  EXPECT_EQ((Names{"a1", "a2", "b1"}), Found());
}

TEST_F(FileNameFind, TellsThatNothingMatches) {
  const opltest::CountedMemory memory;
  EXPECT_EQ(OPL_FILE_E_NO_MATCH, Find(OPL_FILE_FIND_NEW, "x*"));
  EXPECT_EQ(Failure(0x050D0C, "OPL_FileNameFind: not match found."), LastFailure());
  EXPECT_EQ(nullptr, list_);
  EXPECT_EQ(0u, count_);
  EXPECT_EQ(0, memory.Living());
}

TEST_F(FileNameFind, TellsWhatThePatternMatcherRefuses) {
  opltest::ForgetFailure();
  const opltest::CountedMemory memory;
  const Fault fault("glob64", 1, EIO);
  EXPECT_EQ(OPL_FILE_E_GLOB, Find(OPL_FILE_FIND_NEW, "*"));
  EXPECT_EQ(Failure(0x050D09, "OPL_FileNameFind: glob error 2."), LastFailure());
  EXPECT_EQ(2, GLOB_ABORTED);
  EXPECT_EQ(nullptr, list_);
  EXPECT_EQ(0, memory.Living());
}

TEST_F(FileNameFind, StopsAtADirectoryThatCannotBeRead) {
  ASSERT_EQ(0, ::mkdir("closed", 0100));
  if (opltest::IsRoot()) opltest::LetOtherUsersIn();
  opltest::Child child([this](opltest::Steps&) {
    if (opltest::IsRoot()) opltest::BecomeOtherUser();
    EXPECT_EQ(OPL_FILE_E_GLOB, Find(OPL_FILE_FIND_NEW, "closed/*"));
    EXPECT_EQ(Failure(0x050D09, "OPL_FileNameFind: glob error 2."), LastFailure());
  });
  child.ExpectSuccess();
  ASSERT_EQ(0, ::chmod("closed", 0700));
}

TEST_F(FileNameFind, FailsWithoutMemory) {
  const opltest::FailingMemory memory(1);
  EXPECT_EQ(OPL_FILE_E_NO_MEMORY, Find(OPL_FILE_FIND_NEW, "*"));
  EXPECT_EQ(Failure(ENOMEM, "OPL_FileNameFind: malloc error."), LastFailure());
  EXPECT_EQ(nullptr, list_);
  EXPECT_EQ(0u, count_);
}

TEST_F(FileNameFind, NeedsACount) {
  EXPECT_EQ(OPL_FILE_E_NULL_ARGUMENT, OPL_FileNameFind(0, &list_, "*", &names_, nullptr));
  EXPECT_EQ(Failure(0x050D14, "pCount is NULL"), LastFailure());
  EXPECT_EQ(nullptr, list_);
}

TEST_F(FileNameFind, NeedsAHandleAndAPattern) {
  EXPECT_EQ(OPL_FILE_E_NULL_ARGUMENT, OPL_FileNameFind(0, nullptr, "*", &names_, &count_));
  EXPECT_EQ(Failure(0x050D14, "ppHandle is NULL"), LastFailure());
  opltest::ForgetFailure();
  EXPECT_EQ(OPL_FILE_E_NULL_ARGUMENT, Find(OPL_FILE_FIND_APPEND, "*"));
  EXPECT_EQ(Failure(0x050D14, "ppHandle is NULL"), LastFailure());
  EXPECT_EQ(OPL_FILE_E_NULL_ARGUMENT, Find(OPL_FILE_FIND_NEW, nullptr));
  EXPECT_EQ(Failure(0x050D14, "pattern is NULL"), LastFailure());
  EXPECT_EQ(nullptr, list_);
}

TEST_F(FileNameFind, NeedsNoPlaceForTheNames) {
  ASSERT_EQ(OPL_OK, OPL_FileNameFind(0, &list_, "*", nullptr, &count_));
  EXPECT_EQ(3u, count_);
}

TEST_F(FileNameFind, WorksFromSeveralThreadsAtOnce) {
  const auto list = [](void*) -> void* {
    for (int round = 0; round < 50; ++round) {
      OPL_FileNameList* handle = nullptr;
      char** names = nullptr;
      uint32_t count = 0;
      EXPECT_EQ(OPL_OK, OPL_FileNameFind(0, &handle, "*", &names, &count));
      EXPECT_EQ(3u, count);
      EXPECT_EQ(OPL_OK, OPL_FileNameFindEnd(&handle));
    }
    return nullptr;
  };
  pthread_t threads[4];
  for (pthread_t& thread : threads) ASSERT_EQ(0, ::pthread_create(&thread, nullptr, list, nullptr));
  for (const pthread_t thread : threads) EXPECT_EQ(0, ::pthread_join(thread, nullptr));
}

TEST_F(FileNameFindEnd, ReleasesTheListAndClearsTheHandle) {
  opltest::ForgetFailure();
  const opltest::CountedMemory memory;
  ASSERT_EQ(OPL_OK, Find(OPL_FILE_FIND_NEW, "*"));
  EXPECT_EQ(1, memory.Living());
  EXPECT_EQ(OPL_OK, OPL_FileNameFindEnd(&list_));
  EXPECT_EQ(nullptr, list_);
  EXPECT_EQ(0, memory.Living());
}

TEST_F(FileNameFindEnd, RecordsANullHandleAndSucceeds) {
  opltest::ForgetFailure();
  EXPECT_EQ(OPL_OK, OPL_FileNameFindEnd(&list_));
  EXPECT_EQ(Failure(0x050D14, "ppHandle is NULL"), LastFailure());
  opltest::ForgetFailure();
  EXPECT_EQ(OPL_OK, OPL_FileNameFindEnd(nullptr));
  EXPECT_EQ(Failure(0x050D14, "ppHandle is NULL"), LastFailure());
}

TEST_F(FileNameFind, WorksAfterTheModuleWasEndedAndInitialisedAgain) {
  EXPECT_EQ(OPL_OK, OPL_FileEnd());
  EXPECT_EQ(OPL_OK, OPL_FileInit());
  EXPECT_EQ(OPL_OK, OPL_FileInit());
  EXPECT_EQ(OPL_OK, Find(OPL_FILE_FIND_NEW, "*"));
}

TEST_F(FileNameFind, IsFinishedBeforeTheModuleEnds) {
  std::atomic<bool> ended{false};
  const pid_t ending = ::gettid();
  std::atomic<bool> matching{false};
  std::thread finder([&] {
    const Fault fault("glob64", 1, [&] {
      matching = true;
      opltest::AwaitSleepOnLock(ending);
      EXPECT_FALSE(ended);
    });
    EXPECT_EQ(OPL_OK, Find(OPL_FILE_FIND_NEW, "*"));
  });
  while (!matching) std::this_thread::yield();
  EXPECT_EQ(OPL_OK, OPL_FileEnd());
  ended = true;
  finder.join();
  EXPECT_EQ(OPL_OK, OPL_FileInit());
}

TEST(FileNameFindStopped, IsRefusedByTheSection) {
  OPL_FileNameList* list = nullptr;
  char** names = nullptr;
  uint32_t count = 77;
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_FileNameFind(0, &list, "*", &names, &count));
  EXPECT_EQ(nullptr, list);
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_FileNameFindEnd(&list));
}

}  // namespace
