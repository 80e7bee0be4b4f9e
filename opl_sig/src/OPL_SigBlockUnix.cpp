// Blocking all signals around a stretch of work, with the mask from before kept in a record of its own.
#include <pthread.h>

#include <cerrno>
#include <csignal>

#include "OPL_Init.h"
#include "OPL_Sig.h"
#include "opl_err/src/Fail.h"
#include "opl_mem/src/Owned.h"
#include "opl_sig/src/SignalBlock.h"

static_assert(sizeof(sigset_t) == 128, "the saved mask is a record of 128 bytes in both widths");

using opl::Check;
using opl::Code;
using opl::Fail;
using opl::NativeError;

namespace {

// What a place to keep the mask in is missing for: the answer is the one the system has for a bad argument.
constexpr int kNoPlace = EINVAL;

}  // namespace

OPL_Result OPL_SigBlock(uint32_t mode, sigset_t** pSaved) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  opl::Owned<sigset_t> saved = opl::Allocate<sigset_t>();
  if (saved == nullptr) {
    const NativeError error;
    return Fail(error, OPL_SIG_E_NO_MEMORY, "%s: malloc error :%i,%s", error.number(), error.text());
  }
  if (mode != 0) return Fail(OPL_SIG_E_INVALID_MODE, "%s: Invalid mode");
  if (pSaved == nullptr) {
    const NativeError error(kNoPlace);
    return Fail(error, OPL_SIG_E_MASK, "%s: pthread_sigmask :%i,%s", error.number(), error.text());
  }
  sigset_t all;
  if (const Code rc = Check(::sigfillset(&all), OPL_SIG_E_FILL_SET, "%s: sigfillset :%i,%s")) return rc;
  if (const NativeError error(::pthread_sigmask(SIG_BLOCK, &all, saved.get())); error.number() != 0)
    return Fail(error, OPL_SIG_E_MASK, "%s: pthread_sigmask :%i,%s", error.number(), error.text());
  *pSaved = saved.release();
  return OPL_OK;
}

OPL_Result OPL_SigReset(uint32_t mode, sigset_t** pSaved) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (mode != 0) return Fail(OPL_SIG_E_INVALID_MODE, "%s: Invalid mode");
  return opl::RestoreMask(pSaved);
}

namespace opl {

Code RestoreMask(sigset_t** pSaved) {
  const NativeError error(pSaved != nullptr ? ::pthread_sigmask(SIG_SETMASK, *pSaved, nullptr) : kNoPlace);
  if (pSaved != nullptr) {
    Free(*pSaved);
    *pSaved = nullptr;
  }
  if (error.number() == 0) return OPL_OK;
  return Fail(Caller{"OPL_SigReset"}, error, OPL_SIG_E_MASK, "%s: pthread_sigmask :%i,%s", error.number(),
              error.text());
}

}  // namespace opl
