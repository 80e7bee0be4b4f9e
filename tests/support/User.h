// Tests as, and against, another user.
#ifndef OPL_TESTS_SUPPORT_USER_H
#define OPL_TESTS_SUPPORT_USER_H

#include <sys/types.h>

namespace opltest {

// Has no account, files or processes.
constexpr uid_t kOtherUser = 54321;

bool IsRoot();

// Lets other users into the test's directories, for good.
void LetOtherUsersIn();

// Goes on as the other user, for good; for children, and for tests that root would pass for want of refusal.
// For root only.
void BecomeOtherUser();

}  // namespace opltest

#endif
