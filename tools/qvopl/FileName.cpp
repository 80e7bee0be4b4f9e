#include "tools/qvopl/FileName.h"

#include <array>
#include <cctype>
#include <charconv>

#include "OPL_Init.h"
#include "opl_private/src/ObjectLayout.h"
#include "opl_server/src/ControllerFile.h"

namespace qvopl {

namespace {

constexpr const char* kKindNames[] = {"management", "mutex",      "rwlock", "event",  "memory", "lockfile",
                                      "socket",     "semaphores", "queue",  "server", "listing"};

struct Marker {
  std::string text;
  Kind kind;
};

const std::array<Marker, 9>& Markers() {
  static const std::array<Marker, 9> kMarkers = {{
      {opl::kMutexMarker, Kind::kMutex},
      {opl::kRWLockMarker, Kind::kRWLock},
      {opl::kEventMarker, Kind::kEvent},
      {opl::kSegmentMarker, Kind::kSegment},
      {opl::kLockFileMarker, Kind::kLockFile},
      {opl::kSocketMarker, Kind::kSocket},
      {opl::kSemNativeMarker, Kind::kSemaphores},
      {opl::kMsgqNativeMarker, Kind::kMessageQueue},
      {std::string(".") + opl::kControllerMarker + ".", Kind::kServer},
  }};
  return kMarkers;
}

bool TakePrefix(std::string_view* text, std::string_view prefix) {
  if (!text->starts_with(prefix)) return false;
  text->remove_prefix(prefix.size());
  return true;
}

// A whole text as a number.
std::optional<uint32_t> ParseNumber(std::string_view text, int base) {
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return number;
}

// "006.021": two groups of three digits.
constexpr size_t kVersionSize = 7;

bool IsVersion(std::string_view text) {
  if (text.size() != kVersionSize || text[3] != '.') return false;
  for (size_t i = 0; i < text.size(); ++i)
    if (i != 3 && std::isdigit(static_cast<unsigned char>(text[i])) == 0) return false;
  return true;
}

// PID.NUMBER or PID, in hexadecimal.
bool ParseTemporary(std::string_view suffix, FileName* name) {
  const size_t dot = suffix.find('.');
  const auto maker = ParseNumber(suffix.substr(0, dot), 16);
  if (!maker.has_value()) return false;
  if (dot != std::string_view::npos && !ParseNumber(suffix.substr(dot + 1), 16).has_value()) return false;
  name->isTemporary = true;
  name->maker = static_cast<pid_t>(*maker);
  return true;
}

// Takes the version that ends there and what stands behind it, as far as that is a known ending.
bool TakeVersionAt(size_t end, std::string_view* text, FileName* name) {
  const std::string_view version = text->substr(end - kVersionSize, kVersionSize);
  if (!IsVersion(version) || (*text)[end - kVersionSize - 1] != '.') return false;
  std::string_view rest = text->substr(end);
  FileName parsed = *name;
  if (TakePrefix(&rest, opl::kEventCountSuffix)) parsed.isCount = true;
  if (!rest.empty() && (!TakePrefix(&rest, ".") || !ParseTemporary(rest, &parsed))) return false;
  parsed.version = version;
  *name = parsed;
  *text = text->substr(0, end - kVersionSize - 1);
  return true;
}

// This build's version before any other: process and number of a temporary name may look like one.
bool TakeVersion(std::string_view* text, FileName* name) {
  const size_t own = text->rfind("." + BuildVersion());
  if (own != std::string_view::npos && TakeVersionAt(own + 1 + kVersionSize, text, name)) return true;
  for (size_t end = text->size(); end > kVersionSize; --end)
    if (TakeVersionAt(end, text, name)) return true;
  return false;
}

void SetScope(std::string_view scope, FileName* name) {
  name->scope = scope.empty()                  ? Scope::kNone
                : scope == opl::kAllUsersScope ? Scope::kAllUsers
                                               : Scope::kInstance;
  if (name->scope == Scope::kInstance) name->instance = scope;
}

// Registered objects have their id before the instance.
bool TakeNativeId(std::string_view* scope, FileName* name) {
  if (name->kind != Kind::kSemaphores && name->kind != Kind::kMessageQueue) return true;
  const size_t dot = scope->find('.');
  if (dot == std::string_view::npos) return false;
  name->nativeId = ParseNumber(scope->substr(0, dot), 10);
  scope->remove_prefix(dot + 1);
  return true;
}

std::optional<FileName> ParseObject(std::string_view text, FileName name) {
  const Marker* found = nullptr;
  size_t at = 0;
  for (const Marker& marker : Markers()) {
    const size_t last = text.rfind(marker.text);
    if (last == std::string_view::npos || (found != nullptr && last < at)) continue;
    found = &marker;
    at = last;
  }
  if (found == nullptr) return std::nullopt;
  name.kind = found->kind;
  name.name = text.substr(0, at);
  std::string_view scope = text.substr(at + found->text.size());
  if (!TakeNativeId(&scope, &name)) return std::nullopt;
  if (name.isCount && name.kind != Kind::kEvent) return std::nullopt;
  SetScope(scope, &name);
  return name;
}

// PREFIX.PROCESS-THREAD in decimal.
std::optional<FileName> ParseListing(std::string_view text) {
  const size_t dash = text.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  const auto maker = ParseNumber(text.substr(0, dash), 10);
  if (!maker.has_value()) return std::nullopt;
  FileName name;
  name.kind = Kind::kListing;
  name.name = text;
  name.isTemporary = true;
  name.maker = static_cast<pid_t>(*maker);
  return name;
}

}  // namespace

const char* NameOf(Kind kind) { return kKindNames[static_cast<size_t>(kind)]; }

std::optional<FileName> ParseFileName(std::string_view file) {
  if (TakePrefix(&file, "OPL_ServerInfoGet.OUTPUT.")) return ParseListing(file);
  FileName name;
  if (!TakeVersion(&file, &name)) return std::nullopt;
  if (!TakePrefix(&file, opl::kMgmtPrefix)) return ParseObject(file, name);
  name.kind = Kind::kManagement;
  SetScope(file, &name);
  return name;
}

std::string FifoOf(const std::string& countFile) {
  return countFile.substr(0, countFile.size() - (sizeof opl::kEventCountSuffix - 1));
}

std::string BuildVersion() { return OPL_InitBuildVersionStringGet(0); }

}  // namespace qvopl
