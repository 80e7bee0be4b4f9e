// Look-ups in the network databases by the system's re-entrant calls. They record no message: a code says all
// there is to say.
#include <netdb.h>

#include <cerrno>
#include <cstring>

#include "OPL_Net.h"
#include "OPL_Sync.h"
#include "opl_base/src/CancellationHold.h"
#include "opl_err/src/Fail.h"

namespace {

using opl::Code;

struct Outcome {
  int number;
  Code code;
};
// By the resolver's status.
constexpr Outcome kStatuses[] = {
    {HOST_NOT_FOUND, OPL_NET_E_HOST_NOT_FOUND},
    {TRY_AGAIN, OPL_NET_E_TRY_AGAIN},
    {NO_RECOVERY, OPL_NET_E_NO_RECOVERY},
    {NO_DATA, OPL_NET_E_NO_DATA},
};
// By the system's error number, which a call may return or leave in errno; it goes before the status.
constexpr Outcome kErrors[] = {{EINVAL, OPL_NET_E_INVALID_ARGUMENT}, {ERANGE, OPL_NET_E_TOO_SMALL}};

template <size_t kCount>
Code CodeOf(const Outcome (&table)[kCount], int number, Code otherwise) {
  for (const Outcome& outcome : table)
    if (outcome.number == number) return outcome.code;
  return otherwise;
}

Code FailedHost(int error, int status) {
  return CodeOf(kErrors, error > 0 ? error : errno, CodeOf(kStatuses, status, OPL_NET_E_FAILED));
}

bool IsEmpty(const hostent& entry) {
  return entry.h_name == nullptr && entry.h_aliases == nullptr && entry.h_addr_list == nullptr;
}

// A damaged line of a database can yield the entry of something else, or a comment for a name.
Code Validate(const char* asked, const char* name, char* const* aliases) {
  if (name == nullptr || std::strpbrk(name, "#\n") != nullptr) return OPL_NET_E_FAILED;
  if (std::strcmp(name, asked) == 0) return OPL_OK;
  for (char* const* alias = aliases; alias != nullptr && *alias != nullptr; ++alias)
    if (std::strcmp(*alias, asked) == 0) return OPL_OK;
  return OPL_NET_E_FAILED;
}

Code FailedEntry(int error) {
  return (error > 0 ? error : errno) == ERANGE ? OPL_NET_E_TOO_SMALL : OPL_NET_E_FAILED;
}

Code FindService(const char* name, const char* protocol, servent* entry, char* buffer) {
  errno = 0;
  servent* found = nullptr;
  const int error = ::getservbyname_r(name, protocol, entry, buffer, OPL_NET_BUFFER_SIZE, &found);
  if (error != 0) return FailedEntry(error);
  // The system calls an unknown name a success without a result, and leaves the entry as it was.
  if (found == nullptr) return OPL_NET_E_FAILED;
  return Validate(name, entry->s_name, entry->s_aliases);
}

}  // namespace

OPL_Result OPL_NetGetHostByName(const char* name, struct hostent* entry, char* buffer) {
  if (name == nullptr || entry == nullptr || buffer == nullptr) return OPL_NET_E_INVALID_ARGUMENT;
  int status = 0;
  errno = 0;
  *entry = {};
  hostent* found = nullptr;
  const int error = ::gethostbyname_r(name, entry, buffer, OPL_NET_BUFFER_SIZE, &found, &status);
  if (error != 0) return FailedHost(error, status);
  if (found == nullptr) return CodeOf(kStatuses, status, OPL_NET_E_HOST_NOT_FOUND);
  if (IsEmpty(*entry)) return OPL_NET_E_HOST_NOT_FOUND;
  return OPL_OK;
}

OPL_Result OPL_NetGetHostByAddr(const void* address, uint32_t length, uint32_t type, struct hostent* entry,
                                char* buffer) {
  if (address == nullptr || entry == nullptr || buffer == nullptr) return OPL_NET_E_INVALID_ARGUMENT;
  int status = 0;
  errno = 0;
  hostent* found = nullptr;
  const int error = ::gethostbyaddr_r(address, length, static_cast<int>(type), entry, buffer,
                                      OPL_NET_BUFFER_SIZE, &found, &status);
  if (error != 0) return FailedHost(error, status);
  if (found == nullptr) return CodeOf(kStatuses, status, OPL_NET_E_FAILED);
  return OPL_OK;
}

OPL_Result OPL_NetGetProtoByName(const char* name, struct protoent* entry, char* buffer) {
  if (name == nullptr || entry == nullptr || buffer == nullptr) return OPL_NET_E_INVALID_ARGUMENT;
  errno = 0;
  protoent* found = nullptr;
  const int error = ::getprotobyname_r(name, entry, buffer, OPL_NET_BUFFER_SIZE, &found);
  if (error != 0) return FailedEntry(error);
  if (found == nullptr) return OPL_NET_E_FAILED;
  return Validate(name, entry->p_name, entry->p_aliases);
}

OPL_Result OPL_NetGetServByName(const char* name, const char* protocol, struct servent* entry, char* buffer) {
  if (name == nullptr || entry == nullptr || buffer == nullptr) return OPL_NET_E_INVALID_ARGUMENT;
  // A thread that ends in the midst of the look-up would leave the section entered, and nobody could look
  // anything up any more.
  const opl::CancellationHold noCancellation;
  if (const Code rc = opl::Translate(OPL_SyncCriticalSectionInit(&gCrit), OPL_SYNC_E_INITIALISED, OPL_OK))
    return rc;
  if (const Code rc = OPL_SyncCriticalSectionEnter(&gCrit)) return rc;
  const Code found = FindService(name, protocol, entry, buffer);
  const Code left = OPL_SyncCriticalSectionLeave(&gCrit);
  return found != OPL_OK ? found : left;
}
