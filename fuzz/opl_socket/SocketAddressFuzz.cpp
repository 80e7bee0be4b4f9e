// Any bytes as a packed address, as another process may send them. Whatever they are:
//
//   - they come out again as they went in, and a buffer that is too small changes nothing;
//   - every function tells of them what stands in them, or refuses their family and writes nothing;
//   - no text is longer than its buffer, though none of the bytes may be a terminator (buffers lie on the
//   heap
//     with their exact sizes).
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "OPL_Init.h"
#include "OPL_Socket.h"
#include "fuzz/support/Input.h"
#include "tests/support/IpcNamespace.h"

namespace {

using oplfuzz::Check;
using Packed = std::array<uint8_t, OPL_SOCKET_ADDRESS_PACKED_SIZE>;

constexpr uint16_t kLocal = 1;
constexpr uint16_t kInet = 2;
constexpr uint32_t kUntouched = 0xA5A5A5A5;
constexpr uint8_t kUntouchedByte = 0xA5;

std::string gDirectory;

// What stands in packed bytes.
template <typename Field>
Field FieldAt(const Packed& packed, size_t offset) {
  Field field{};
  std::memcpy(&field, packed.data() + offset, sizeof field);
  return field;
}
uint16_t FamilyOf(const Packed& packed) { return FieldAt<uint16_t>(packed, 0); }
uint16_t PortOf(const Packed& packed) { return FieldAt<uint16_t>(packed, 2); }
uint32_t NumberOf(const Packed& packed) { return FieldAt<uint32_t>(packed, 4); }

std::string TextOf(const Packed& packed) {
  char text[sizeof "255.255.255.255"];
  (void)std::snprintf(text, sizeof text, "%u.%u.%u.%u", packed[4], packed[5], packed[6], packed[7]);
  return text;
}

std::string PathOf(const Packed& packed, size_t most) {
  const char* const path = reinterpret_cast<const char*>(packed.data()) + 2;
  return {path, ::strnlen(path, most)};
}

class Address {
 public:
  Address() { Check(OPL_SocketAddressCreate(&handle_, 0) == OPL_OK); }
  ~Address() { Check(OPL_SocketAddressDestroy(&handle_) == OPL_OK && handle_ == nullptr); }
  Address(const Address&) = delete;
  Address& operator=(const Address&) = delete;

  operator OPL_SocketAddress*() const { return handle_; }

  OPL_Result Unpack(const Packed& packed, uint32_t size) {
    const auto buffer = std::make_unique<uint8_t[]>(size);
    std::copy_n(packed.data(), std::min<size_t>(size, packed.size()), buffer.get());
    return OPL_SocketAddressPackedAddrFill(handle_, buffer.get(), size);
  }
  Packed Pack() const {
    const auto buffer = std::make_unique<Packed>();
    Check(OPL_SocketAddressPackedBufferFill(handle_, buffer->data(), sizeof(Packed)) == OPL_OK);
    return *buffer;
  }

 private:
  OPL_SocketAddress* handle_ = nullptr;
};

Packed Draw(oplfuzz::Input* input) {
  Packed packed;
  for (uint8_t& byte : packed) byte = input->Byte();
  return packed;
}

// Mostly one byte off another address, so that there is something to compare.
Packed DrawNear(oplfuzz::Input* input, const Packed& other) {
  if (input->Below(4) == 0) return Draw(input);
  Packed packed = other;
  packed[input->Below(OPL_SOCKET_ADDRESS_PACKED_SIZE)] ^= input->Byte();
  return packed;
}

void CheckSizes(const Packed& packed, uint32_t size) {
  Address address;
  const Packed before = address.Pack();
  const bool isEnough = size >= packed.size();
  const OPL_Result expected = isEnough ? OPL_Result{OPL_OK} : OPL_Result{OPL_SOCKET_E_TOO_SMALL};
  Check(address.Unpack(packed, size) == expected);
  Check(address.Pack() == (isEnough ? packed : before));
  const auto buffer = std::make_unique<uint8_t[]>(size);
  std::fill_n(buffer.get(), size, kUntouchedByte);
  Check(OPL_SocketAddressPackedBufferFill(address, buffer.get(), size) == expected);
  const size_t written = isEnough ? packed.size() : 0;
  Check(std::equal(buffer.get(), buffer.get() + written, packed.begin()));
  Check(std::all_of(buffer.get() + written, buffer.get() + size,
                    [](uint8_t byte) { return byte == kUntouchedByte; }));
}

void CheckInet(OPL_SocketAddress* address, const Packed& packed) {
  const bool isInet = FamilyOf(packed) == kInet;
  const OPL_Result expected = isInet ? OPL_Result{OPL_OK} : OPL_Result{OPL_SOCKET_E_BAD_FAMILY};
  const uint32_t port = isInet ? PortOf(packed) : kUntouched;
  const uint32_t number = isInet ? NumberOf(packed) : kUntouched;
  std::string text(OPL_SOCKET_INET_TEXT_SIZE, isInet ? '\0' : static_cast<char>(kUntouchedByte));
  if (isInet) text.replace(0, TextOf(packed).size(), TextOf(packed));

  uint32_t foundPort = kUntouched;
  Check(OPL_SocketAddressInetGetPort(address, &foundPort) == expected && foundPort == port);
  uint32_t foundNumber = kUntouched;
  Check(OPL_SocketAddressInetULongGet(address, &foundPort, &foundNumber) == expected);
  Check(foundPort == port && foundNumber == number);
  const auto found = std::make_unique<char[]>(text.size());
  std::fill_n(found.get(), text.size(), static_cast<char>(kUntouchedByte));
  Check(OPL_SocketAddressInetStringGet(address, &foundPort, found.get()) == expected);
  Check(foundPort == port && std::equal(text.begin(), text.end(), found.get()));
}

// The text of an address stands for it, but for the one that also stands for no address.
void CheckText(const Packed& packed) {
  Address address;
  const OPL_Result expected =
      NumberOf(packed) == INADDR_NONE ? OPL_Result{OPL_SOCKET_E_INET_ADDR} : OPL_Result{OPL_OK};
  Check(OPL_SocketAddressInetStringSet(address, PortOf(packed), TextOf(packed).c_str()) == expected);
  const Packed made = address.Pack();
  Check(FamilyOf(made) == kInet && PortOf(made) == PortOf(packed) && NumberOf(made) == NumberOf(packed));
}

void CheckPath(OPL_SocketAddress* address, const Packed& packed) {
  const std::string path = PathOf(packed, OPL_SOCKET_PATH_MAX);
  const auto found = std::make_unique<char[]>(path.size() + 1);
  Check(OPL_SocketAddressUnixGet(address, found.get()) == OPL_OK);
  Check(found.get() == path);
}

void CheckComparison(const Packed& first, const Packed& second) {
  Address a;
  Address b;
  Check(a.Unpack(first, sizeof first) == OPL_OK && b.Unpack(second, sizeof second) == OPL_OK);
  const uint16_t family = FamilyOf(first);
  const bool isComparable = family == FamilyOf(second) && (family == kLocal || family == kInet);
  constexpr size_t kPath = sizeof(Packed) - 4;
  const bool isEqual = isComparable && (family == kInet ? NumberOf(first) == NumberOf(second)
                                                        : PathOf(first, kPath) == PathOf(second, kPath));
  for (const auto& [one, other] : {std::pair(&a, &b), std::pair(&b, &a)}) {
    uint32_t found = kUntouched;
    Check(OPL_SocketAddressCompare(*one, *other, &found) ==
          (isComparable ? OPL_Result{OPL_OK} : OPL_Result{OPL_SOCKET_E_BAD_FAMILY}));
    Check(found == (isEqual ? 1 : 0));
  }
  Check(OPL_SocketAddressCopy(a, b) == OPL_OK);
  Check(a.Pack() == first && b.Pack() == first);
}

void End() {
  (void)OPL_InitEnd(0);
  (void)::rmdir(gDirectory.c_str());
}

}  // namespace

// Begins the library in an IPC directory of its own.
extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
  (void)opltest::EnterIpcNamespace();
  gDirectory = "/tmp/qvopl-fuzz.XXXXXX";
  Check(::mkdtemp(gDirectory.data()) != nullptr);
  (void)::setenv("QVOPL_IPC_PATH", gDirectory.c_str(), 1);
  Check(OPL_InitBegin(0) == OPL_OK);
  (void)std::atexit(End);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  oplfuzz::Input input(data, size);
  const uint32_t bufferSize = input.Coin() ? input.Below(sizeof(Packed) + 8) : sizeof(Packed);
  const Packed packed = Draw(&input);
  CheckSizes(packed, bufferSize);
  CheckText(packed);
  CheckComparison(packed, DrawNear(&input, packed));

  Address address;
  Check(address.Unpack(packed, sizeof packed) == OPL_OK);
  CheckInet(address, packed);
  CheckPath(address, packed);
  Check(address.Pack() == packed);
  return 0;
}
