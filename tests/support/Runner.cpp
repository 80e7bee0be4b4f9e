// Runs each test of a suite in a process of its own and looks at what it leaves behind.
//
// Without arguments of its own the program is the runner: it starts itself once for every test, with
// --run-here, one after the other. Each test has its own IPC directory, instance string and working directory
// under a temporary directory. The runner lives in an IPC namespace of its own where the system allows it, so
// that every System V object in sight belongs to the test that has just ended; elsewhere suites take turns.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "tests/support/Footprint.h"
#include "tests/support/Instance.h"
#include "tests/support/IpcNamespace.h"
#include "tests/support/Peer.h"

namespace {

constexpr char kRunHere[] = "--run-here";
constexpr int kTestSecondsMost = 300;
constexpr int kStragglerSecondsMost = 60;

// Where suites share the system's objects, they run one at a time.
void WaitForTurn() {
  const int fd = ::open("/tmp/qvopl-tests.lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd != -1) (void)::flock(fd, LOCK_EX);
}

struct Verdict {
  bool passed = true;
  std::string complaints;

  void Complain(const std::string& what) {
    passed = false;
    complaints += "  " + what + "\n";
  }
};

class TestRun {
 public:
  TestRun(std::string program, std::string name) : program_(std::move(program)), name_(std::move(name)) {
    char directory[] = "/tmp/qvopl-test.XXXXXX";
    if (::mkdtemp(directory) == nullptr) std::abort();
    base_ = directory;
    std::filesystem::create_directory(base_ + "/ipc");
    std::filesystem::create_directory(base_ + "/work");
  }

  ~TestRun() { std::filesystem::remove_all(base_); }

  Verdict Run() {
    const std::set<std::string> before = opltest::SystemVObjects();
    Verdict verdict;
    const int status = RunProcess(before);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) verdict.Complain(Ending(status));
    if (!ReapStragglers()) verdict.Complain("left a process behind");
    for (const std::string& file : opltest::FilesIn(base_ + "/ipc"))
      verdict.Complain("left the file " + file);
    for (const std::string& object : opltest::SystemVObjects())
      if (!before.contains(object)) verdict.Complain("left the System V object " + object);
    return verdict;
  }

  std::string Output() const { return opltest::ContentsOf(base_ + "/output"); }

 private:
  static std::string Ending(int status) {
    if (WIFSIGNALED(status)) return std::string("ended by signal: ") + ::strsignal(WTERMSIG(status));
    return "exit status " + std::to_string(WEXITSTATUS(status));
  }

  int RunProcess(const std::set<std::string>& objectsBefore) const {
    const pid_t pid = ::fork();
    if (pid == -1) std::abort();
    if (pid == 0) RunTest(objectsBefore);
    int status = 0;
    while (::waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return status;
  }

  [[noreturn]] void RunTest(const std::set<std::string>& objectsBefore) const {
    const int output = ::open((base_ + "/output").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    (void)::dup2(input, STDIN_FILENO);
    (void)::dup2(output, STDOUT_FILENO);
    (void)::dup2(output, STDERR_FILENO);
    (void)::setpgid(0, 0);
    (void)::setenv("QVOPL_IPC_PATH", (base_ + "/ipc").c_str(), 1);
    (void)::setenv("QVOPL_TEST_INSTANCE", ("T" + std::to_string(::getpid())).c_str(), 1);
    (void)::unsetenv("TALVEN_HOME");
    opltest::DisownSystemVObjects(objectsBefore);
    if (::chdir((base_ + "/work").c_str()) != 0) ::_exit(126);
    (void)::alarm(kTestSecondsMost);  // survives exec, ends a test that hangs
    const std::string filter = "--gtest_filter=" + name_;
    (void)::execl(program_.c_str(), program_.c_str(), kRunHere, filter.c_str(), nullptr);
    ::_exit(127);
  }

  // Descendants come to this process when their parents end. Those that are on their way out get the time for
  // it; one that stays is killed and reported.
  static bool ReapStragglers() {
    bool clean = true;
    for (int tenths = 0;; ++tenths) {
      const pid_t pid = ::waitpid(-1, nullptr, WNOHANG);
      if (pid == -1 && errno == ECHILD) return clean;
      if (pid > 0) continue;
      if (tenths >= kStragglerSecondsMost * 10) {
        clean = false;
        KillDescendants();
      }
      (void)::poll(nullptr, 0, 100);
    }
  }

  static void KillDescendants() {
    const std::string path = "/proc/self/task/" + std::to_string(::getpid()) + "/children";
    std::ifstream children(path);
    for (pid_t pid; children >> pid;) (void)::kill(pid, SIGKILL);
  }

  const std::string program_;
  const std::string name_;
  std::string base_;
};

std::vector<std::string> TestNames() {
  std::vector<std::string> names;
  const ::testing::UnitTest& all = *::testing::UnitTest::GetInstance();
  for (int i = 0; i < all.total_test_suite_count(); ++i) {
    const ::testing::TestSuite& suite = *all.GetTestSuite(i);
    for (int j = 0; j < suite.total_test_count(); ++j)
      names.push_back(std::string(suite.name()) + "." + suite.GetTestInfo(j)->name());
  }
  return names;
}

// Only the plain form, NAME or PREFIX*: what a person types to run a few tests.
bool Matches(const std::string& name, const std::string& filter) {
  if (!filter.empty() && filter.back() == '*') return name.rfind(filter.substr(0, filter.size() - 1), 0) == 0;
  return name == filter;
}

// A test that lets real time pass says so at the end of its name.
bool IsLeftOut(const std::string& name) {
  return std::getenv("QVOPL_QUICK") != nullptr && name.ends_with("Slow");
}

int RunAll(const std::string& filter) {
  const std::string program = std::filesystem::read_symlink("/proc/self/exe");
  (void)::prctl(PR_SET_CHILD_SUBREAPER, 1);
  if (opltest::LacksOtherWidth()) std::printf("no build of the other width: peers have this one's\n");
  if (!opltest::EnterIpcNamespace()) WaitForTurn();
  int run = 0;
  int failed = 0;
  for (const std::string& name : TestNames()) {
    if (!Matches(name, filter) || IsLeftOut(name)) continue;
    ++run;
    TestRun test(program, name);
    const Verdict verdict = test.Run();
    if (verdict.passed) continue;
    ++failed;
    std::printf("%s\nFAILED %s\n%s", test.Output().c_str(), name.c_str(), verdict.complaints.c_str());
  }
  std::printf("%d of %d tests passed\n", run - failed, run);
  return failed == 0 && run != 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string filter = "*";
  bool runHere = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], kRunHere) == 0)
      runHere = true;
    else if (std::strncmp(argv[i], "--gtest_filter=", 15) == 0)
      filter = argv[i] + 15;
  }
  ::testing::InitGoogleMock(&argc, argv);
  if (const int status = opltest::RunPeer(argc, argv); status != -1) return status;
  return runHere ? RUN_ALL_TESTS() : RunAll(filter);
}

// An allocation beyond all bounds yields null under the sanitizers too, as it does from the system.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

// The record of the thread that ends the library stays allocated, as those of all living threads; so does a
// handle of the event mutex that was opened, not made, or that a forked child forgets.
extern "C" const char* __lsan_default_suppressions() { return "leak:MakeRecord\nleak:GetEventMutex\n"; }

// The C library guards its time zone with a lock that the sanitizer does not see.
extern "C" const char* __tsan_default_suppressions() { return "race:tzset_internal\n"; }
