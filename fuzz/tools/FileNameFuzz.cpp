// Names of files in the IPC directory. What a name says, put together, is the name again; and a name that the
// library makes says what it was made of.
#include "tools/qvopl/FileName.h"

#include <cstdio>
#include <string>
#include <string_view>

#include "fuzz/support/Input.h"
#include "opl_private/src/ObjectLayout.h"
#include "opl_server/src/ControllerFile.h"

namespace {

using oplfuzz::Check;
using qvopl::FileName;
using qvopl::Kind;
using qvopl::Scope;

constexpr char kListing[] = "OPL_ServerInfoGet.OUTPUT.";
constexpr char kVersion[] = ".006.021";

struct Marker {
  Kind kind;
  std::string text;
};
const Marker kMarkers[] = {
    {Kind::kMutex, opl::kMutexMarker},
    {Kind::kRWLock, opl::kRWLockMarker},
    {Kind::kEvent, opl::kEventMarker},
    {Kind::kSegment, opl::kSegmentMarker},
    {Kind::kLockFile, opl::kLockFileMarker},
    {Kind::kSocket, opl::kSocketMarker},
    {Kind::kSemaphores, opl::kSemNativeMarker},
    {Kind::kMessageQueue, opl::kMsgqNativeMarker},
    {Kind::kServer, std::string(".") + opl::kControllerMarker + "."},
};

const std::string& MarkerOf(Kind kind) {
  for (const Marker& marker : kMarkers)
    if (marker.kind == kind) return marker.text;
  Check(false);
  return kMarkers[0].text;
}

bool IsRegistered(Kind kind) { return kind == Kind::kSemaphores || kind == Kind::kMessageQueue; }

// Takes what has to stand there.
void Take(std::string_view* rest, std::string_view text) {
  Check(rest->starts_with(text));
  rest->remove_prefix(text.size());
}

void TakeId(std::string_view* rest, const FileName& name) {
  const std::string id(rest->substr(0, rest->find('.')));
  Take(rest, id + ".");
  Check(name.nativeId.has_value() ==
        (!id.empty() && id.find_first_not_of("0123456789") == std::string::npos &&
         std::strtoull(id.c_str(), nullptr, 10) <= UINT32_MAX));
  if (name.nativeId.has_value()) Check(std::strtoull(id.c_str(), nullptr, 10) == *name.nativeId);
}

void CheckParts(const FileName& name, std::string_view file) {
  if (name.kind == Kind::kListing) {
    Take(&file, kListing);
    return Check(file == name.name);
  }
  Take(&file, name.kind == Kind::kManagement ? opl::kMgmtPrefix : name.name + MarkerOf(name.kind));
  if (IsRegistered(name.kind)) TakeId(&file, name);
  Take(&file, name.scope == Scope::kAllUsers ? opl::kAllUsersScope : name.instance);
  Take(&file, "." + name.version);
  if (name.isCount) Take(&file, opl::kEventCountSuffix);
  Check(name.isTemporary == !file.empty());
  if (!name.isTemporary) return;
  Take(&file, ".");
  Check(static_cast<uint32_t>(name.maker) == std::strtoul(std::string(file).c_str(), nullptr, 16));
}

// Pieces that mean something, and others.
std::string DrawFile(oplfuzz::Input* input) {
  std::string file;
  while (!input->IsEmpty() && file.size() < 255) {
    switch (input->Below(8)) {
      case 0:
        file += opl::kMgmtPrefix;
        break;
      case 1:
        file += kListing;
        break;
      case 2:
        file += input->Coin() ? kVersion : ".005.010";
        break;
      case 3:
        file += input->Coin() ? opl::kEventCountSuffix : opl::kAllUsersScope;
        break;
      case 4:
      case 5:
        file += kMarkers[input->Below(std::size(kMarkers))].text;
        break;
      default:
        file += input->Text(12);
    }
  }
  return file;
}

// Nothing behind the name may be taken for another marker.
bool IsAmbiguous(const std::string& text, size_t marker) {
  if (text.starts_with(opl::kMgmtPrefix) || text.starts_with(kListing)) return true;
  for (const Marker& other : kMarkers)
    if (const size_t last = text.rfind(other.text); last != std::string::npos && last > marker) return true;
  return false;
}

std::string Hexadecimal(uint32_t number) {
  char text[16];
  (void)std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(number));
  return text;
}

void CheckMade(oplfuzz::Input* input) {
  FileName made;
  const Marker& marker = kMarkers[input->Below(std::size(kMarkers))];
  made.kind = marker.kind;
  made.name = input->Text(11);
  made.instance = input->Text(16);
  if (made.instance.empty() || made.instance == opl::kAllUsersScope) made.instance = "i";
  std::string file = made.name + marker.text;
  if (IsRegistered(made.kind)) made.nativeId = input->Word();
  if (IsRegistered(made.kind)) file += std::to_string(*made.nativeId) + ".";
  file += made.instance;
  if (IsAmbiguous(file, made.name.size())) return;
  file += kVersion;
  made.isCount = made.kind == Kind::kEvent && input->Coin();
  if (made.isCount) file += opl::kEventCountSuffix;
  made.isTemporary = input->Coin();
  if (made.isTemporary) made.maker = static_cast<pid_t>(input->Word());
  if (made.isTemporary)
    file += "." + Hexadecimal(static_cast<uint32_t>(made.maker)) + "." + Hexadecimal(input->Word());
  const auto parsed = qvopl::ParseFileName(file);
  Check(parsed.has_value());
  Check(parsed->kind == made.kind && parsed->name == made.name && parsed->instance == made.instance &&
        parsed->scope == Scope::kInstance && parsed->version == kVersion + 1 &&
        parsed->isCount == made.isCount && parsed->isTemporary == made.isTemporary &&
        parsed->maker == made.maker && parsed->nativeId == made.nativeId);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  oplfuzz::Input input(data, size);
  if (input.Coin()) {
    CheckMade(&input);
    return 0;
  }
  const std::string file = DrawFile(&input);
  if (const auto name = qvopl::ParseFileName(file)) CheckParts(*name, file);
  return 0;
}
