/**
 * @defgroup term Terminal
 *
 * Reading a secret from the terminal. See docs/terminal.md.
 *
 * @callable at any time, by one thread at a time, not in a signal handler
 * @{
 */
#ifndef OPL_TERM_H
#define OPL_TERM_H

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes. */
enum {
  OPL_TERM_E_OPEN = 0x050E01,          /**< the terminal could not be opened */
  OPL_TERM_E_NULL_ARGUMENT = 0x050E02, /**< the buffer is null */
  OPL_TERM_E_BAD_SIZE = 0x050E03,      /**< the size is below 1 */
  OPL_TERM_E_NAME = 0x050E04,          /**< the terminal has no name */
  OPL_TERM_E_READ = 0x050E05           /**< standard input could not be read */
};

/**
 * Reads a line without showing it: from the controlling terminal when standard input is a terminal, else from
 * standard input.
 *
 * On the terminal, backspace takes a character back, and the bell rings for one that has no room and for a
 * backspace with nothing to take back. The interrupt key ends the PROCESS, with status 0 and the terminal as
 * it was; the suspend key waits until the line is read. The terminal is put back whatever happens, and a
 * process that is stopped and goes on hides the line as before. One such read at a time in a process. Works
 * at any time.
 *
 * From standard input, at most maxBufferSize - 1 characters are read, and the rest of the line stays there.
 *
 * @param prompt         shown on the terminal, and only there; may be null
 * @param buffer         receives the line without its newline; has maxBufferSize + 1 bytes, the first
 *                       maxBufferSize of which are cleared before
 * @param maxBufferSize  the most characters that are kept, 1 at least
 *
 * @return OPL_OK                    read; the text is empty at the end of the input
 * @return OPL_TERM_E_NULL_ARGUMENT  buffer is null
 * @return OPL_TERM_E_BAD_SIZE       maxBufferSize is below 1
 * @return OPL_TERM_E_NAME, OPL_TERM_E_OPEN  the terminal cannot be reached
 * @return OPL_TERM_E_READ           standard input could not be read
 */
OPL_API OPL_Result OPL_TermGetStringEchoOff(const char* prompt, char* buffer, int32_t maxBufferSize);

/** @} */

OPL_END_DECLS

#endif
