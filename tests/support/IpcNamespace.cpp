#include "tests/support/IpcNamespace.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <string>

namespace {

void WriteMap(const char* path, const std::string& text) {
  const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
  if (fd == -1) return;
  (void)!::write(fd, text.data(), text.size());
  ::close(fd);
}

}  // namespace

namespace opltest {

bool EnterIpcNamespace() {
  const uid_t user = ::geteuid();
  const gid_t group = ::getegid();
  if (::unshare(CLONE_NEWIPC) == 0) return true;
  // An ordinary user gets one only inside a user namespace, where the ids stay as they are.
  if (::unshare(CLONE_NEWUSER | CLONE_NEWIPC) != 0) return false;
  WriteMap("/proc/self/setgroups", "deny");
  WriteMap("/proc/self/uid_map", std::to_string(user) + " " + std::to_string(user) + " 1\n");
  WriteMap("/proc/self/gid_map", std::to_string(group) + " " + std::to_string(group) + " 1\n");
  return true;
}

}  // namespace opltest
