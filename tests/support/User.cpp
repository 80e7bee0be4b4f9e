#include "tests/support/User.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/Instance.h"

namespace opltest {

bool IsRoot() { return ::geteuid() == 0; }

void LetOtherUsersIn() {
  const std::filesystem::path ipc = IpcDirectory();
  ASSERT_EQ(0, ::chmod(ipc.parent_path().c_str(), 0755));
  ASSERT_EQ(0, ::chmod(ipc.c_str(), 0777));
  ASSERT_EQ(0, ::chmod(WorkDirectory().c_str(), 0777));
}

void BecomeOtherUser() {
  ASSERT_EQ(0, ::setresgid(kOtherUser, kOtherUser, kOtherUser));
  ASSERT_EQ(0, ::setresuid(kOtherUser, kOtherUser, kOtherUser));
  // Or the system would hide the process's descriptors from itself.
  ASSERT_EQ(0, ::prctl(PR_SET_DUMPABLE, 1));
}

}  // namespace opltest
