/**
 * @defgroup user User
 *
 * The user on whose behalf the process runs. See docs/process-and-user.md.
 *
 * @callable at any time, by any thread, not in a signal handler
 * @{
 */
#ifndef OPL_USERINFO_H
#define OPL_USERINFO_H

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes. */
enum {
  OPL_USERINFO_E_TOO_SMALL = 0x050601,    /**< the name is longer than the size given */
  OPL_USERINFO_E_INVALID_MODE = 0x050602, /**< mode is not 0 */
  OPL_USERINFO_E_LOOKUP = 0x050603,       /**< the user database has no entry or cannot be read */
  OPL_USERINFO_E_NULL_ARGUMENT = 0x050605 /**< a required output pointer is null */
};

/**
 * Tells the effective user's login name.
 *
 * @param mode    0
 * @param buffer  receives the name; must hold size + 1 bytes
 * @param size    the longest name that is accepted, in characters without the terminator
 *
 * @return OPL_OK                        told
 * @return OPL_USERINFO_E_INVALID_MODE   mode is not 0
 * @return OPL_USERINFO_E_NULL_ARGUMENT  buffer is null
 * @return OPL_USERINFO_E_LOOKUP         the user database has no entry for the user or cannot be read
 * @return OPL_USERINFO_E_TOO_SMALL      the name is longer than size
 */
OPL_API OPL_Result OPL_UserInfoUserNameGet(uint32_t mode, char* buffer, uint32_t size);

/**
 * Tells the effective user's id.
 *
 * @callable at any time, by any thread, in a signal handler too when pId is not null
 *
 * @param reserved  not looked at
 * @param pId       receives the id
 *
 * @return OPL_OK                        told
 * @return OPL_USERINFO_E_NULL_ARGUMENT  pId is null
 */
OPL_API OPL_Result OPL_UserInfoUserIdGet(uint32_t reserved, uint32_t* pId);

/** @} */

OPL_END_DECLS

#endif
