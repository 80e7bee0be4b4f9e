// Tasks, which are forked children.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Process.h"
#include "tests/support/Failure.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"
#include "tests/support/SystemV.h"

namespace {

using opltest::Failure;
using opltest::Fault;
using opltest::LastFailure;
using opltest::Values;

// What a task tells its creator.
int gPipe[2] = {-1, -1};

std::string ReadAll() {
  (void)::close(gPipe[1]);
  std::string all;
  for (char byte; ::read(gPipe[0], &byte, 1) == 1;) all += byte;
  return all;
}

void Tell(const std::string& text) { (void)!::write(gPipe[1], text.data(), text.size()); }

Values ManagementValues() {
  return opltest::ValuesOf(
      opltest::IdIn(opltest::IpcDirectory() + "/QVOPL.mgmt." + opltest::InstanceString() + ".006.021"));
}

class Task : public opltest::Instance {
 protected:
  void SetUp() override {
    Instance::SetUp();
    ASSERT_EQ(0, ::pipe(gPipe));
  }

  // The wait status of the one child.
  static int End() {
    int status = -1;
    EXPECT_LT(0, ::waitpid(-1, &status, 0));
    return status;
  }
};

TEST_F(Task, RunsTheFunctionWithItsArgument) {
  char argument[] = "argument";
  ASSERT_EQ(OPL_OK, OPL_TaskCreate(
                        0, [](void* text) { Tell(static_cast<char*>(text)); }, argument));
  EXPECT_EQ("argument", ReadAll());
  EXPECT_EQ(0, End());
}

TEST_F(Task, IsAChildOfTheCreator) {
  ASSERT_EQ(OPL_OK,
            OPL_TaskCreate(
                7, [](void* parent) { Tell(::getppid() == *static_cast<pid_t*>(parent) ? "yes" : "no"); },
                std::array{::getpid()}.data()));
  EXPECT_EQ("yes", ReadAll());
  EXPECT_EQ(0, End());
}

TEST_F(Task, HasBegunTheLibraryWithAUseCountOfItsOwn) {
  ASSERT_EQ(OPL_OK, OPL_TaskCreate(
                        0,
                        [](void*) {
                          if (OPL_InitIsStopped(0) == OPL_OK) Tell(std::to_string(ManagementValues()[0]));
                        },
                        nullptr));
  EXPECT_EQ("31998", ReadAll());
  EXPECT_EQ(0, End());
  EXPECT_EQ((Values{31999, 1, 1, 1}), ManagementValues());
}

TEST_F(Task, EndsWithStatus0WhenTheLibraryCannotBeBegunInIt) {
  const std::string file = opltest::IpcDirectory() + "/QVOPL.mgmt." + opltest::InstanceString() + ".006.021";
  const std::string contents = opltest::ContentsOf(file);
  opltest::WriteFile(file, "abc");
  EXPECT_EQ(OPL_OK, OPL_TaskCreate(
                        0, [](void*) { Tell("ran"); }, nullptr));
  EXPECT_EQ("", ReadAll());
  EXPECT_EQ(0, End());
  opltest::WriteFile(file, contents);
}

TEST_F(Task, ReturnsToTheCreatorWhateverBecomesOfIt) {
  EXPECT_EQ(OPL_OK, OPL_TaskCreate(
                        0, [](void*) { ::_exit(9); }, nullptr));
  EXPECT_EQ(9, WEXITSTATUS(End()));
  EXPECT_EQ(OPL_OK, OPL_TaskCreate(
                        0, [](void*) { (void)::raise(SIGKILL); }, nullptr));
  EXPECT_EQ(SIGKILL, WTERMSIG(End()));
  EXPECT_EQ((Values{31999, 1, 1, 1}), ManagementValues());
}

TEST_F(Task, NeedsAFunction) {
  EXPECT_EQ(OPL_TASK_E_NULL_ARGUMENT, OPL_TaskCreate(0, nullptr, nullptr));
  EXPECT_EQ(Failure(0x050704, "OPL_TaskCreate: pFunc is NULL"), LastFailure());
  EXPECT_EQ(-1, ::waitpid(-1, nullptr, 0));
  EXPECT_EQ(ECHILD, errno);
}

TEST_F(Task, TellsWhenNoProcessCanBeMade) {
  const Fault fault("fork", 1, EAGAIN);
  EXPECT_EQ(OPL_TASK_E_FORK, OPL_TaskCreate(
                                 0, [](void*) {}, nullptr));
  EXPECT_EQ(Failure(EAGAIN, "OPL_TaskCreate: fork error :11,Resource temporarily unavailable"),
            LastFailure());
}

TEST_F(Task, IsAlwaysAFork) {
  for (const uint32_t reserved : {0u, 7u}) {
    uint32_t isFork = 77;
    EXPECT_EQ(OPL_OK, OPL_TaskIsFork(reserved, &isFork));
    EXPECT_EQ(1u, isFork);
  }
  EXPECT_EQ(OPL_TASK_E_NULL_ARGUMENT, OPL_TaskIsFork(0, nullptr));
  EXPECT_EQ(Failure(0x050704, "OPL_TaskIsFork: pIsFork is NULL"), LastFailure());
}

TEST(TaskStopped, IsRefused) {
  uint32_t isFork = 77;
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_TaskCreate(
                                    0, [](void*) {}, nullptr));
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_TaskCreate(0, nullptr, nullptr));
  EXPECT_EQ(OPL_INIT_E_STOPPED, OPL_TaskIsFork(0, &isFork));
  EXPECT_EQ(77u, isFork);
}

}  // namespace
