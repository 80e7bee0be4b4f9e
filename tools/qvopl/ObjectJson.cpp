// Objects in JSON: everything that is known, under names that stay.
#include <nlohmann/json.hpp>

#include "tools/qvopl/Objects.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

constexpr const char* kScopeNames[] = {"instance", "all", "none"};

Json ToJson(const Permissions& permissions) {
  return {{"owner", permissions.owner},
          {"group", permissions.group},
          {"creator", permissions.creator},
          {"mode", Mode(permissions.mode)}};
}

Json ToJson(const SetStatus& set) {
  Json semaphores = Json::array();
  for (const Semaphore& semaphore : set.semaphores)
    semaphores.push_back({{"value", semaphore.value},
                          {"lastOperatedBy", semaphore.last},
                          {"waitingToRise", semaphore.waitingToRise},
                          {"waitingForZero", semaphore.waitingForZero}});
  return {{"id", set.id},           {"permissions", ToJson(set.permissions)},
          {"count", set.count},     {"operated", set.operated},
          {"changed", set.changed}, {"semaphores", std::move(semaphores)}};
}

Json ToJson(const SegmentStatus& segment) {
  return {{"id", segment.id},
          {"permissions", ToJson(segment.permissions)},
          {"size", segment.size},
          {"attached", segment.attached},
          {"creator", segment.creator},
          {"lastOperatedBy", segment.last},
          {"attachedAt", segment.attachedAt},
          {"detachedAt", segment.detachedAt},
          {"changed", segment.changed},
          {"removed", segment.isRemoved}};
}

Json ToJson(const QueueStatus& queue) {
  return {{"id", queue.id},
          {"permissions", ToJson(queue.permissions)},
          {"messages", queue.messages},
          {"bytes", queue.bytes},
          {"most", queue.most},
          {"lastSender", queue.lastSender},
          {"lastReceiver", queue.lastReceiver},
          {"sent", queue.sent},
          {"received", queue.received},
          {"changed", queue.changed}};
}

Json ToJson(const struct stat& status) {
  return {{"size", status.st_size},      {"links", status.st_nlink},    {"inode", status.st_ino},
          {"accessed", status.st_atime}, {"modified", status.st_mtime}, {"changed", status.st_ctime}};
}

}  // namespace

Json ToJson(const Object& object) {
  const FileName& name = object.entry.name;
  const struct stat& status = object.entry.status;
  Json json = {{"kind", NameOf(name.kind)},
               {"name", JsonText(name.name)},
               {"scope", kScopeNames[static_cast<size_t>(name.scope)]},
               {"file", JsonText(object.entry.file)},
               {"version", name.version},
               {"owner", {{"id", status.st_uid}, {"name", UserName(status.st_uid)}}},
               {"mode", Mode(status.st_mode)},
               {"condition", NameOf(object.condition)},
               {"state", object.state}};
  if (object.id.has_value()) json["id"] = *object.id;
  if (object.users.has_value()) json["users"] = *object.users;
  if (object.lastUsed.value_or(0) != 0) json["lastUsed"] = *object.lastUsed;
  for (const Fact& fact : object.facts)
    std::visit([&](const auto& value) { json[fact.name] = value; }, fact.value);
  json["times"] = ToJson(status);
  if (object.set.has_value()) json["set"] = ToJson(*object.set);
  if (object.segment.has_value()) json["segment"] = ToJson(*object.segment);
  if (object.queue.has_value()) json["queue"] = ToJson(*object.queue);
  return json;
}

std::string Dump(const Json& json, int indent) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

Json ToJson(const Group& group) {
  Json objects = Json::array();
  for (const Object& object : group.objects) objects.push_back(ToJson(object));
  return {{"scope", kScopeNames[static_cast<size_t>(group.scope)]},
          {"instance", JsonText(group.instance)},
          {"objects", std::move(objects)}};
}

}  // namespace qvopl
