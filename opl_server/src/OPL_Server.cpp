// Server objects, their parameters, and what is told of a listed process.
#include <cstring>

#include "OPL_Init.h"
#include "OPL_Server.h"
#include "opl_base/src/FixedText.h"
#include "opl_err/src/Fail.h"
#include "opl_mem/src/Owned.h"
#include "opl_server/src/Server.h"

namespace {

using opl::Caller;
using opl::Code;
using opl::Fail;
using opl::NativeError;

struct Field {
  char* text;
  size_t size;
};

// The field of an option; an empty one where there is no such option.
Field FieldOf(OPL_ServerParam* param, uint32_t option) {
  switch (option) {
    case OPL_SERVER_PARAM_SCRIPT_DIRECTORY:
      return {param->scriptDirectory, sizeof param->scriptDirectory};
    case OPL_SERVER_PARAM_CONTROLLER_NAME:
      return {param->controllerName, sizeof param->controllerName};
    case OPL_SERVER_PARAM_EXECUTABLE_PATH:
      return {param->executablePath, sizeof param->executablePath};
    case OPL_SERVER_PARAM_PROCESS_NAME:
      return {param->processName, sizeof param->processName};
    default:
      return {nullptr, 0};
  }
}

// The record before the option: both are refused with the same code.
[[nodiscard]] Code FindField(OPL_ServerParam* param, uint32_t option, Field* field,
                             const char* caller = __builtin_FUNCTION()) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  const Caller name{caller};
  if (param == nullptr) return Fail(name, OPL_SERVER_E_PARAM, "%s: pServerParam == NULL");
  *field = FieldOf(param, option);
  if (field->text == nullptr) return Fail(name, OPL_SERVER_E_PARAM, "%s: ParamOption (%d) invalid.", option);
  return OPL_OK;
}

[[nodiscard]] Code CheckInfo(const OPL_ServerInfo* info, const char* caller = __builtin_FUNCTION()) {
  if (info != nullptr) return OPL_OK;
  return Fail(Caller{caller}, OPL_SERVER_E_NULL_ARGUMENT, "%s: hServerInfo is NULL.");
}

template <size_t kSize>
Code CopyField(const char (&field)[kSize], char* buffer, uint32_t size,
               const char* caller = __builtin_FUNCTION()) {
  if (::strnlen(field, kSize) + 1 > size)
    return Fail(Caller{caller}, OPL_SERVER_E_TOO_SMALL, "%s: The size of the string is too small.");
  opl::CopyText(buffer, size, field);
  return OPL_OK;
}

}  // namespace

namespace opl {

Code CheckServer(const OPL_Server* server, const char* caller) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (server == nullptr) return Fail(Caller{caller}, OPL_SERVER_E_NULL_ARGUMENT, "%s: pServer is NULL.");
  return OPL_OK;
}

}  // namespace opl

OPL_Result OPL_ServerParamCreate(OPL_ServerParam** ppServerParam, uint32_t mode) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (ppServerParam == nullptr) return Fail(OPL_SERVER_E_PARAM, "%s: ppServerParam == NULL");
  if (mode != 0) return Fail(OPL_SERVER_E_PARAM, "%s: Invalid mode (%u)", mode);
  opl::Owned<OPL_ServerParam> param = opl::Allocate<OPL_ServerParam>();
  if (param == nullptr) {
    const NativeError error;
    return Fail(error, OPL_SERVER_E_PARAM_NO_MEMORY, "%s: OPL_MEMMALLOC: %s", error.text());
  }
  *ppServerParam = param.release();
  return OPL_OK;
}

OPL_Result OPL_ServerParamDestroy(OPL_ServerParam** ppServerParam) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (ppServerParam == nullptr || *ppServerParam == nullptr)
    return Fail(OPL_SERVER_E_PARAM, "%s: ppServerParam == NULL || *ppServerParam == NULL");
  opl::Free(*ppServerParam);
  *ppServerParam = nullptr;
  return OPL_OK;
}

OPL_Result OPL_ServerParamSet(OPL_ServerParam* pServerParam, uint32_t option, const char* text) {
  Field field{};
  if (const Code rc = FindField(pServerParam, option, &field)) return rc;
  if (text == nullptr) return Fail(OPL_SERVER_E_PARAM, "%s: Text == NULL");
  opl::CopyText(field.text, field.size, text);
  return OPL_OK;
}

OPL_Result OPL_ServerParamGet(const OPL_ServerParam* pServerParam, uint32_t option, char* buffer) {
  Field field{};
  if (const Code rc = FindField(const_cast<OPL_ServerParam*>(pServerParam), option, &field)) return rc;
  if (buffer == nullptr) return Fail(OPL_SERVER_E_PARAM, "%s: Buffer == NULL");
  std::memcpy(buffer, field.text, std::strlen(field.text) + 1);
  return OPL_OK;
}

OPL_Result OPL_ServerCreate(OPL_Server** ppServer, uint32_t mode, const OPL_ServerParam* pServerParam) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (mode > OPL_SERVER_FOREGROUND) return Fail(OPL_SERVER_E_INVALID_MODE, "%s: Invalid mode");
  if (pServerParam == nullptr) return Fail(OPL_SERVER_E_PARAM, "%s: pServerParam == NULL");
  opl::Owned<OPL_Server> server = opl::Allocate<OPL_Server>();
  if (server == nullptr) {
    const NativeError error;
    return Fail(error, OPL_SERVER_E_NO_MEMORY, "%s: OPL_MEMMALLOC error :%d", error.number());
  }
  opl::CopyText(server->processName, pServerParam->processName);
  opl::CopyText(server->scriptDirectory, pServerParam->scriptDirectory);
  opl::CopyText(server->executablePath, pServerParam->executablePath);
  opl::CopyText(server->controllerName, pServerParam->controllerName);
  server->mode = mode;
  server->isRelatedOnly = 1;
  // Without a place for the server, the call only checks its arguments.
  if (ppServer != nullptr) *ppServer = server.release();
  return OPL_OK;
}

OPL_Result OPL_ServerDestroy(OPL_Server** ppServer) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (ppServer == nullptr) return OPL_OK;
  opl::Free(*ppServer);
  *ppServer = nullptr;
  return OPL_OK;
}

OPL_Result OPL_ServerInfoGetUserName(const OPL_ServerInfo* hServerInfo, char* userName, uint32_t size) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (userName == nullptr) return Fail(OPL_SERVER_E_NULL_ARGUMENT, "%s: UserName is NULL.");
  if (const Code rc = CheckInfo(hServerInfo)) return rc;
  return CopyField(hServerInfo->userName, userName, size);
}

OPL_Result OPL_ServerInfoGetPid(const OPL_ServerInfo* hServerInfo, uint32_t* pPid) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pPid == nullptr) return Fail(OPL_SERVER_E_NULL_ARGUMENT, "%s: pPid is NULL.");
  if (const Code rc = CheckInfo(hServerInfo)) return rc;
  *pPid = hServerInfo->processId;
  return OPL_OK;
}

OPL_Result OPL_ServerInfoGetPPid(const OPL_ServerInfo* hServerInfo, uint32_t* pPid) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (pPid == nullptr) return Fail(OPL_SERVER_E_NULL_ARGUMENT, "%s: pPid is NULL.");
  if (const Code rc = CheckInfo(hServerInfo)) return rc;
  *pPid = hServerInfo->parentId;
  return OPL_OK;
}

OPL_Result OPL_ServerInfoGetStartTime(const OPL_ServerInfo* hServerInfo, char* startTime, uint32_t size) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (startTime == nullptr) return Fail(OPL_SERVER_E_NULL_ARGUMENT, "%s: StartTime is NULL.");
  if (const Code rc = CheckInfo(hServerInfo)) return rc;
  return CopyField(hServerInfo->startTime, startTime, size);
}

OPL_Result OPL_ServerInfoGetCPUTime(const OPL_ServerInfo* hServerInfo, char* cpuTime, uint32_t size) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (cpuTime == nullptr) return Fail(OPL_SERVER_E_NULL_ARGUMENT, "%s: CPUTime is NULL.");
  if (const Code rc = CheckInfo(hServerInfo)) return rc;
  return CopyField(hServerInfo->cpuTime, cpuTime, size);
}

OPL_Result OPL_ServerInfoGetServiceName(const OPL_ServerInfo* hServerInfo, char* serviceName, uint32_t size) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (serviceName == nullptr) return Fail(OPL_SERVER_E_NULL_ARGUMENT, "%s: ServiceName is NULL.");
  if (const Code rc = CheckInfo(hServerInfo)) return rc;
  return CopyField(hServerInfo->serviceName, serviceName, size);
}
