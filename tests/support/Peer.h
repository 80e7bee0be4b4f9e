// A process of this test program or of the other width's build of it, in step with the test as a Child is.
// What it runs is a body that is registered where the program is loaded, since nothing is inherited but the
// environment: the IPC directory, the instance and the working directory are the test's own.
//
//   const opltest::PeerBody kHolder("Holder", [](opltest::Steps& steps) { ... });
//
//   Peer peer(kHolder, 32);
//   peer.Await();
//
// The other width's program is looked for beside this one: build/release-32/tests/X is the peer of
// build/release-64/tests/X. Where it was not built, PeerWidths() has only this program's own width, and the
// runner says so.
#ifndef OPL_TESTS_SUPPORT_PEER_H
#define OPL_TESTS_SUPPORT_PEER_H

#include <string>
#include <vector>

#include "tests/support/Child.h"

namespace opltest {

class PeerBody {
 public:
  using Function = void (*)(Steps&);

  PeerBody(const char* name, Function function);
  PeerBody(const PeerBody&) = delete;
  PeerBody& operator=(const PeerBody&) = delete;

  const char* name() const { return name_; }
  void operator()(Steps& steps) const { function_(steps); }

 private:
  const char* const name_;
  const Function function_;
};

class Peer : public Child {
 public:
  Peer(const PeerBody& body, int width, End end = End::kImmediately);
};

// 32 and 64, as far as they were built. The suite that an instantiation with this makes runs each of its
// tests with either peer.
std::vector<int> PeerWidths();

// For the runner: whether bodies are registered but only this width was built.
bool LacksOtherWidth();
// For the runner: runs the body that the arguments ask for and yields the exit status; -1 when they ask for
// none.
int RunPeer(int argc, char** argv);

}  // namespace opltest

#endif
