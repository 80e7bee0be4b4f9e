// Waiting for many sockets of which one is ready, against poll on a table that is prepared once and for all.
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "OPL_Socket.h"
#include "bench/support/Bench.h"
#include "bench/support/Processes.h"

namespace {

using oplbench::Require;

constexpr size_t kMost = 4000;
constexpr double kTarget = 1.1;

// Local connections whose peers do not read what was sent to them. None can be written to, and only the first
// can be read from.
class Connections {
 public:
  Connections() {
    rlimit limit;
    Require(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
    limit.rlim_cur = limit.rlim_max;
    Require(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
    for (size_t i = 0; i < kMost; ++i) Connect();
    Require(::send(firstPeer_, "", 1, 0) == 1, "send");
  }

  // The last of the list is the one that is ready.
  std::vector<OPL_Socket*> Take(size_t count) const {
    std::vector<OPL_Socket*> list(sockets_.rend() - static_cast<std::ptrdiff_t>(count), sockets_.rend());
    list.push_back(nullptr);
    return list;
  }

 private:
  void Connect() {
    int ends[2];
    Require(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
    if (sockets_.empty()) firstPeer_ = ends[1];
    OPL_Socket* socket = nullptr;
    Require(OPL_SocketCreate(&socket, 0) == OPL_OK, "OPL_SocketCreate");
    Require(OPL_SocketSetNativeSocket(socket, ends[0]) == OPL_OK, "OPL_SocketSetNativeSocket");
    Require(OPL_SocketNonBlockingSet(socket, OPL_SOCKET_NON_BLOCKING) == OPL_OK, "OPL_SocketNonBlockingSet");
    const int least = 1;
    (void)OPL_SocketSetOption(socket, OPL_SOCKET_OPTION_SEND_BUFFER, &least, sizeof least);
    const char filling[4096] = {};
    uint32_t sent = 0;
    while (OPL_SocketSend(socket, &sent, filling, sizeof filling) == OPL_OK) {
    }
    sockets_.push_back(socket);
  }

  std::vector<OPL_Socket*> sockets_;
  int firstPeer_ = -1;
};

const Connections& AllConnections() {
  static const Connections connections;
  return connections;
}

template <size_t kCount, bool kThreeLists>
void Select(benchmark::State& state) {
  std::vector<OPL_Socket*> read = AllConnections().Take(kCount);
  std::vector<OPL_Socket*> write = kThreeLists ? read : std::vector<OPL_Socket*>{nullptr};
  std::vector<OPL_Socket*> except = write;
  std::vector<uint32_t> readable(kCount);
  std::vector<uint32_t> writable(kCount);
  std::vector<uint32_t> failed(kCount);
  const uint32_t noWait = 0;
  for (auto _ : state)
    Require(OPL_SocketSelect(0, read.data(), write.data(), except.data(), readable.data(), writable.data(),
                             failed.data(), &noWait) == OPL_OK,
            "OPL_SocketSelect");
  Require(readable[kCount - 1] == 1 && writable[kCount - 1] == 0 && failed[kCount - 1] == 0, "the results");
}

template <size_t kCount, bool kThreeLists>
void Poll(benchmark::State& state) {
  std::vector<pollfd> table;
  for (OPL_Socket* socket : AllConnections().Take(kCount)) {
    if (socket == nullptr) break;
    int32_t descriptor = -1;
    (void)OPL_SocketGetNativeSocket(socket, &descriptor);
    table.push_back({descriptor, kThreeLists ? POLLIN | POLLOUT | POLLERR : POLLIN, 0});
  }
  for (auto _ : state) Require(::poll(table.data(), table.size(), 0) == 1, "poll");
}

template <size_t kCount, bool kThreeLists>
oplbench::Row SelectRow() {
  const std::string lists = kThreeLists ? " in three lists" : " to read";
  return {"select: " + std::to_string(kCount) + lists,
          Select<kCount, kThreeLists>,
          {{"poll", Poll<kCount, kThreeLists>, kTarget}}};
}

const oplbench::Row kOne = SelectRow<1, false>();
const oplbench::Row kOneInThree = SelectRow<1, true>();
const oplbench::Row kSome = SelectRow<64, false>();
const oplbench::Row kSomeInThree = SelectRow<64, true>();
const oplbench::Row kMany = SelectRow<1000, false>();
const oplbench::Row kManyInThree = SelectRow<1000, true>();
const oplbench::Row kCrowd = SelectRow<kMost, false>();
const oplbench::Row kCrowdInThree = SelectRow<kMost, true>();

}  // namespace
