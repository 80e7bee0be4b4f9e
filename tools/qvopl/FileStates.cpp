// The states of what is a file, a segment or a queue.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <string>

#include "opl_private/src/ObjectLayout.h"
#include "tools/qvopl/States.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

std::optional<uint32_t> HandlesOf(View* view, int32_t id) {
  const auto found = view->processes.Attachments().find(id);
  if (found == view->processes.Attachments().end()) return std::nullopt;
  for (const Attachment& attachment : found->second)
    if (const std::optional<uint32_t> handles = HandlesIn(attachment)) return handles;
  return std::nullopt;
}

// The system's table tells a file by its number alone, and not on every file system by the same; a file that
// can be opened is asked itself. How many wait only the table tells.
FileLock LockOn(View* view, const Entry& entry) {
  const FileLock listed = view->locks.On(entry.status.st_ino);
  Reading reading = Reading::kDone;
  const opl::Fd file = view->directory.OpenFile(entry, &reading);
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (!file.IsOpen() || ::fcntl(file.Get(), F_GETLK, &lock) == -1) return listed;
  if (lock.l_type == F_UNLCK) return {};
  const pid_t holder = lock.l_pid > 0 ? lock.l_pid : -1;
  return {holder, holder == listed.holder ? listed.waiting : 0};
}

// Posts are the bytes that wait in the FIFO.
std::optional<int64_t> PostsOf(const View& view, const Entry& fifo, Reading* reading) {
  const opl::Fd fd = view.directory.OpenFifo(fifo, reading);
  int bytes = 0;
  if (!fd.IsOpen() || ::ioctl(fd.Get(), FIONREAD, &bytes) == -1) return std::nullopt;
  return bytes;
}

}  // namespace

bool FillInSegment(View* view, Object* object) {
  const Word word = view->directory.ReadWord(object->entry);
  if (word.reading != Reading::kDone) return SetUnread(object, word.reading);
  object->id = word.value;
  SegmentStatus segment;
  if (view->systemV.LookAt(word.value, &segment) == Sight::kGone) {
    if (!view->directory.StatusOf(object->entry.file).has_value()) return false;
    SetState(object, Condition::kBroken, "its segment is gone");
    return true;
  }
  object->segment = segment;
  object->lastUsed = std::max(segment.attachedAt, segment.detachedAt);
  if (!IsOwned(object, segment.permissions)) return true;
  if (segment.size < sizeof(opl::SegmentHeader)) {
    SetState(object, Condition::kBroken, "names a segment of " + Size(segment.size));
    return true;
  }
  const std::optional<uint32_t> handles = HandlesOf(view, word.value);
  if (handles.has_value()) object->users = *handles;
  AddFact(object, "size", static_cast<int64_t>(segment.size - sizeof(opl::SegmentHeader)));
  AddFact(object, "attached", static_cast<int64_t>(segment.attached));
  if (handles.has_value()) AddFact(object, "count", int64_t{*handles});
  std::string state = Size(segment.size - sizeof(opl::SegmentHeader)) + ", " +
                      Number(static_cast<int64_t>(segment.attached)) + " attached";
  if (handles.has_value()) state += ", count " + Number(*handles);
  SetState(object, Condition::kFine, state);
  return true;
}

bool FillInEvent(View* view, Object* object) {
  if (object->entry.name.isCount) {
    if (view->directory.StatusOf(FifoOf(object->entry.file)).has_value()) return false;
    SetState(object, Condition::kBroken, "a count file without its FIFO");
    return true;
  }
  Reading reading = Reading::kDone;
  const std::optional<int64_t> posts = PostsOf(*view, object->entry, &reading);
  if (reading != Reading::kDone) return SetUnread(object, reading);
  object->lastUsed = object->entry.status.st_mtime <= view->now ? object->entry.status.st_mtime : 0;
  Word count;
  if (object->count.has_value()) count = view->directory.ReadWord(*object->count);
  const bool isSet = posts.value_or(0) != 0;
  std::string state = isSet ? "set, " + Count(*posts, "post") : "clear";
  AddFact(object, "set", isSet);
  AddFact(object, "posts", posts.value_or(0));
  if (count.reading == Reading::kDone) {
    object->users = count.value;
    AddFact(object, "handles", int64_t{count.value});
    state += ", " + Count(count.value, "handle");
  } else if (count.reading == Reading::kGone) {
    if (!view->directory.StatusOf(object->entry.file).has_value()) return false;
    SetState(object, Condition::kBroken, state + ", without its count file");
    return true;
  } else {
    state += std::string(", its count ") + TextOf(count.reading);
  }
  SetState(object, isSet ? Condition::kBusy : Condition::kFine, state);
  return true;
}

bool FillInLockFile(View* view, Object* object) {
  const FileLock lock = LockOn(view, object->entry);
  AddFact(object, "held", lock.holder != 0);
  if (lock.holder != 0) AddFact(object, "holder", int64_t{lock.holder});
  AddFact(object, "waiting", int64_t{lock.waiting});
  if (lock.holder == 0) {
    SetState(object, Condition::kFine, "held by nobody");
    return true;
  }
  SetState(object, Condition::kBusy, "held by " + view->processes.Describe(lock.holder));
  if (lock.waiting != 0) object->state += ", " + Number(lock.waiting) + " waiting";
  return true;
}

bool FillInSocket(View* view, Object* object) {
  const auto sockets = view->sockets.At(view->directory.fd(), object->entry.file);
  bool isListening = false;
  for (const BoundSocket& socket : sockets) isListening |= socket.isListening;
  AddFact(object, "bound", !sockets.empty());
  AddFact(object, "listening", isListening);
  if (sockets.empty())
    SetState(object, Condition::kBroken, "bound by nobody: its process is gone");
  else
    SetState(object, Condition::kFine, isListening ? "listening" : "bound");
  return true;
}

bool FillInServer(View* view, Object* object) {
  const Word word = view->directory.ReadWord(object->entry);
  if (word.reading != Reading::kDone) return SetUnread(object, word.reading);
  const bool runs = word.value > 0 && view->processes.IsSince(word.value, object->entry.status.st_ctime);
  AddFact(object, "process", int64_t{word.value});
  AddFact(object, "running", runs);
  if (runs)
    SetState(object, Condition::kFine, "running as " + view->processes.Describe(word.value));
  else
    SetState(object, Condition::kBroken, "process " + std::to_string(word.value) + " is gone");
  return true;
}

bool FillInRegisteredQueue(View* view, Object* object) {
  if (!object->entry.name.nativeId.has_value()) {
    SetState(object, Condition::kBroken, "registers nothing: no number in its name");
    return true;
  }
  object->id = static_cast<int32_t>(*object->entry.name.nativeId);
  QueueStatus queue;
  if (view->systemV.LookAt(*object->id, &queue) == Sight::kGone) {
    SetState(object, Condition::kBroken, "its queue is gone");
    return true;
  }
  object->queue = queue;
  object->lastUsed = std::max(queue.sent, queue.received);
  if (!IsOwned(object, queue.permissions)) return true;
  AddFact(object, "messages", static_cast<int64_t>(queue.messages));
  std::string state = Count(static_cast<int64_t>(queue.messages), "message");
  if (queue.messages != 0) state += ", " + Size(queue.bytes);
  SetState(object, Condition::kFine, state);
  return true;
}

}  // namespace qvopl
