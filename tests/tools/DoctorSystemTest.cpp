// qvopl doctor on what surrounds an instance: jobs that tidy up, the login manager, the directory, other
// users, other namespaces; and how it asks and tells.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <filesystem>

#include "OPL_Init.h"
#include "OPL_Sync.h"
#include "tests/support/Child.h"
#include "tests/support/SystemV.h"
#include "tests/support/User.h"
#include "tests/tools/DoctorRig.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

using opltest::Child;
using opltest::Doctor;
using opltest::EmptyRoot;
using opltest::FileOf;
using opltest::InstanceString;
using opltest::IpcDirectory;
using opltest::PathOf;
using opltest::RunTool;
using opltest::Steps;
using opltest::Told;
using opltest::ToolRun;

struct Job {
  const char* file;
  const char* line;      // @ stands for the IPC directory, ^ for the one above
  const char* severity;  // empty for one that does no harm
  const char* what;
};

constexpr char kDeletes[] = "deletes files of the IPC directory";
constexpr char kMayDelete[] = "may delete files of the IPC directory";
constexpr char kDeletesDirectory[] = "deletes the IPC directory itself when it has been empty for that long";

constexpr Job kJobs[] = {
    {"etc/cron.d/tidy", "0 4 * * * root find @ -mindepth 1 -delete", "error", kDeletes},
    {"etc/cron.d/tidy", "0 4 * * * root find ^ -type f -delete", "error", kDeletes},
    {"etc/cron.d/tidy", "0 4 * * * root find @/ -name '*.event.*' -exec rm -f {} +", "error", kDeletes},
    {"etc/cron.d/tidy", "0 4 * * * root find @ -name core -o -name '*.mutex.*' -delete", "error", kDeletes},
    {"etc/cron.d/tidy", "0 4 * * * root find @ -ctime +7 -delete", "warning", kMayDelete},
    {"etc/cron.d/tidy", "0 4 * * * root find @ -mtime +7 -delete", "", ""},
    {"etc/cron.d/tidy", "0 4 * * * root find @ ! -mtime +7 -delete", "error", kDeletes},
    {"etc/cron.d/tidy", "0 4 * * * root find @ -name '*.log' -delete", "", ""},
    {"etc/cron.d/tidy", "0 4 * * * root find @ ! -name '*.006.021*' -delete", "", ""},
    {"etc/cron.d/tidy", "0 4 * * * root find @ -ctime +7 -print", "", ""},
    {"etc/cron.d/tidy", "0 4 * * * root find @ -name '*.006.021*' -prune -o -delete", "", ""},
    {"etc/cron.d/tidy", "0 4 * * * root find @ -name '*.log' -prune -o -delete", "error", kDeletes},
    {"etc/cron.d/tidy", "0 4 * * * root find @ ( -type d , -type f ) -delete", "error", kDeletes},
    {"etc/cron.d/tidy", "0 4 * * * root find @ -exec grep -q x {} ';' -delete", "warning", kMayDelete},
    {"etc/cron.d/tidy", "0 4 * * * root find @ -name '*.mutex.*' -printf x -o -delete", "error", kDeletes},
    {"etc/cron.daily/tidy", "find @ -name '*.log' -print -o -exec true {} + | xargs -r rm", "", ""},
    {"etc/cron.d/tidy", "0 4 * * * root find /elsewhere -delete", "", ""},
    {"etc/cron.d/tidy", "# 0 4 * * * root find @ -delete", "", ""},
    {"etc/crontab", "0 4 * * * root cd / && rm -rf @/*", "error", kDeletes},
    {"etc/crontab", "0 4 * * * root rm -f @/*.tmp", "", ""},
    {"etc/crontab", "0 4 * * * root rm -r ^", "error", kDeletes},
    {"etc/cron.daily/tidy", "find @ | xargs -r rm", "error", kDeletes},
    {"etc/cron.daily/tidy", "find @ -atime +3 | xargs -r rm", "", ""},
    {"etc/cron.daily/tidy", "/usr/sbin/tmpwatch --ctime 240 @", "error", kDeletes},
    {"etc/cron.daily/tidy", "/usr/sbin/tmpwatch 240 @", "", ""},
    {"etc/systemd/system/tidy.service", "ExecStart=/usr/bin/find @ -delete", "error", kDeletes},
    {"etc/tmpfiles.d/a.conf", "d @ 0755 root root 10d", "", ""},
    {"etc/tmpfiles.d/a.conf", "d @ 0755 root root c:10d", "error", kDeletes},
    {"etc/tmpfiles.d/a.conf", "d @ 0755 root root 0", "error", kDeletes},
    {"etc/tmpfiles.d/a.conf", "d @ 0755 root root -", "", ""},
    {"usr/lib/tmpfiles.d/a.conf", "q ^ 1777 root root 10d", "warning", kDeletesDirectory},
};

std::string Replaced(std::string line) {
  for (const auto& [mark, path] : {std::pair<char, std::string>{'@', IpcDirectory()},
                                   {'^', std::filesystem::path(IpcDirectory()).parent_path().string()}})
    for (size_t at = line.find(mark); at != std::string::npos; at = line.find(mark))
      line.replace(at, 1, path);
  return line;
}

void WriteBelowRoot(const std::string& file, const std::string& contents) {
  const std::filesystem::path path = EmptyRoot() + "/" + file;
  std::filesystem::create_directories(path.parent_path());
  opltest::WriteFile(path, contents);
}

TEST(DoctorJobs, FindsThoseThatWouldDeleteIpcFilesAndNoOthers) {
  for (const Job& job : kJobs) {
    const std::string line = Replaced(job.line);
    SCOPED_TRACE(line);
    WriteBelowRoot(job.file, "\n" + line + "\n");
    const ToolRun run = Doctor({"--fix", "--yes"});
    const bool isFound = *job.severity != '\0';
    EXPECT_EQ(isFound ? 1 : 0, run.status) << run.out;
    EXPECT_THAT(run.out,
                StartsWith(isFound ? Told(job.severity, "/" + std::string(job.file) + ":2",
                                          {std::string(job.what) + ": " + line + ".",
                                           "Let it leave out names with .006.021, or set QVOPL_IPC_PATH to a "
                                           "directory elsewhere, such as one below /run, for all processes."})
                                   : "Nothing is wrong"));
    std::filesystem::remove_all(EmptyRoot());
  }
}

// A remark ends with its line, and a file's last line counts whatever it ends in.
TEST(DoctorJobs, FindsThoseBesideABackslash) {
  for (const char* const text : {"# tidy up \\\nfind @ -delete\n", "\\\nfind @ -delete\\"}) {
    WriteBelowRoot("etc/cron.daily/tidy", Replaced(text));
    EXPECT_THAT(Doctor().out, StartsWith("error    /etc/cron.daily/tidy:"));
  }
}

// A user's own table is anybody's text.
TEST(DoctorJobs, GivesUpOnParenthesesWithoutAnEnd) {
  std::string line = Replaced("0 4 * * * find @ -delete");
  for (int i = 0; i < 200000; ++i) line += " (";
  WriteBelowRoot("var/spool/cron/crontabs/user", line);
  const ToolRun run = Doctor();
  EXPECT_EQ(1, run.status);
  EXPECT_THAT(run.out, StartsWith("warning  /var/spool/cron/crontabs/user:1\n         " +
                                  std::string(kMayDelete) + ": 0 4 "));
}

TEST(DoctorJobs, KnowsExclusionsAndFilesThatTakeAnothersPlace) {
  const std::string rule = Replaced("q ^ 1777 root root 10d\n");
  WriteBelowRoot("usr/lib/tmpfiles.d/tmp.conf", rule);
  EXPECT_EQ(1, Doctor().status);
  WriteBelowRoot("etc/tmpfiles.d/own.conf", Replaced("x @\n"));
  EXPECT_EQ(0, Doctor().status);
  WriteBelowRoot("etc/tmpfiles.d/own.conf", "");
  EXPECT_EQ(1, Doctor().status);
  WriteBelowRoot("etc/tmpfiles.d/tmp.conf", "# none\n");
  EXPECT_EQ(0, Doctor().status);
}

// As a user whose sessions end.
TEST(DoctorLogout, FindsALoginManagerThatRemovesAUsersObjects) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "needs another user";
  const std::string file = PathOf("only.lckfile." + InstanceString() + ".006.021");
  opltest::WriteFile(file, "");
  ASSERT_EQ(0, ::chown(file.c_str(), opltest::kOtherUser, opltest::kOtherUser));
  EXPECT_THAT(Doctor().out, Not(HasSubstr("login manager")));
  std::filesystem::create_directories(EmptyRoot() + "/run/systemd/seats");
  EXPECT_THAT(Doctor().out,
              StartsWith(Told(
                  "error", "/etc/systemd/logind.conf",
                  {"has the login manager remove all System V objects of 54321 when the last session of "
                   "that user ends (RemoveIPC=yes, the default).",
                   "Set RemoveIPC=no there, or run the product as a system user, with an id below 1000."})));
  WriteBelowRoot("etc/systemd/logind.conf", "[Login]\n#RemoveIPC=no\nRemoveIPC=yes\n");
  EXPECT_THAT(Doctor().out, StartsWith("error    /etc/systemd/logind.conf:3\n"));
  WriteBelowRoot("etc/systemd/logind.conf.d/own.conf", "[Login]\nRemoveIPC=no\n");
  EXPECT_THAT(Doctor().out, Not(HasSubstr("login manager")));
  std::filesystem::remove_all(EmptyRoot() + "/etc");
  WriteBelowRoot("var/lib/systemd/linger/54321", "");
  EXPECT_THAT(Doctor().out, Not(HasSubstr("login manager")));
  EXPECT_EQ(0, ::unlink(file.c_str()));
}

TEST(DoctorDirectory, FindsOneThatAllMayRemoveFilesFrom) {
  ASSERT_EQ(0, ::chmod(IpcDirectory().c_str(), 0777));
  const ToolRun run = Doctor({"--fix", "--yes"});
  EXPECT_EQ(1, run.status);
  EXPECT_THAT(
      run.out,
      StartsWith(Told("warning", IpcDirectory(),
                      {"may be written to by all users and is not sticky (mode 0777): anybody can "
                       "remove and replace others' files.",
                       "chmod +t it, or give it to a group of the product's users and chmod 0770 it."})));
  ASSERT_EQ(0, ::chmod(IpcDirectory().c_str(), 01777));
  opltest::ExpectHealthy();
}

TEST(DoctorDirectory, FindsALink) {
  ASSERT_EQ(0, ::symlink(IpcDirectory().c_str(), "link"));
  const std::string link = opltest::WorkDirectory() + "/link";
  EXPECT_THAT(Doctor({"--ipc-path", link}).out,
              StartsWith(Told(
                  "warning", link,
                  {"is a symbolic link to " + IpcDirectory() +
                       ": whoever turns it elsewhere parts the processes that start later from the others.",
                   "Set QVOPL_IPC_PATH to the directory itself, for all processes."})));
}

TEST(DoctorDirectory, FindsAFileSystemThatWillNotDo) {
  EXPECT_THAT(
      Doctor({"--ipc-path", "/proc/sys"}).out,
      HasSubstr(Told("error", "/proc/sys",
                     {"lies on a file system without hard links and FIFOs: no object can be made.",
                      "Set QVOPL_IPC_PATH to a directory on a local file system, such as one below /run, for "
                      "all processes."})));
}

TEST(DoctorDirectory, CannotLookIntoOneThatIsNotThere) {
  const ToolRun run = Doctor({"--ipc-path", "/nonexistent"});
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("", run.out);
  EXPECT_EQ("qvopl: the IPC directory /nonexistent: No such file or directory\n", run.err);
}

// Leaves what a killed process does.
void MakeUnusedMutex() {
  Child killed([](Steps&) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    OPL_SyncMutex* mutex = nullptr;
    EXPECT_EQ(OPL_OK, OPL_SyncMutexCreate(&mutex, 0, "queue", OPL_SYNC_MUTEX_PRIVATE));
  });
  killed.ExpectSuccess();
}

TEST(DoctorLimits, FindsThoseThatAreNearlyReached) {
  constexpr char kSetting[] = "/proc/sys/kernel/sem";
  const std::string before = opltest::ContentsOf(kSetting);
  std::vector<int> sets;
  for (int i = 0; i < 10; ++i) sets.push_back(opltest::MakeSet({i}));
  const int fd = ::open(kSetting, O_WRONLY | O_CLOEXEC);
  constexpr char kTen[] = "32000 1024000000 500 11\n";
  const bool isSet = fd != -1 && ::write(fd, kTen, sizeof kTen - 1) == sizeof kTen - 1;
  const ToolRun run = Doctor({}, "80");
  if (isSet) {
    EXPECT_EQ(static_cast<ssize_t>(before.size()), ::pwrite(fd, before.data(), before.size(), 0));
  }
  (void)::close(fd);
  for (const int set : sets) opltest::RemoveSet(set);
  if (!isSet) GTEST_SKIP() << "the system's limits cannot be set here";
  EXPECT_EQ(1, run.status);
  EXPECT_THAT(run.out,
              StartsWith(Told("warning", "semaphore sets",
                              {"10 of at most 11 are used.",
                               "Raise it: sysctl -w kernel.sem=\"32000 1024000000 500 22\" (it is \"32000 "
                               "1024000000 500 11\")."})));
}

TEST(DoctorUsers, LeavesAnotherUsersObjectsAlone) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "needs another user";
  opltest::LetOtherUsersIn();
  ASSERT_EQ(0, ::chmod(IpcDirectory().c_str(), 01777));
  Child other([](Steps& steps) {
    opltest::BecomeOtherUser();
    MakeUnusedMutex();
    steps.Reach();
    steps.WaitForGo();
    const ToolRun fixed = Doctor({"--fix", "--yes"});
    EXPECT_EQ(0, fixed.status) << fixed.out << fixed.err;
    opltest::ExpectHealthy();
  });
  other.Await();
  const std::vector<std::string> files = opltest::FilesIn(IpcDirectory());
  const ToolRun run = Doctor({"--fix", "--yes", "--unsure"});
  EXPECT_EQ(1, run.status);
  EXPECT_THAT(run.out, HasSubstr("--fix removes the set and the file when user 54321 runs it.\n"));
  EXPECT_THAT(run.out, HasSubstr("\n0 findings repaired.\n"));
  EXPECT_EQ(files, opltest::FilesIn(IpcDirectory()));
  other.Go();
  other.ExpectSuccess();
  EXPECT_EQ(std::vector<std::string>(), opltest::FilesIn(IpcDirectory()));
}

TEST(DoctorUsers, FindsAnInstanceOfTwoUsers) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "needs another user";
  Child holder([](Steps& steps) {
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    steps.Reach();
    steps.WaitForGo();
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  });
  holder.Await();
  const std::string file = PathOf(FileOf("only", ".lckfile."));
  opltest::WriteFile(file, "");
  ASSERT_EQ(0, ::chown(file.c_str(), opltest::kOtherUser, opltest::kOtherUser));
  EXPECT_THAT(
      Doctor().out,
      StartsWith(
          Told("error", "QVOPL.mgmt." + InstanceString() + ".006.021",
               {"belongs to root, while objects of its instance belong to 54321: the processes of one "
                "cannot use what the other's made.",
                "Run all processes of an instance as one user, and remove what the wrong one has made."})));
  EXPECT_EQ(0, ::unlink(file.c_str()));
  holder.Go();
  holder.ExpectSuccess();
}

// A container that shares the directory alone.
TEST(DoctorNamespaces, TakesFilesOfAnotherNamespaceForNobodysLeftovers) {
  Child container([](Steps& steps) {
    const bool isAway = ::unshare(CLONE_NEWIPC) == 0;
    steps.Send(isAway ? "away" : "here");
    if (!isAway) return;
    EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
    steps.Reach();
    steps.WaitForGo();
    EXPECT_EQ(OPL_OK, OPL_InitEnd(0));
  });
  if (container.Receive() != "away") GTEST_SKIP() << "no IPC namespace may be made";
  container.Await();
  const ToolRun run = Doctor({"--fix", "--yes"});
  EXPECT_EQ(1, run.status);
  const std::string process = std::to_string(container.pid());
  EXPECT_THAT(run.out,
              StartsWith(Told(
                  "error", IpcDirectory(),
                  {"is shared with process " + process + " (" + opltest::ProcessName() +
                       "), which has other System V objects: each side takes the files of "
                       "the other for left behind, and removes them.",
                   "Give containers both the directory and the IPC namespace, or neither. Objects of that "
                   "side are seen with: nsenter -i -t " +
                       process + " qvopl list"})));
  EXPECT_THAT(run.out, Not(HasSubstr("which is gone")));
  container.Go();
  container.ExpectSuccess();
}

TEST(DoctorOptions, ShowsOnlyWithoutTerminalOrYes) {
  MakeUnusedMutex();
  const std::vector<std::string> files = opltest::FilesIn(IpcDirectory());
  const ToolRun run = Doctor({"--fix"});
  EXPECT_EQ(1, run.status);
  EXPECT_THAT(run.out, ::testing::EndsWith("\nqvopl doctor --fix --yes repairs 2 of them.\n"));
  EXPECT_EQ(files, opltest::FilesIn(IpcDirectory()));
  EXPECT_EQ(0, Doctor({"--fix", "--yes"}).status);
}

TEST(DoctorOptions, LooksAtOneInstance) {
  MakeUnusedMutex();
  EXPECT_EQ(0, Doctor({"--instance", "another"}).status);
  EXPECT_EQ(1, Doctor({"--instance", InstanceString()}).status);
  EXPECT_EQ(0, Doctor({"--fix", "--yes"}).status);
}

TEST(DoctorOptions, TellsItInJson) {
  MakeUnusedMutex();
  const passwd* const account = ::getpwuid(::geteuid());
  const std::string user = account != nullptr ? account->pw_name : std::to_string(::geteuid());
  const ToolRun run = Doctor({"--json", "--instance", InstanceString()});
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("{\n  \"ipcPath\": \"" + IpcDirectory() + R"(",
  "findings": [
    {
      "severity": "note",
      "finding": "unused-management",
      "subject": "QVOPL.mgmt.)" +
                InstanceString() + R"(.006.021",
      "instance": ")" +
                InstanceString() + R"(",
      "what": "counts no process: the last one was killed",
      "advice": "The next process that begins takes it over.",
      "repair": {
        "does": "removes the set and the file",
        "isSure": true,
        "owner": ")" +
                user + R"(",
        "outcome": "not tried"
      }
    },
    {
      "severity": "note",
      "finding": "unused-object",
      "subject": "queue.mutex.)" +
                InstanceString() + R"(.006.021",
      "instance": ")" +
                InstanceString() + R"(",
      "what": "is used by no process",
      "advice": "It goes with the last close of who opens it next.",
      "repair": {
        "does": "removes the set and the file",
        "isSure": true,
        "owner": ")" +
                user + R"(",
        "outcome": "not tried"
      }
    }
  ],
  "files": 2,
  "instances": 1,
  "unsettled": 0,
  "notLookedAt": 0
}
)",
            run.out);
  const ToolRun fixed = Doctor({"--json", "--fix", "--yes"});
  EXPECT_EQ(0, fixed.status);
  EXPECT_THAT(fixed.out, HasSubstr("\"outcome\": \"repaired\""));
  EXPECT_EQ(0, Doctor({"--json"}).status);
}

TEST(DoctorTerminal, AsksBeforeEachRepair) {
  const std::string name = FileOf("lost", ".mutex.");
  opltest::WriteFile(PathOf(name), opltest::BytesOf(4711));
  const std::vector<std::string> fix{"doctor", "--root", EmptyRoot(), "--fix"};
  const std::string declined = opltest::AtTerminal(fix, 200, "n\n");
  EXPECT_THAT(declined, HasSubstr("         Removes the file? [y/N] "));
  EXPECT_THAT(declined, HasSubstr("0 findings repaired.\nexit 1\n"));
  EXPECT_EQ(std::vector<std::string>{name}, opltest::FilesIn(IpcDirectory()));
  const std::string repaired = opltest::AtTerminal(fix, 200, "y\n");
  EXPECT_THAT(repaired, HasSubstr("         Repaired: removes the file.\n"));
  EXPECT_THAT(repaired, HasSubstr("1 finding repaired.\nexit 0\n"));
  EXPECT_EQ(std::vector<std::string>(), opltest::FilesIn(IpcDirectory()));
}

TEST(DoctorOptions, NeedARootThatIsThereAndATimeThatIsOne) {
  EXPECT_EQ(2, RunTool({"doctor", "--root", "/nonexistent"}).status);
  EXPECT_EQ(2, RunTool({"doctor", "--age", "-1"}).status);
}

TEST(DoctorTerminal, FitsFortyColumns) {
  const std::string name = FileOf("lost", ".mutex.");
  opltest::WriteFile(PathOf(name), opltest::BytesOf(4711));
  const std::string shown = opltest::AtTerminal({"doctor", "--root", EmptyRoot()}, 40, "");
  EXPECT_THAT(shown, HasSubstr("\n1 finding (1 warning): 1 file of 0\ninstances in "));
  EXPECT_THAT(shown, HasSubstr("warning  " + name +
                               "\n         names the semaphore set 4711,\n         which is gone.\n"));
  EXPECT_EQ(0, ::unlink(PathOf(name).c_str()));
}

}  // namespace
