// A host that names no instance. It prints the instance string that the library makes, for the second and
// the login name of its arguments:
//
//   InstanceProgram SECONDS NAME [LIBRARY]
//
// The name "-" is a user that the database does not know; LIBRARY is loaded into the global scope first.
// Eight threads ask at once, and once more a second later; "differs" is printed when the answers differ.
#include <dlfcn.h>
#include <pwd.h>
#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "OPL_Init.h"
#include "tests/support/Threads.h"

namespace {

time_t gNow;
char* gUser;

}  // namespace

// The library's calls come here, because the loader searches the program first.
extern "C" time_t time(time_t* pTime) {
  if (pTime != nullptr) *pTime = gNow;
  return gNow;
}

extern "C" int getpwuid_r(uid_t, struct passwd* entry, char*, size_t, struct passwd** found) {
  *found = nullptr;
  if (std::strcmp(gUser, "-") == 0) return 0;
  entry->pw_name = gUser;
  *found = entry;
  return 0;
}

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  gNow = static_cast<time_t>(std::strtoul(argv[1], nullptr, 10));
  gUser = argv[2];
  if (argc > 3 && ::dlopen(argv[3], RTLD_NOW | RTLD_GLOBAL) == nullptr) return 3;

  const char* asked[8];
  opltest::RunAtOnce(8, [&](int self) { asked[self] = OPL_InitInstanceStringGet(); });
  ++gNow;
  bool same = true;
  for (const char* const one : asked) same = same && one == OPL_InitInstanceStringGet();
  std::fputs(same ? asked[0] : "differs", stdout);
  return 0;
}
