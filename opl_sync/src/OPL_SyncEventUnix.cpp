// Named events: a FIFO in the IPC directory, set while it holds a byte, and beside it a count file with the
// number of handles that all processes have open.
//
// Creation, opening and closing run one at a time in an instance under the named mutex "QVMXEV", with signals
// blocked; it guards the count files and this process's table. Posting, resetting and looking take no lock.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "OPL_Crt.h"
#include "OPL_Init.h"
#include "OPL_Private.h"
#include "OPL_Sync.h"
#include "opl_base/src/Deadline.h"
#include "opl_base/src/Fd.h"
#include "opl_base/src/FixedText.h"
#include "opl_base/src/Retry.h"
#include "opl_base/src/Undo.h"
#include "opl_err/src/Fail.h"
#include "opl_err/src/MessageKeeper.h"
#include "opl_file/src/IpcFiles.h"
#include "opl_mem/src/Owned.h"
#include "opl_private/src/FutureTime.h"
#include "opl_private/src/IpcFile.h"
#include "opl_private/src/IpcName.h"
#include "opl_private/src/ObjectFile.h"
#include "opl_private/src/ObjectLayout.h"
#include "opl_sig/src/SignalBlock.h"
#include "opl_sync/src/ProcessLock.h"
#include "opl_sync/src/SyncProcess.h"
#include "opl_thread/src/ForkGeneration.h"

struct OPL_SyncEvent {
  int32_t fd;  // the FIFO, never blocking
  char name[opl::kObjectNameSize];
  uint32_t flags;
  uint32_t
      generation;  // of the process that opened it; a child gives nothing back for what it only inherited
  opl::FileId fifo;
  bool isFirst;  // of its name in the process: the table has its descriptor
};

namespace {

using opl::Access;
using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::FileId;
using opl::NativeError;
using opl::ProcessLock;
using opl::RetryOnEintr;
using opl::Scope;

constexpr char kEventMutexName[] = "QVMXEV";
constexpr int kMutexAttempts = 3;
constexpr uint32_t kTableSize = 39;
constexpr uint32_t kPostPatienceMs = 5000;
constexpr size_t kDrainSize = 16384;

// Opened for reading and writing: the open never waits for another process, and the pipe has no end. Never
// blocking: a reset that finds nothing left must not wait, and a flag that comes and goes would be seen by
// the other threads of the process.
constexpr int kFifoFlags = O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
constexpr int kCountFlags = O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;

constexpr Access kAccess[] = {
    {OPL_SYNC_EVENT_PRIVATE, 0600, Scope::kInstance},
    {OPL_SYNC_EVENT_ALL, 0666, Scope::kAllUsers},
};

constexpr int32_t kClosed = -1;

struct Entry {
  int32_t fd;  // of the first handle of the name, kClosed after its close
  char name[opl::kObjectNameSize];
  uint32_t openCount;
  uint32_t flags;
  FileId fifo;
};

// Guards the making of the event mutex's handle. Deliberate: a failed unlock has the code of a failed lock.
ProcessLock gEventMutexLock(OPL_SYNC_E_LOCK);
OPL_SyncMutex* gEventMutex = nullptr;

// Guarded by the event mutex. An entry is in use while its name is not empty; the spare one is only ever
// read.
Entry gEntries[kTableSize + 1];
uint32_t gHighWater = 0;

// The names of an event's two files.
struct EventFiles {
  opl::IpcName fifo;
  char count[opl::kIpcNameSize + sizeof opl::kEventCountSuffix];

  EventFiles(const char* name, uint32_t flags) : fifo(name, opl::kEventMarker, opl::ScopeOf(kAccess, flags)) {
    (void)OPL_CrtSNPrintf(count, sizeof count, "%s%s", fifo.c_str(), opl::kEventCountSuffix);
  }
};

// A handle of the event mutex: made, or opened where it exists. Tried again while its maker vanishes in
// between.
Code MakeEventMutex(OPL_SyncMutex** pMutex) {
  Code rc = OPL_OK;
  for (int attempt = 0; attempt < kMutexAttempts; ++attempt) {
    rc = OPL_SyncMutexCreate(pMutex, 0, kEventMutexName, OPL_SYNC_MUTEX_PRIVATE);
    if (rc == OPL_SYNC_E_MUTEX_EXISTS)
      rc = OPL_SyncMutexOpen(pMutex, 0, kEventMutexName, OPL_SYNC_MUTEX_PRIVATE);
    if (rc != OPL_SYNC_E_MUTEX_MISSING) return rc;
  }
  return rc;
}

// Gives the process's handle, made on first use and made anew when removed is the handle whose set is gone.
Code GetEventMutex(const OPL_SyncMutex* removed, OPL_SyncMutex** pMutex) {
  ProcessLock::Hold hold(gEventMutexLock);
  if (const Code rc = hold.Take()) return rc;
  if (gEventMutex == nullptr || gEventMutex == removed) {
    OPL_SyncMutex* made = nullptr;
    if (const Code rc = MakeEventMutex(&made)) return rc;
    // The old handle is never released: other threads may be about to use it.
    gEventMutex = made;
  }
  *pMutex = gEventMutex;
  return hold.Release();
}

// Holds the event mutex.
class EventMutex {
 public:
  EventMutex() = default;
  ~EventMutex() {
    if (held_ == nullptr) return;
    const opl::MessageKeeper keepMessage;
    (void)OPL_SyncMutexRelease(held_);
  }
  EventMutex(const EventMutex&) = delete;
  EventMutex& operator=(const EventMutex&) = delete;

  // An administrator may remove the mutex under us: then a new one is made.
  [[nodiscard]] Code AcquireEventMutex() {
    OPL_SyncMutex* mutex = nullptr;
    Code rc = OPL_SYNC_E_MUTEX_MISSING;
    for (int attempt = 0; rc == OPL_SYNC_E_MUTEX_MISSING && attempt < kMutexAttempts; ++attempt) {
      OPL_SyncMutex* const removed = mutex;
      if (const Code made = GetEventMutex(removed, &mutex)) return made;
      rc = OPL_SyncMutexAcquire(mutex);
    }
    if (rc == OPL_OK) held_ = mutex;
    return rc;
  }

 private:
  OPL_SyncMutex* held_ = nullptr;
};

Code CountOpenFailed(const char* file) {
  const NativeError error;
  return Fail(Caller{"UpdateCountFile"}, error, OPL_SYNC_E_OPEN, "%s: OPL_CrtOpen(1) :%i,%s\nFile %s",
              error.number(), error.text(), file);
}

Code WriteCount(int fd, const char* file, uint32_t count) {
  const ssize_t written = RetryOnEintr([&] { return ::write(fd, &count, sizeof count); });
  if (written == sizeof count) return OPL_OK;
  const NativeError error(written == -1 ? errno : 0);
  return Fail(Caller{"UpdateCountFile"}, error, OPL_SYNC_E_WRITE, "%s: write rc :%i errno:%i,%s\nFile %s",
              static_cast<int32_t>(written), error.number(), error.text(), file);
}

Code ReadCount(int fd, const char* file, uint32_t* count) {
  const ssize_t length = RetryOnEintr([&] { return ::read(fd, count, sizeof *count); });
  if (length == sizeof *count) return OPL_OK;
  const NativeError error(length == -1 ? errno : 0);
  return Fail(Caller{"UpdateCountFile"}, error, OPL_SYNC_E_READ, "%s: read rc :%i errno:%i,%s\nFile %s",
              static_cast<int32_t>(length), error.number(), error.text(), file);
}

// Makes a count file that holds 1. It takes the place of one that a dead process left without its FIFO, and
// it appears whole.
Code MakeCountFile(const char* file, uint32_t mode) {
  opl::TemporaryName temporary(file);
  const opl::Fd fd(temporary.MakeFile(
      [&](const char* name) { return OPL_CrtOpen(name, kCountFlags | O_CREAT | O_EXCL, mode); }));
  if (!fd.IsOpen()) return CountOpenFailed(file);
  opl::Undo removeTemporary([&] { (void)::unlink(temporary.c_str()); });
  (void)::fchmod(fd.Get(), mode);
  if (const Code rc = WriteCount(fd.Get(), file, 1)) return rc;
  if (::rename(temporary.c_str(), file) == -1) return CountOpenFailed(file);
  removeTemporary.Keep();
  (void)OPL_PrivateSetAccessTimeInFuture(file);
  return OPL_OK;
}

// Adds delta to the count in the file; *pCount receives the new one.
Code UpdateCountFile(const char* file, int32_t delta, int32_t* pCount) {
  uint32_t count = 0;
  {
    const opl::Fd fd(OPL_CrtOpen(file, kCountFlags, 0));
    if (!fd.IsOpen()) return CountOpenFailed(file);
    if (const Code rc = ReadCount(fd.Get(), file, &count)) return rc;
  }
  count += static_cast<uint32_t>(delta);
  const opl::Fd fd(OPL_CrtOpen(file, kCountFlags, 0));
  if (!fd.IsOpen()) {
    const NativeError error;
    return Fail(error, OPL_SYNC_E_OPEN, "%s: OPL_CrtOpen(2) :%i,%s\nFile %s", error.number(), error.text(),
                file);
  }
  if (const Code rc = WriteCount(fd.Get(), file, count)) return rc;
  (void)OPL_PrivateSetAccessTimeInFuture(file);
  *pCount = static_cast<int32_t>(count);
  return OPL_OK;
}

Code AddEventInCleanupList(OPL_SyncEvent& event) {
  Entry* const end = gEntries + gHighWater;
  Entry* const known = std::find_if(
      gEntries, end, [&](const Entry& entry) { return std::strcmp(entry.name, event.name) == 0; });
  if (known != end) {
    ++known->openCount;
    return OPL_OK;
  }
  Entry* const last = gEntries + kTableSize;
  Entry* const free = std::find_if(gEntries, last, [](const Entry& entry) { return entry.name[0] == '\0'; });
  if (free == last) return Fail(OPL_SYNC_E_TABLE_FULL, "%s: Cleanup table is full");
  *free = {event.fd, {}, 1, event.flags, event.fifo};
  opl::CopyText(free->name, event.name);
  event.isFirst = true;
  // One beyond the entry.
  gHighWater = std::max(gHighWater, static_cast<uint32_t>(free - gEntries) + 2);
  return OPL_OK;
}

void RemoveEventFromCleanupList(const OPL_SyncEvent& event) {
  Entry* const end = gEntries + gHighWater;
  Entry* const entry = std::find_if(
      gEntries, end, [&](const Entry& other) { return std::strcmp(other.name, event.name) == 0; });
  if (entry == end) return;
  const bool isFirst = entry->fd == event.fd;
  // The table of a process that began anew has its own handles, not those that it inherited.
  if (!isFirst && !opl::IsOwnGeneration(event.generation)) return;
  if (isFirst) entry->fd = kClosed;
  if (entry->openCount > 0) --entry->openCount;
  if (entry->openCount == 0) entry->name[0] = '\0';
}

Code CheckNames(const char* function, OPL_SyncEvent** phEvent, const char* name) {
  const Caller caller{function};
  if (phEvent == nullptr) return Fail(caller, OPL_SYNC_E_NULL_ARGUMENT, "%s: phEvent is NULL");
  if (name == nullptr) return Fail(caller, OPL_SYNC_E_NULL_ARGUMENT, "%s: Name is NULL");
  return OPL_OK;
}

opl::Owned<OPL_SyncEvent> AllocateEvent(const char* name, uint32_t flags) {
  opl::Owned<OPL_SyncEvent> event = opl::Allocate<OPL_SyncEvent>();
  if (event == nullptr) return event;
  event->fd = kClosed;
  event->flags = flags;
  event->generation = opl::ForkGeneration();
  opl::CopyText(event->name, name);
  return event;
}

Code FifoOpenFailed(const char* function, const char* file) {
  const NativeError error;
  return Fail(Caller{function}, error, OPL_SYNC_E_OPEN, "%s: open :%i,%s\nFile %s", error.number(),
              error.text(), file);
}

Code MkfifoFailed() {
  const Caller caller{"OPL_SyncEventCreate"};
  const NativeError error;
  if (error.number() == EEXIST) return Fail(caller, OPL_SYNC_E_EVENT_EXISTS, "%s: event already exist");
  return Fail(caller, error, OPL_SYNC_E_MKFIFO, "%s: mkfifo error :%i,%s", error.number(), error.text());
}

// Opens what must be a FIFO: anything else in its place would swallow posts or never be set.
Code OpenFifo(const char* function, const char* path, const char* file, OPL_SyncEvent* event) {
  event->fd = OPL_CrtOpen(path, kFifoFlags, 0);
  if (event->fd == -1) return FifoOpenFailed(function, file);
  struct stat64 status {};
  if (::fstat64(event->fd, &status) == 0 && S_ISFIFO(status.st_mode)) {
    event->fifo = opl::IdOf(status);
    return OPL_OK;
  }
  (void)::close(event->fd);
  event->fd = kClosed;
  errno = EINVAL;
  return FifoOpenFailed(function, file);
}

// Makes FIFO and count file. The FIFO gets its name last: an event that is there is whole.
Code MakeFiles(OPL_SyncEvent* event, const EventFiles& files, uint32_t mode) {
  if (opl::FileExists(files.fifo.c_str())) {
    errno = EEXIST;
    return MkfifoFailed();
  }
  opl::TemporaryName temporary(files.fifo.c_str());
  if (temporary.MakeFile([&](const char* name) { return ::mkfifo(name, mode); }) == -1) return MkfifoFailed();
  opl::Undo removeTemporary([&] { (void)::unlink(temporary.c_str()); });
  if (const Code rc = OpenFifo("OPL_SyncEventCreate", temporary.c_str(), files.fifo.c_str(), event))
    return rc;
  opl::Undo closeFifo([&] { (void)::close(event->fd); });
  (void)::fchmod(event->fd, mode);
  opl::SetDescriptorTimesInFuture(event->fd);
  if (const Code rc = MakeCountFile(files.count, mode)) return rc;
  opl::Undo removeCount([&] {
    // The event mutex does not keep other instances from making an event for all users meanwhile. The count
    // file is that event's then, and holds what it has to.
    if (!opl::FileExists(files.fifo.c_str())) (void)::unlink(files.count);
  });
  if (opl::LinkAs(temporary.c_str(), files.fifo.c_str()) == -1) return MkfifoFailed();

  removeCount.Keep();
  closeFifo.Keep();  // the temporary name goes in any case
  return OPL_OK;
}

void UnlinkFiles(const EventFiles& files) {
  (void)::unlink(files.fifo.c_str());
  (void)::unlink(files.count);
}

// Takes one handle off the count; the last one takes the files with it.
Code GiveCountBack(const FileId& fifo, const EventFiles& files) {
  // An event that was removed and made anew under the name is another one.
  if (!opl::IsNamed(fifo, files.fifo.c_str())) {
    errno = ENOENT;
    return CountOpenFailed(files.count);
  }
  int32_t count = 0;
  if (const Code rc = UpdateCountFile(files.count, -1, &count)) return rc;
  if (count < 1)
    UnlinkFiles(files);
  else
    (void)OPL_PrivateSetAccessTimeInFuture(files.fifo.c_str());
  return OPL_OK;
}

Code CloseEvent(const OPL_SyncEvent& event) {
  EventMutex mutex;
  if (const Code rc = mutex.AcquireEventMutex()) {
    // The table cannot be changed: the process's end closes the descriptor that it has.
    if (!event.isFirst) (void)::close(event.fd);
    return rc;
  }
  // As long as it is open, no other FIFO gets its identity.
  const opl::Fd fd(event.fd);
  RemoveEventFromCleanupList(event);
  if (!opl::IsOwnGeneration(event.generation)) return OPL_OK;
  return GiveCountBack(event.fifo, EventFiles(event.name, event.flags));
}

Code CloseEntry(const Entry& entry) {
  const opl::Fd fd(entry.fd);
  return GiveCountBack(entry.fifo, EventFiles(entry.name, entry.flags));
}

Code CloseEntries() {
  EventMutex mutex;
  if (const Code rc = mutex.AcquireEventMutex()) return rc;
  for (uint32_t i = 0; i < gHighWater; ++i) {
    if (gEntries[i].name[0] == '\0') continue;
    // Deliberate: one is taken off for each name, however many handles are open.
    if (const Code rc = CloseEntry(gEntries[i])) return rc;
    gEntries[i].name[0] = '\0';
  }
  return OPL_OK;
}

bool HasEntries() {
  return std::any_of(gEntries, gEntries + gHighWater,
                     [](const Entry& entry) { return entry.name[0] != '\0'; });
}

void ForgetEntries() {
  for (Entry& entry : gEntries) entry.name[0] = '\0';
}

ssize_t WritePost(int fd) {
  constexpr char kPost = 1;
  return ::write(fd, &kPost, 1);
}

// The pipe is full of posts. The event is set; whoever is to see it has some time to reset it. Neither
// signals nor other posters that are quicker to use the room make that time longer or shorter.
ssize_t WritePostInTime(int fd) {
  const opl::Deadline patience(kPostPatienceMs);
  for (;;) {
    pollfd room{fd, POLLOUT, 0};
    const int leftMs = patience.LeftMs();
    const int found = ::poll(&room, 1, leftMs);
    const bool isOver = found == 0 || leftMs == 0;
    if (found == -1 && errno == EINTR && !isOver) continue;
    const ssize_t written = WritePost(fd);
    if (written != -1 || errno != EAGAIN || isOver) return written;
  }
}

Code PostFailed(ssize_t written) {
  const NativeError error;
  return Fail(Caller{"OPL_SyncEventPost"}, error, OPL_SYNC_E_WRITE, "%s: write rc :%i errno:%i,%s",
              static_cast<int32_t>(written), error.number(), error.text());
}

}  // namespace

OPL_Result OPL_SyncEventCreate(OPL_SyncEvent** phEvent, uint32_t mode, const char* name, uint32_t bitmap) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (const Code rc = CheckNames("OPL_SyncEventCreate", phEvent, name)) return rc;
  if (std::strlen(name) > opl::kObjectNameLongest) return Fail(OPL_SYNC_E_BAD_NAME, "%s: Invalid name");
  if (mode != 0) return Fail(OPL_SYNC_E_INVALID_MODE, "%s: Invalid mode");

  opl::SignalBlock signals;
  if (const Code rc = signals.Take()) return rc;
  const Access* const access = opl::FindAccess(kAccess, bitmap);
  if (access == nullptr) return Fail(OPL_SYNC_E_NO_PERMISSION, "%s: Permission not specified.");
  opl::Owned<OPL_SyncEvent> event = AllocateEvent(name, bitmap);
  if (event == nullptr) {
    const NativeError error;
    return Fail(error, OPL_SYNC_E_NO_MEMORY, "%s: malloc error :%i", error.number());
  }
  EventMutex mutex;
  if (const Code rc = mutex.AcquireEventMutex()) return rc;
  const EventFiles files(name, bitmap);
  if (const Code rc = MakeFiles(event.get(), files, access->mode)) return rc;
  opl::Undo removeFiles([&] {
    (void)::close(event->fd);
    UnlinkFiles(files);
  });
  if (const Code rc = AddEventInCleanupList(*event)) return rc;

  removeFiles.Keep();
  *phEvent = event.release();
  return OPL_OK;
}

OPL_Result OPL_SyncEventOpen(OPL_SyncEvent** phEvent, uint32_t mode, const char* name, uint32_t bitmap) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (const Code rc = CheckNames("OPL_SyncEventOpen", phEvent, name)) return rc;
  if (std::strlen(name) > opl::kObjectNameLongest) return Fail(OPL_SYNC_E_BAD_NAME, "%s: Invalid Name");
  if (mode != 0) return Fail(OPL_SYNC_E_INVALID_MODE, "%s: Invalid mode");

  opl::SignalBlock signals;
  if (const Code rc = signals.Take()) return rc;
  if (opl::FindAccess(kAccess, bitmap) == nullptr)
    return Fail(OPL_SYNC_E_NO_PERMISSION, "%s: Invalid bitmap");
  opl::Owned<OPL_SyncEvent> event = AllocateEvent(name, bitmap);
  if (event == nullptr) {
    const NativeError error;
    return Fail(error, OPL_SYNC_E_NO_MEMORY, "%s:  malloc error :%i", error.number());
  }
  EventMutex mutex;
  if (const Code rc = mutex.AcquireEventMutex()) return rc;
  const EventFiles files(name, bitmap);
  if (const Code rc = OpenFifo("OPL_SyncEventOpen", files.fifo.c_str(), files.fifo.c_str(), event.get()))
    return rc;
  opl::Undo closeFifo([&] { (void)::close(event->fd); });
  int32_t count = 0;
  if (const Code rc = UpdateCountFile(files.count, 1, &count)) return rc;
  opl::Undo takeBack([&] {
    const opl::MessageKeeper keepMessage;
    (void)UpdateCountFile(files.count, -1, &count);
  });
  if (const Code rc = AddEventInCleanupList(*event)) return rc;

  opl::SetDescriptorTimesInFuture(event->fd);
  takeBack.Keep();
  closeFifo.Keep();
  *phEvent = event.release();
  return OPL_OK;
}

OPL_Result OPL_SyncEventPost(OPL_SyncEvent* hEvent) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (hEvent == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: hEvent is NULL");
  ssize_t written = WritePost(hEvent->fd);
  if (written == -1 && errno == EAGAIN) written = WritePostInTime(hEvent->fd);
  return written == 1 ? static_cast<Code>(OPL_OK) : PostFailed(written);
}

OPL_Result OPL_SyncEventReset(OPL_SyncEvent* hEvent) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (hEvent == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: hEvent is NULL");
  char posts[kDrainSize];
  for (;;) {
    const ssize_t count = RetryOnEintr([&] { return ::read(hEvent->fd, posts, sizeof posts); });
    if (count == -1 && errno != EAGAIN) {
      const NativeError error;
      return Fail(error, OPL_SYNC_E_READ, "%s: read :%i,%s", error.number(), error.text());
    }
    if (count < static_cast<ssize_t>(sizeof posts)) return OPL_OK;
  }
}

OPL_Result OPL_SyncEventIsSet(OPL_SyncEvent* pEvent, uint32_t* pIsSet) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pEvent == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: pEvent is NULL");
  if (pIsSet == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: pIsSet is NULL");
  *pIsSet = 0;
  pollfd entry{pEvent->fd, POLLIN, 0};
  if (::poll(&entry, 1, 0) == -1) {
    const NativeError error;
    return Fail(error, OPL_SYNC_E_POLL, "%s: poll error %i,%s", error.number(), error.text());
  }
  if ((entry.revents & POLLIN) != 0) *pIsSet = 1;
  return OPL_OK;
}

OPL_Result OPL_SyncEventClose(OPL_SyncEvent** phEvent) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (phEvent == nullptr || *phEvent == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: phEvent is NULL");
  opl::SignalBlock signals;
  Code rc = signals.Take();
  if (const Code closed = CloseEvent(**phEvent); rc == OPL_OK) rc = closed;
  opl::Free(*phEvent);
  *phEvent = nullptr;
  return rc;
}

OPL_Result OPL_SyncEventWaitableEventCreate(OPL_SyncEvent* pEvent, OPL_SyncWaitableEvent** ppWait) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pEvent == nullptr) return Fail(OPL_SYNC_E_NULL_ARGUMENT, "%s: pEvent is NULL");
  if (const Code rc = OPL_SyncWaitableEventCreate(ppWait, 0)) return rc;
  return OPL_SyncWaitableEventNativeHandleSet(*ppWait, pEvent->fd, OPL_SYNC_WAIT_READABLE);
}

OPL_Result OPL_SyncEventWaitableEventDestroy(OPL_SyncEvent* /*pEvent*/, OPL_SyncWaitableEvent** ppWait) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  return OPL_SyncWaitableEventDestroy(ppWait);
}

namespace opl {

void LockEventsForFork() { gEventMutexLock.LockForFork(); }

void UnlockEventsAfterFork() { gEventMutexLock.UnlockAfterFork(); }

Code ProcessEventExitList(int32_t mode) {
  const bool forgets = mode == 1;
  // Without an entry there is nothing to take the event mutex for, which might make it.
  Code rc = !forgets && HasEntries() ? CloseEntries() : static_cast<Code>(OPL_OK);
  ForgetEntries();
  if (gEventMutex != nullptr && !forgets) {
    const Code closed = OPL_SyncMutexClose(&gEventMutex);
    if (rc == OPL_OK) rc = closed;
  }
  gEventMutex = nullptr;
  return rc;
}

Code TerminateEvent(const char* pattern) {
  return ForEachIpcFile(pattern, opl::kEventMarker, [](const char* name) -> Code {
    char count[kIpcNameSize + sizeof opl::kEventCountSuffix];
    (void)OPL_CrtSNPrintf(count, sizeof count, "%s%s", name, opl::kEventCountSuffix);
    (void)::unlink(name);
    (void)::unlink(count);
    return OPL_OK;
  });
}

}  // namespace opl
