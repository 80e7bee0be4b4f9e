// Shared memory: making and ending a block, and attaching one that somebody else keeps alive, against the
// calls that neither can do without. Those take no lock, publish the file before the segment is ready, and
// leave its times alone.
#include <fcntl.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "OPL_Init.h"
#include "OPL_SharedMem.h"
#include "bench/support/Bench.h"
#include "bench/support/Processes.h"

namespace {

using oplbench::Require;

constexpr uint32_t kSize = 4096;

void CreateAndClose(benchmark::State& state) {
  for (auto _ : state) {
    OPL_SharedMem* memory = nullptr;
    void* address = nullptr;
    Require(OPL_SharedMemCreate(&memory, 0, "bench", &address, kSize, OPL_SHAREDMEM_PRIVATE) == OPL_OK,
            "OPL_SharedMemCreate");
    Require(OPL_SharedMemClose(&memory) == OPL_OK, "OPL_SharedMemClose");
  }
}

// A process opens a block once; another has it.
void OpenAndClose(benchmark::State& state) {
  const oplbench::Processes keeper(1, [](oplbench::Stint& stint) {
    Require(OPL_InitEnd(OPL_INIT_END_FORCED) == OPL_OK && OPL_InitBegin(0) == OPL_OK, "OPL_InitBegin");
    OPL_SharedMem* memory = nullptr;
    Require(OPL_SharedMemCreate(&memory, 0, "bench", nullptr, kSize, OPL_SHAREDMEM_PRIVATE) == OPL_OK,
            "OPL_SharedMemCreate");
    stint.Begin();
    (void)OPL_SharedMemClose(&memory);
    (void)OPL_InitEnd(0);
  });
  for (auto _ : state) {
    OPL_SharedMem* memory = nullptr;
    void* address = nullptr;
    Require(OPL_SharedMemOpen(&memory, 0, "bench", &address, OPL_SHAREDMEM_PRIVATE) == OPL_OK,
            "OPL_SharedMemOpen");
    Require(OPL_SharedMemClose(&memory) == OPL_OK, "OPL_SharedMemClose");
  }
}

// A segment and the file that names it.
class RawBlock {
 public:
  RawBlock() : file_(std::string(std::getenv("QVOPL_IPC_PATH")) + "/bench.raw") {}

  void Make() {
    const int fd = ::open(file_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    Require(fd != -1, "open");
    id_ = ::shmget(IPC_PRIVATE, kSize, 0600);
    Require(id_ != -1, "shmget");
    Require(::write(fd, &id_, sizeof id_) == sizeof id_, "write");
    (void)::close(fd);
  }
  void Find() {
    const int fd = ::open(file_.c_str(), O_RDWR | O_CLOEXEC);
    Require(fd != -1, "open");
    Require(::read(fd, &id_, sizeof id_) == sizeof id_, "read");
    (void)::close(fd);
  }
  void Attach() {
    address_ = static_cast<volatile uint32_t*>(::shmat(id_, nullptr, 0));
    Require(address_ != reinterpret_cast<void*>(-1), "shmat");
    *address_ = *address_ + 1;
  }
  void Detach() { Require(::shmdt(const_cast<uint32_t*>(address_)) == 0, "shmdt"); }
  void Remove() {
    (void)::shmctl(id_, IPC_RMID, nullptr);
    (void)::unlink(file_.c_str());
  }

 private:
  const std::string file_;
  int id_ = -1;
  volatile uint32_t* address_ = nullptr;
};

void RawCreateAndClose(benchmark::State& state) {
  RawBlock block;
  for (auto _ : state) {
    block.Make();
    block.Attach();
    block.Detach();
    block.Remove();
  }
}

void RawOpenAndClose(benchmark::State& state) {
  RawBlock kept;
  kept.Make();
  for (auto _ : state) {
    RawBlock block;
    block.Find();
    block.Attach();
    block.Detach();
  }
  kept.Remove();
}

// The limits are for a machine on which the raw calls take 17 and 9 us; elsewhere the ratios tell more.
constexpr double kCreateLimitNs = 50e3;
constexpr double kOpenLimitNs = 20e3;
const oplbench::Row kCreate("shared memory: create, close", CreateAndClose,
                            {{"raw calls", RawCreateAndClose, kCreateLimitNs / 17e3}}, oplbench::Clock::kCpu,
                            kCreateLimitNs);
const oplbench::Row kOpen("shared memory: open, close", OpenAndClose,
                          {{"raw calls", RawOpenAndClose, kOpenLimitNs / 9e3}}, oplbench::Clock::kCpu,
                          kOpenLimitNs);

}  // namespace
