#include "tests/support/Peer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "tests/support/Instance.h"

namespace opltest {

namespace {

constexpr char kPeerOption[] = "--peer";  // --peer NAME TO-PARENT FROM-PARENT immediately|ordinarily
constexpr char kOrdinarily[] = "ordinarily";
constexpr int kPeerArguments = 6;

// Filled while the program is loaded, only read after.
constexpr int kMostBodies = 32;
const PeerBody* gBodies[kMostBodies];
int gBodyCount = 0;

// This program's path with the width in the build directory's name exchanged; empty when there is none.
std::string ProgramOf(int width) {
  const std::filesystem::path own = std::filesystem::read_symlink("/proc/self/exe");
  if (width == kWidth) return own;
  const std::filesystem::path build = own.parent_path().parent_path();
  const std::string suffix = "-" + std::to_string(kWidth);
  std::string name = build.filename();
  if (!name.ends_with(suffix)) return "";
  name.replace(name.size() - suffix.size(), suffix.size(), "-" + std::to_string(width));
  const std::string program = build.parent_path() / name / own.parent_path().filename() / own.filename();
  return ::access(program.c_str(), X_OK) == 0 ? program : "";
}

// The new program finds the pipes under the same numbers.
void Inherit(int fd) { (void)::fcntl(fd, F_SETFD, 0); }

}  // namespace

PeerBody::PeerBody(const char* name, Function function) : name_(name), function_(function) {
  if (gBodyCount == kMostBodies) std::abort();
  gBodies[gBodyCount++] = this;
}

Peer::Peer(const PeerBody& body, int width, End end)
    : Child([&, program = ProgramOf(width)](Steps& steps) {
        Inherit(steps.toParent());
        Inherit(steps.fromParent());
        (void)::execl(program.c_str(), program.c_str(), kPeerOption, body.name(),
                      std::to_string(steps.toParent()).c_str(), std::to_string(steps.fromParent()).c_str(),
                      end == End::kOrdinarily ? kOrdinarily : "immediately", nullptr);
        ::_exit(127);
      }) {}

std::vector<int> PeerWidths() {
  std::vector<int> widths;
  for (const int width : {32, 64})
    if (!ProgramOf(width).empty()) widths.push_back(width);
  return widths;
}

bool LacksOtherWidth() { return gBodyCount != 0 && PeerWidths().size() == 1; }

int RunPeer(int argc, char** argv) {
  if (argc != kPeerArguments || std::strcmp(argv[1], kPeerOption) != 0) return -1;
  Steps steps(std::atoi(argv[3]), std::atoi(argv[4]));
  for (int i = 0; i < gBodyCount; ++i)
    if (std::strcmp(gBodies[i]->name(), argv[2]) == 0) {
      (*gBodies[i])(steps);
      std::fflush(nullptr);
      const int status = ::testing::Test::HasFailure() ? 1 : 0;
      if (std::strcmp(argv[5], kOrdinarily) == 0) std::exit(status);
      ::_exit(status);
    }
  return 127;
}

}  // namespace opltest
