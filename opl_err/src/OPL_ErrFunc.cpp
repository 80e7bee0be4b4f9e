// The error record of each thread: made on first use, found through one key of thread-specific data, released
// when its thread ends.
#include <atomic>
#include <cstdarg>

#include "OPL_Crt.h"
#include "OPL_Err.h"
#include "OPL_Init.h"
#include "OPL_Thread.h"
#include "opl_base/src/ErrnoKeeper.h"
#include "opl_base/src/FixedText.h"
#include "opl_err/src/ErrorRecord.h"
#include "opl_err/src/MessageKeeper.h"
#include "opl_mem/src/Owned.h"

namespace {

// The two texts are separate areas because the native text is often an argument of the message.
struct ErrorRecord {
  uint32_t code;
  char message[OPL_ERR_TEXT_SIZE];
  char nativeMessage[OPL_ERR_TEXT_SIZE];
};

// Written by OPL_ErrBegin and OPL_ErrEnd under the initialisation lock, read everywhere without it.
std::atomic<uint32_t> gErrorKey{OPL_THREAD_NO_KEY};

void FreeErrTsd(void* record) { opl::Free(record); }

// Null when the thread has none or there is no key.
ErrorRecord* FindRecord() {
  void* record = nullptr;
  if (OPL_ThreadTsdGetValue(gErrorKey.load(std::memory_order_relaxed), &record) != OPL_OK) return nullptr;
  return static_cast<ErrorRecord*>(record);
}

ErrorRecord* MakeRecord() {
  const uint32_t key = gErrorKey.load(std::memory_order_relaxed);
  if (key == OPL_THREAD_NO_KEY) return nullptr;
  const opl::ErrnoKeeper keepErrno;
  opl::Owned<ErrorRecord> record = opl::Allocate<ErrorRecord>();
  if (record == nullptr) return nullptr;
  if (OPL_ThreadTsdSetValue(key, record.get()) != OPL_OK) return nullptr;
  return record.release();
}

ErrorRecord* FindOrMakeRecord() {
  ErrorRecord* const record = FindRecord();
  return record != nullptr ? record : MakeRecord();
}

}  // namespace

namespace opl {

bool HasErrorRecord() { return FindRecord() != nullptr; }

MessageKeeper::MessageKeeper() {
  const ErrorRecord* const record = FindRecord();
  if (record == nullptr) return;
  hasRecord_ = true;
  code_ = record->code;
  CopyText(message_, record->message);
}

MessageKeeper::~MessageKeeper() {
  ErrorRecord* const record = hasRecord_ ? FindRecord() : nullptr;
  if (record == nullptr) return;
  record->code = code_;
  CopyText(record->message, message_);
}

}  // namespace opl

OPL_Result OPL_ErrBegin(uint32_t mode) {
  if (mode != 0) return OPL_ERR_E_INVALID_MODE;
  // A begin that failed further on has left its key; a second one would orphan the records under the first.
  if (gErrorKey.load(std::memory_order_relaxed) != OPL_THREAD_NO_KEY) return OPL_OK;
  uint32_t key = OPL_THREAD_NO_KEY;
  if (const OPL_Result rc = OPL_ThreadTsdAllocKey(&key, FreeErrTsd)) return rc;
  gErrorKey.store(key, std::memory_order_relaxed);
  return OPL_OK;
}

OPL_Result OPL_ErrEnd(uint32_t mode) {
  if (mode != 0) return OPL_ERR_E_INVALID_MODE;
  // The key is withdrawn before it is deleted: a thread that still fails must not use a deleted key.
  uint32_t key = gErrorKey.exchange(OPL_THREAD_NO_KEY, std::memory_order_relaxed);
  return OPL_ThreadTsdFreeKey(&key);
}

uint32_t OPL_ErrSet(uint32_t mode, uint32_t code, const char* format, ...) {
  if (OPL_InitIsStopped(0) != OPL_OK || mode != 0) return 0;
  ErrorRecord* const record = FindOrMakeRecord();
  if (record == nullptr) return 0;
  record->code = code;
  va_list arguments;
  va_start(arguments, format);
  (void)OPL_CrtVSNPrintf(record->message, OPL_ERR_TEXT_SIZE, format, arguments);
  va_end(arguments);
  return 0;
}

uint32_t OPL_ErrCodeGet(uint32_t mode) {
  if (mode != 0) return OPL_ERR_E_INVALID_MODE;
  const ErrorRecord* const record = FindRecord();
  return record != nullptr ? record->code : static_cast<uint32_t>(OPL_ERR_E_NO_RECORD);
}

const char* OPL_ErrMessageGet(uint32_t mode) {
  if (mode != 0) return "Invalid mode.";
  const ErrorRecord* const record = FindRecord();
  return record != nullptr ? record->message : "No message available.";
}

const char* OPL_ErrNativeMessageGet(uint32_t mode, int32_t errnum) {
  if (mode != 0) return "Invalid mode.";
  ErrorRecord* const record = FindOrMakeRecord();
  if (record == nullptr) return "Invalid mode.";
  return OPL_ErrNativeGetErrorString(errnum, record->nativeMessage, OPL_ERR_TEXT_SIZE);
}
