/**
 * @defgroup sig Signals
 *
 * Checked forms of the system's functions, and a pair that blocks all signals and puts the mask
 * back.
 *
 * Masks belong to the calling thread; handlers, actions and alarms to the process. Signal sets are the
 * caller's own memory. See docs/signals.md.
 *
 * OPL_SigBlock and OPL_SigReset are a pair. The others stand for one function of the system each; they do not
 * look at mode, and write results on success only.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 * @{
 */
#ifndef OPL_SIG_H
#define OPL_SIG_H

#include <signal.h>
#include <sys/select.h>

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes. */
enum {
  OPL_SIG_E_NO_MEMORY = 0x050402,    /**< no memory for the saved mask */
  OPL_SIG_E_FILL_SET = 0x050403,     /**< a set could not be filled */
  OPL_SIG_E_MASK = 0x050404,         /**< the thread's mask could not be changed */
  OPL_SIG_E_INVALID_MODE = 0x050405, /**< mode is not 0 */
  OPL_SIG_E_SIGNAL = 0x050407,       /**< the handler could not be set */
  OPL_SIG_E_EMPTY_SET = 0x050408,    /**< a set could not be emptied */
  OPL_SIG_E_ACTION = 0x050409,       /**< the action could not be read or set */
  OPL_SIG_E_IS_MEMBER = 0x05040A,    /**< a set could not be asked */
  OPL_SIG_E_ADD_SET = 0x05040B,      /**< a signal could not be added to a set */
  OPL_SIG_E_DEL_SET = 0x05040C,      /**< a signal could not be taken out of a set */
  OPL_SIG_E_RAISE = 0x05040E,        /**< the signal could not be sent */
  OPL_SIG_E_WAIT = 0x05040F          /**< the wait failed */
};

/** A signal handler, as signal takes it. */
typedef void (*OPL_SigHandler)(int);

/** @cond */
struct sigaction;
/** @endcond */

/**
 * Blocks every signal in the calling thread, but those that cannot be blocked.
 *
 * @param mode    0
 * @param pSaved  receives the mask from before, to be given back to OPL_SigReset, which releases it
 *
 * @return OPL_OK                  blocked
 * @return OPL_SIG_E_NO_MEMORY     no memory for the saved mask
 * @return OPL_SIG_E_INVALID_MODE  mode is not 0
 * @return OPL_SIG_E_FILL_SET      the system refused
 * @return OPL_SIG_E_MASK          the system refused
 */
OPL_API OPL_Result OPL_SigBlock(uint32_t mode, sigset_t** pSaved);

/**
 * Puts the calling thread's mask back to what it was before OPL_SigBlock. Pairs nest.
 *
 * @param mode    0
 * @param pSaved  what OPL_SigBlock gave; released, and null afterwards, even when the system refuses
 *
 * @return OPL_OK                  done
 * @return OPL_SIG_E_INVALID_MODE  mode is not 0; nothing is done and the saved mask stays
 * @return OPL_SIG_E_MASK          the system refused
 */
OPL_API OPL_Result OPL_SigReset(uint32_t mode, sigset_t** pSaved);

/**
 * signal: sets the handler of a signal.
 *
 * @param mode          not looked at
 * @param signalNumber  SIG*
 * @param handler       SIG_DFL, SIG_IGN or a function
 * @param pPrevious     receives the handler from before; may be null
 *
 * @return OPL_OK            set
 * @return OPL_SIG_E_SIGNAL  the system refused
 */
OPL_API OPL_Result OPL_SigSignal(uint32_t mode, int32_t signalNumber, OPL_SigHandler handler,
                                 OPL_SigHandler* pPrevious);

/**
 * sigemptyset: empties a set.
 *
 * @param mode  not looked at
 * @param set   the set
 *
 * @return OPL_OK               emptied
 * @return OPL_SIG_E_EMPTY_SET  the system refused
 */
OPL_API OPL_Result OPL_SigEmptySet(uint32_t mode, sigset_t* set);

/**
 * sigfillset: puts all signals into a set.
 *
 * @param mode  not looked at
 * @param set   the set
 *
 * @return OPL_OK              filled
 * @return OPL_SIG_E_FILL_SET  the system refused
 */
OPL_API OPL_Result OPL_SigFillSet(uint32_t mode, sigset_t* set);

/**
 * sigaddset: adds a signal to a set.
 *
 * @param mode          not looked at
 * @param set           the set
 * @param signalNumber  SIG*
 *
 * @return OPL_OK             added
 * @return OPL_SIG_E_ADD_SET  the system refused, as a number that is no signal's
 */
OPL_API OPL_Result OPL_SigAddSet(uint32_t mode, sigset_t* set, int32_t signalNumber);

/**
 * sigdelset: takes a signal out of a set.
 *
 * @param mode          not looked at
 * @param set           the set
 * @param signalNumber  SIG*
 *
 * @return OPL_OK             taken out
 * @return OPL_SIG_E_DEL_SET  the system refused, as a number that is no signal's
 */
OPL_API OPL_Result OPL_SigDelSet(uint32_t mode, sigset_t* set, int32_t signalNumber);

/**
 * sigismember: tells whether a signal is in a set.
 *
 * @param mode          not looked at
 * @param set           the set
 * @param signalNumber  SIG*
 * @param pIsMember     receives 1 for a member, else 0; may be null
 *
 * @return OPL_OK               told
 * @return OPL_SIG_E_IS_MEMBER  the system refused, as a number that is no signal's
 */
OPL_API OPL_Result OPL_SigIsMember(uint32_t mode, const sigset_t* set, int32_t signalNumber,
                                   uint32_t* pIsMember);

/**
 * sigaction: reads or sets what a signal does.
 *
 * @param mode          not looked at
 * @param signalNumber  SIG*
 * @param newAction     what it is to do; null leaves it
 * @param oldAction     receives what it did; may be null
 *
 * @return OPL_OK            done
 * @return OPL_SIG_E_ACTION  the system refused
 */
OPL_API OPL_Result OPL_SigAction(uint32_t mode, int32_t signalNumber, const struct sigaction* newAction,
                                 struct sigaction* oldAction);

/**
 * alarm: sends SIGALRM to the process after a while.
 *
 * @param mode          not looked at
 * @param seconds       how long; 0 cancels an alarm
 * @param pSecondsLeft  receives what was left of the previous alarm, 0 for none; may be null
 *
 * @return OPL_OK  set
 */
OPL_API OPL_Result OPL_SigAlarm(uint32_t mode, uint32_t seconds, uint32_t* pSecondsLeft);

/**
 * pthread_sigmask: reads or changes the calling thread's mask.
 *
 * @param mode    not looked at
 * @param how     SIG_BLOCK, SIG_UNBLOCK or SIG_SETMASK
 * @param newSet  the signals; null leaves the mask
 * @param oldSet  receives the mask from before; may be null
 *
 * @return OPL_OK          done
 * @return OPL_SIG_E_MASK  the system refused
 */
OPL_API OPL_Result OPL_SigProcMask(uint32_t mode, int32_t how, const sigset_t* newSet, sigset_t* oldSet);

/**
 * raise: sends a signal to the calling thread.
 *
 * @param mode          not looked at
 * @param signalNumber  SIG*
 *
 * @return OPL_OK           sent, and handled unless it is blocked
 * @return OPL_SIG_E_RAISE  the system refused
 */
OPL_API OPL_Result OPL_SigRaise(uint32_t mode, int32_t signalNumber);

/**
 * sigwait: waits until a signal of a set is pending, and takes it.
 *
 * @param mode           not looked at
 * @param set            the signals to wait for, which the thread has blocked
 * @param pSignalNumber  receives the signal taken; may be null
 *
 * @return OPL_OK          taken
 * @return OPL_SIG_E_WAIT  the system refused
 */
OPL_API OPL_Result OPL_SigWait(uint32_t mode, const sigset_t* set, int32_t* pSignalNumber);

/** @} */

OPL_END_DECLS

#endif
