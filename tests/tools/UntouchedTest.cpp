// Looking changes nothing: no time of a file, no value, time or last process of a set, segment or queue.
#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "OPL_Init.h"
#include "tests/support/Footprint.h"
#include "tests/support/User.h"
#include "tests/tools/Listed.h"

namespace {

using opltest::Child;
using opltest::Peer;
using opltest::RunTool;
using opltest::Steps;
using opltest::SyncActor;

std::string TextOf(const timespec& time) {
  return std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec) + " ";
}

void AddFile(const std::string& path, std::ostream& all) {
  struct stat status {};
  EXPECT_EQ(0, ::lstat(path.c_str(), &status)) << path;
  all << path << ": " << status.st_ino << " " << status.st_mode << " " << status.st_nlink << " "
      << status.st_size << " " << status.st_uid << " " << TextOf(status.st_atim) << TextOf(status.st_mtim)
      << TextOf(status.st_ctim) << "\n";
}

void AddSet(int id, std::ostream& all) {
  semid_ds status{};
  EXPECT_NE(-1, ::semctl(id, 0, IPC_STAT, &status));
  all << "set " << id << ": " << status.sem_otime << " " << status.sem_ctime << " " << status.sem_perm.mode;
  for (int i = 0; i < static_cast<int>(status.sem_nsems); ++i)
    all << " " << ::semctl(id, i, GETVAL) << "/" << ::semctl(id, i, GETPID) << "/"
        << ::semctl(id, i, GETNCNT);
  all << "\n";
}

void AddSegment(int id, std::ostream& all) {
  shmid_ds status{};
  EXPECT_NE(-1, ::shmctl(id, IPC_STAT, &status));
  all << "segment " << id << ": " << status.shm_atime << " " << status.shm_dtime << " " << status.shm_ctime
      << " " << status.shm_lpid << " " << status.shm_nattch << "\n";
}

void AddQueue(int id, std::ostream& all) {
  msqid_ds status{};
  EXPECT_NE(-1, ::msgctl(id, IPC_STAT, &status));
  all << "queue " << id << ": " << status.msg_stime << " " << status.msg_rtime << " " << status.msg_ctime
      << " " << status.msg_qnum << " " << status.msg_lspid << "\n";
}

// All that could have been touched.
std::string Everything() {
  std::ostringstream all;
  for (const std::string& name : opltest::FilesIn(opltest::IpcDirectory()))
    AddFile(opltest::IpcDirectory() + "/" + name, all);
  for (const std::string& object : opltest::SystemVObjects()) {
    const int id = std::atoi(object.c_str() + 4);
    if (object.starts_with("sem ")) AddSet(id, all);
    if (object.starts_with("shm ")) AddSegment(id, all);
    if (object.starts_with("msg ")) AddQueue(id, all);
  }
  return all.str();
}

// The directory's own times change when the test lists it, and so are looked at apart.
std::string Directory() {
  std::ostringstream text;
  AddFile(opltest::IpcDirectory(), text);
  return text.str();
}

void LookAtEverything() {
  for (const int width : opltest::PeerWidths()) {
    EXPECT_EQ(0, RunTool({"list"}, width).status);
    EXPECT_EQ(0, RunTool({"list", "--json"}, width).status);
    EXPECT_EQ(0, RunTool({"show", "*"}, width).status);
    EXPECT_EQ(0, RunTool({"watch", "--count", "3", "--interval", "0.1"}, width).status);
  }
}

class Untouched : public opltest::WithPeer {
 protected:
  void SetUp() override {
    WithPeer::SetUp();
    holder_.Await();
    for (const char* const command :
         {"begin", "mutex-create q 4", "mutex-create qa 8", "mutex-acquire q", "rwlock-create t 1",
          "rwlock-lock t 2", "event-create e 2", "event-create ea 4", "event-post e"})
      EXPECT_EQ(0u, actor_.Do(command)) << command;
    queue_ = ::msgget(IPC_PRIVATE, 0600);
    EXPECT_EQ(OPL_OK, OPL_MsgqNativeRegisterIPC(0, "app", static_cast<uint32_t>(queue_)));
  }

  void TearDown() override {
    EXPECT_EQ(0, ::msgctl(queue_, IPC_RMID, nullptr));
    EXPECT_EQ(OPL_OK, OPL_MsgqNativeDeRegisterIPC(0, "app", static_cast<uint32_t>(queue_)));
    for (const char* const command :
         {"event-reset e", "event-close e", "event-close ea", "rwlock-unlock t", "rwlock-close t",
          "mutex-release q", "mutex-close q", "mutex-close qa", "end"})
      EXPECT_EQ(0u, actor_.Do(command)) << command;
    actor_.Quit();
    holder_.Go();
    holder_.ExpectSuccess();
    WithPeer::TearDown();
  }

  SyncActor actor_{GetParam()};
  Peer holder_{opltest::kHolder, GetParam()};
  int queue_ = -1;
};
OPLTEST_WITH_EITHER_PEER(Untouched);

TEST_P(Untouched, IsEverythingByItsOwner) {
  const std::string before = Everything();
  const std::string directory = Directory();
  LookAtEverything();
  EXPECT_EQ(directory, Directory());
  EXPECT_EQ(before, Everything());
}

TEST_P(Untouched, IsEverythingByAnotherUser) {
  if (!opltest::IsRoot()) GTEST_SKIP() << "needs another user";
  opltest::LetOtherUsersIn();
  const std::string before = Everything();
  Child other([](Steps&) {
    opltest::BecomeOtherUser();
    ASSERT_EQ(0, ::chdir("/tmp"));
    LookAtEverything();
  });
  other.ExpectSuccess();
  EXPECT_EQ(before, Everything());
}

}  // namespace
