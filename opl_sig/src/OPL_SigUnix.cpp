// Checked forms of the system's signal functions.
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "OPL_Init.h"
#include "OPL_Sig.h"
#include "opl_err/src/Fail.h"

using opl::Check;
using opl::Code;
using opl::Fail;
using opl::NativeError;

OPL_Result OPL_SigSignal(uint32_t /*mode*/, int32_t signalNumber, OPL_SigHandler handler,
                         OPL_SigHandler* pPrevious) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  const OPL_SigHandler previous = ::signal(signalNumber, handler);
  if (previous == SIG_ERR) {
    const NativeError error;
    return Fail(error, OPL_SIG_E_SIGNAL, "%s: signal error : %i,%s", error.number(), error.text());
  }
  if (pPrevious != nullptr) *pPrevious = previous;
  return OPL_OK;
}

OPL_Result OPL_SigEmptySet(uint32_t /*mode*/, sigset_t* set) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  return Check(::sigemptyset(set), OPL_SIG_E_EMPTY_SET, "%s: sigemptyset error : %i,%s");
}

OPL_Result OPL_SigFillSet(uint32_t /*mode*/, sigset_t* set) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  return Check(::sigfillset(set), OPL_SIG_E_FILL_SET, "%s: sigfillset error : %i,%s");
}

OPL_Result OPL_SigAddSet(uint32_t /*mode*/, sigset_t* set, int32_t signalNumber) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  return Check(::sigaddset(set, signalNumber), OPL_SIG_E_ADD_SET, "%s: sigaddset error : %i,%s");
}

OPL_Result OPL_SigDelSet(uint32_t /*mode*/, sigset_t* set, int32_t signalNumber) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  return Check(::sigdelset(set, signalNumber), OPL_SIG_E_DEL_SET, "%s: sigdelset error : %i,%s");
}

OPL_Result OPL_SigIsMember(uint32_t /*mode*/, const sigset_t* set, int32_t signalNumber,
                           uint32_t* pIsMember) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  const int isMember = ::sigismember(set, signalNumber);
  if (const Code rc = Check(isMember, OPL_SIG_E_IS_MEMBER, "%s: sigismember error : %i,%s")) return rc;
  if (pIsMember != nullptr) *pIsMember = isMember != 0 ? 1 : 0;
  return OPL_OK;
}

OPL_Result OPL_SigAction(uint32_t /*mode*/, int32_t signalNumber, const struct sigaction* newAction,
                         struct sigaction* oldAction) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  return Check(::sigaction(signalNumber, newAction, oldAction), OPL_SIG_E_ACTION,
               "%s: sigaction error : %i,%s");
}

OPL_Result OPL_SigAlarm(uint32_t /*mode*/, uint32_t seconds, uint32_t* pSecondsLeft) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  const unsigned secondsLeft = ::alarm(seconds);
  if (pSecondsLeft != nullptr) *pSecondsLeft = secondsLeft;
  return OPL_OK;
}

OPL_Result OPL_SigProcMask(uint32_t /*mode*/, int32_t how, const sigset_t* newSet, sigset_t* oldSet) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  const NativeError error(::pthread_sigmask(how, newSet, oldSet));
  if (error.number() == 0) return OPL_OK;
  return Fail(error, OPL_SIG_E_MASK, "%s: pthread_sigmask error: %d, %s", error.number(), error.text());
}

OPL_Result OPL_SigRaise(uint32_t /*mode*/, int32_t signalNumber) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  if (::raise(signalNumber) == 0) return OPL_OK;
  const NativeError error;
  return Fail(error, OPL_SIG_E_RAISE, "%s: raise error : %i,%s", error.number(), error.text());
}

OPL_Result OPL_SigWait(uint32_t /*mode*/, const sigset_t* set, int32_t* pSignalNumber) {
  if (const Code stopped = OPL_InitIsStopped(0)) return stopped;
  int signalNumber = 0;
  const NativeError error(::sigwait(set, &signalNumber));
  if (error.number() != 0)
    return Fail(error, OPL_SIG_E_WAIT, "%s: sigwait error : %i,%s", error.number(), error.text());
  if (pSignalNumber != nullptr) *pSignalNumber = signalNumber;
  return OPL_OK;
}
