// Threads, processes, servers, and what the library allocates for its callers.
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <qvopl.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/Child.h"
#include "tests/support/Faults.h"
#include "tests/support/Instance.h"

namespace {

class CppThread : public opltest::Instance {};

TEST_F(CppThread, RunsItsFunctionAndIsJoined) {
  uint32_t inside = 0;
  qvopl::Thread thread = qvopl::Thread::Start(
      [&inside, owned = std::make_unique<int>(7)] { inside = qvopl::Thread::CurrentId(); });
  EXPECT_TRUE(thread);
  const uint32_t id = thread.id();
  qvopl::Thread moved = std::move(thread);
  EXPECT_FALSE(thread);
  EXPECT_EQ(0u, thread.id());
  moved.Wait();
  EXPECT_EQ(id, inside);
  EXPECT_FALSE(moved);
  moved.Wait();
}

TEST_F(CppThread, TakesAttributes) {
  qvopl::ThreadAttributes attributes = qvopl::ThreadAttributes::Create();
  attributes.SetStackSize(256 * 1024);
  EXPECT_EQ(256u * 1024, attributes.StackSize());
  size_t sizeBytes = 0;
  qvopl::Thread::Start(attributes, [&] {
    pthread_attr_t own;
    ASSERT_EQ(0, ::pthread_getattr_np(::pthread_self(), &own));
    EXPECT_EQ(0, ::pthread_attr_getstacksize(&own, &sizeBytes));
    EXPECT_EQ(0, ::pthread_attr_destroy(&own));
  }).Wait();
  // A sanitizer's runtime asks for more.
  EXPECT_LE(256u * 1024, sizeBytes);
  EXPECT_GE(4096u * 1024, sizeBytes);
  pthread_attr_t* posix = nullptr;
  ASSERT_EQ(OPL_OK, OPL_ThreadAttrPosixGet(attributes.native(), &posix));
  int state = PTHREAD_CREATE_JOINABLE;
  ASSERT_EQ(0, ::pthread_attr_getdetachstate(posix, &state));
  EXPECT_EQ(PTHREAD_CREATE_DETACHED, state);
}

TEST_F(CppThread, MayExitAnywhere) {
  bool isUnwound = false;
  {
    const qvopl::Thread thread = qvopl::Thread::Start([&] {
      const std::unique_ptr<bool, void (*)(bool*)> unwound(&isUnwound, [](bool* is) { *is = true; });
      (void)OPL_ThreadExit();
    });
  }
  EXPECT_TRUE(isUnwound);
}

TEST_F(CppThread, IsNotWaitedForByAForkedChild) {
  qvopl::PrivateEvent end = qvopl::PrivateEvent::Create();
  qvopl::Thread thread = qvopl::Thread::Start([&] { end.Wait(); });
  opltest::Child child([&](opltest::Steps&) {
    thread.Wait();
    EXPECT_FALSE(thread);
  });
  child.ExpectSuccess();
  EXPECT_TRUE(thread);
  end.Post();
}

TEST_F(CppThread, LeavesADetachedOneAlone) {
  static sem_t done;
  ASSERT_EQ(0, ::sem_init(&done, 0, 0));
  qvopl::Thread::StartDetached([] { (void)::sem_post(&done); });
  EXPECT_EQ(0, ::sem_wait(&done));
  qvopl::ThreadAttributes attributes = qvopl::ThreadAttributes::Create();
  qvopl::Thread::StartDetached(attributes, [] { (void)::sem_post(&done); });
  EXPECT_EQ(0, ::sem_wait(&done));
}

TEST_F(CppThread, PassesTheSystemsRefusalOn) {
  opltest::Fault fault("pthread_create", 1, EAGAIN, opltest::Fault::kForGood);
  const qvopl::Result<qvopl::Thread> thread = qvopl::Thread::Start(std::nothrow, [] {});
  EXPECT_EQ(static_cast<OPL_Result>(OPL_THREAD_E_RESOURCES), thread.code());
  EXPECT_EQ(EAGAIN, thread.systemError());
  EXPECT_EQ(static_cast<OPL_Result>(OPL_THREAD_E_RESOURCES),
            qvopl::Thread::StartDetached(std::nothrow, [] {}).code());
}

TEST_F(CppThread, KeepsAValueOfItsOwn) {
  static int ended = 0;
  qvopl::ThreadKey key = qvopl::ThreadKey::Create([](void* value) { ended = *static_cast<int*>(value); });
  int mine = 1;
  int others = 2;
  key.Set(&mine);
  qvopl::Thread::Start([&] {
    EXPECT_EQ(nullptr, key.Get());
    key.Set(&others);
    EXPECT_EQ(&others, key.Get());
  }).Wait();
  EXPECT_EQ(2, ended);
  EXPECT_EQ(&mine, key.Get());
  key.Set(nullptr);
}

TEST_F(CppThread, HoldsSignalsOff) {
  sigset_t during;
  sigset_t after;
  {
    const qvopl::SignalBlock signals;
    ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &during));
  }
  ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &after));
  EXPECT_EQ(1, ::sigismember(&during, SIGUSR1));
  EXPECT_EQ(0, ::sigismember(&after, SIGUSR1));
}

class CppProcess : public opltest::Instance {};

TEST_F(CppProcess, IsKnownByItsId) {
  EXPECT_EQ(static_cast<uint32_t>(::getpid()), qvopl::Process::Real().id());
  EXPECT_EQ(static_cast<uint32_t>(::getppid()), qvopl::Process::Parent().id());
  EXPECT_TRUE(qvopl::Process::Real().IsAlive());
  qvopl::Process::SetCurrent(qvopl::Process(4711));
  EXPECT_EQ(qvopl::Process(4711), qvopl::Process::Current());
  qvopl::Process::SetCurrent(qvopl::Process(OPL_PROCESS_NO_ID));
  EXPECT_TRUE(qvopl::Process::Real() == qvopl::Process::Current());
  EXPECT_EQ(static_cast<uint32_t>(::geteuid()), qvopl::User::Id());
}

TEST_F(CppProcess, RunsATask) {
  auto* const shared = static_cast<int*>(
      ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(MAP_FAILED, static_cast<void*>(shared));
  const std::string captured = "captured";
  qvopl::Task::Start([=] { *shared = qvopl::Library::IsBegun() ? static_cast<int>(captured.size()) : -1; });
  int status = -1;
  ASSERT_LT(0, ::waitpid(-1, &status, 0));
  EXPECT_EQ(0, status);
  EXPECT_EQ(8, *shared);
  (void)::munmap(shared, sizeof(int));
}

class CppServer : public opltest::Instance {
 protected:
  const qvopl::ServerSettings settings_{".", "ctl", "/bin/false", "no-such-daemon"};
};

TEST_F(CppServer, RunsItsMainAndTellsItsResult) {
  qvopl::Server server = qvopl::Server::Create(settings_, qvopl::Daemon::kForeground);
  int stops = 0;
  const uint32_t result = server.Run(
      [&] {
        qvopl::Server::SetStarted();
        EXPECT_EQ(static_cast<uint32_t>(::getpid()), server.ControllerPid());
        EXPECT_EQ(0, ::raise(SIGUSR1));
        EXPECT_EQ(1, stops);
        qvopl::Server::SetStop();
        return 42U;
      },
      [&]() noexcept { ++stops; });
  EXPECT_EQ(42u, result);
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SERVER_E_NOT_STARTED), server.ControllerPid(std::nothrow).code());
}

TEST_F(CppServer, ThrowsWhatItsMainThrows) {
  qvopl::Server server = qvopl::Server::Create(settings_, qvopl::Daemon::kForeground);
  const auto throwing = []() -> uint32_t { throw std::logic_error("mine"); };
  EXPECT_THROW((void)server.Run(throwing, []() noexcept {}), std::logic_error);
}

TEST_F(CppServer, IsAskedByItsController) {
  ASSERT_NE(-1, ::symlink(QVOPL_SERVER_SCRIPTS "/OPL_ServerPS", "OPL_ServerPS"));
  ASSERT_NE(-1, ::symlink(QVOPL_SERVER_SCRIPTS "/OPL_ServerInitPidGet", "OPL_ServerInitPidGet"));
  const std::string directory = opltest::WorkDirectory();
  qvopl::Server server = qvopl::Server::Create({directory.c_str(), "ctl", "/bin/false", "no-such-daemon"});
  EXPECT_FALSE(server.IsStarted());
  EXPECT_EQ(0u, server.Processes().size());
  EXPECT_EQ(static_cast<OPL_Result>(OPL_SERVER_E_NOT_STARTED),
            server.Stop(std::nothrow, std::chrono::seconds(1)).code());
  EXPECT_NE(0u, server.SpawnerPid());
}

class CppFiles : public opltest::Instance {};

TEST_F(CppFiles, AreListedByAPattern) {
  for (const char* name : {"b.txt", "a.txt", "c.log"}) opltest::WriteFile(name, "");
  const qvopl::FileNames names = qvopl::FileNames::Find("*.txt");
  EXPECT_EQ((std::vector<std::string>{"a.txt", "b.txt"}),
            std::vector<std::string>(names.begin(), names.end()));
  EXPECT_STREQ("b.txt", names[1]);
  EXPECT_EQ(0u, qvopl::FileNames::Find("*.none").size());
}

TEST_F(CppFiles, AreMovedWithTheirList) {
  opltest::WriteFile("a.txt", "");
  qvopl::FileNames first = qvopl::FileNames::Find("*.txt");
  qvopl::FileNames second = std::move(first);
  EXPECT_EQ(0u, first.size());
  EXPECT_EQ(first.begin(), first.end());
  EXPECT_STREQ("a.txt", second[0]);
  second.Close();
  EXPECT_EQ(second.begin(), second.end());
}

TEST_F(CppFiles, OwnFormattedTexts) {
  char* text = nullptr;
  ASSERT_EQ(2, OPL_CrtASPrintf(&text, "%u", 42U));
  const qvopl::OwnedText owned(text);
  EXPECT_STREQ("42", owned.get());
  const qvopl::MemoryContext context = qvopl::MemoryContext::Create();
  EXPECT_TRUE(context);
}

}  // namespace
