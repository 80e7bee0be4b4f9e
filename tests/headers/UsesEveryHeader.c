/*
 * A program in plain C that includes every public header, uses something of each, and is linked by the C
 * compiler: no C++ runtime comes with the library. Its exit status is the number of the first use that went
 * wrong.
 */
#include <string.h>

#include "OPL_Crt.h"
#include "OPL_Err.h"
#include "OPL_File.h"
#include "OPL_Init.h"
#include "OPL_Mem.h"
#include "OPL_Net.h"
#include "OPL_Private.h"
#include "OPL_Process.h"
#include "OPL_Server.h"
#include "OPL_SharedMem.h"
#include "OPL_Sig.h"
#include "OPL_Socket.h"
#include "OPL_Sync.h"
#include "OPL_Term.h"
#include "OPL_Thread.h"
#include "OPL_Types.h"
#include "OPL_UserInfo.h"

static int use_memory_and_formatter(void) {
  char* const copy = OPL_MemStrdup(NULL, "one", OPL_MEM_HERE);
  char text[16];
  const int32_t length = OPL_CrtSNPrintf(text, sizeof text, "%s %d", copy, 2);
  OPL_MemFree(NULL, copy, OPL_MEM_HERE);
  return length != 5 || strcmp(text, "one 2") != 0;
}

static int use_threads_and_processes(void) {
  uint32_t thread = 0;
  uint32_t process = 0;
  uint32_t parent = 0;
  uint32_t user = 0;
  uint32_t isEqual = 1;
  if (OPL_ThreadIdGet(&thread) != OPL_OK || thread == 0) return 1;
  if (OPL_ProcessIdGet(&process) != OPL_OK) return 1;
  if (OPL_ProcessParentIdGet(&parent) != OPL_OK) return 1;
  if (OPL_ProcessIdCompare(process, parent, &isEqual) != OPL_OK || isEqual != 0) return 1;
  return OPL_UserInfoUserIdGet(0, &user) != OPL_OK;
}

static int use_files_and_signals(void) {
  uint32_t exists = 1;
  int32_t id = 0;
  sigset_t* saved = NULL;
  if (OPL_FileExists("no/such/file", &exists) != OPL_OK || exists != 0) return 1;
  if (OPL_PrivateSemIdGet("no/such/file", &id) == OPL_OK) return 1;
  if (OPL_SigBlock(0, &saved) != OPL_OK) return 1;
  return OPL_SigReset(0, &saved) != OPL_OK;
}

static int use_sockets_and_look_ups(void) {
  static char buffer[OPL_NET_BUFFER_SIZE];
  struct protoent protocol;
  OPL_Socket* pair[2] = {NULL, NULL};
  uint32_t size = 0;
  if (OPL_NetGetProtoByName("no such protocol", &protocol, buffer) == OPL_OK) return 1;
  if (OPL_SocketPairCreate(pair, 0) != OPL_OK) return 1;
  if (OPL_SocketSend(pair[0], &size, "x", 1) != OPL_OK || size != 1) return 1;
  if (OPL_SocketDestroy(&pair[0]) != OPL_OK) return 1;
  return OPL_SocketDestroy(&pair[1]) != OPL_OK;
}

static int use_servers_and_terminal(void) {
  OPL_ServerParam* param = NULL;
  OPL_Server* server = NULL;
  if (OPL_TermGetStringEchoOff(NULL, NULL, 1) != OPL_TERM_E_NULL_ARGUMENT) return 1;
  if (OPL_ServerParamCreate(&param, 0) != OPL_OK) return 1;
  if (OPL_ServerParamSet(param, OPL_SERVER_PARAM_PROCESS_NAME, "headers") != OPL_OK) return 1;
  if (OPL_ServerCreate(&server, OPL_SERVER_FOREGROUND, param) != OPL_OK) return 1;
  if (OPL_ServerParamDestroy(&param) != OPL_OK) return 1;
  return OPL_ServerDestroy(&server) != OPL_OK;
}

static int use_shared_memory(void) {
  OPL_SharedMem* block = NULL;
  void* address = NULL;
  if (OPL_SharedMemCreate(&block, 0, "headers", &address, 8, OPL_SHAREDMEM_PRIVATE) != OPL_OK) return 1;
  memcpy(address, "shared", 7);
  return OPL_SharedMemClose(&block) != OPL_OK;
}

static int use_critical_section(void) {
  if (OPL_SyncCriticalSectionInit(&gCrit) != OPL_OK) return 1;
  if (OPL_SyncCriticalSectionEnter(&gCrit) != OPL_OK) return 1;
  return OPL_SyncCriticalSectionLeave(&gCrit) != OPL_OK;
}

static int use_error_record(void) {
  const OPL_Result result = OPL_SyncCriticalSectionEnter(NULL);
  return result != OPL_SYNC_E_NULL_ARGUMENT || OPL_ErrCodeGet(0) != OPL_SYNC_E_NULL_ARGUMENT ||
         strcmp(OPL_ErrMessageGet(0), "OPL_SyncCriticalSectionEnter: pCritSec is NULL") != 0;
}

int main(void) {
  if (OPL_InitBegin(0) != OPL_OK) return 1;
  if (use_memory_and_formatter() != 0) return 2;
  if (use_threads_and_processes() != 0) return 3;
  if (use_critical_section() != 0) return 4;
  if (use_error_record() != 0) return 5;
  if (use_files_and_signals() != 0) return 6;
  if (use_shared_memory() != 0) return 7;
  if (use_sockets_and_look_ups() != 0) return 8;
  if (use_servers_and_terminal() != 0) return 9;
  if (OPL_InitEnd(0) != OPL_OK) return 10;
  return 0;
}
