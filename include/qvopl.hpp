/*
 * The C++ interface of QVOPL: C++17, header-only, over the functions of the C interface.
 *
 * Conventions of the whole interface:
 *  1. An object owns one handle of the C interface and ends it in its destructor. Objects are moved, not
 *     copied. native() gives the handle for C functions that have no form here.
 *  2. Named objects are made by Create, opened by Open, and by OpenOrCreate whichever is needed.
 *  3. An operation that can fail throws an Error. Its other form takes std::nothrow as the first argument and
 *     returns a Result instead, which the compiler does not let drop. Without exceptions (-fno-exceptions)
 *     only that form is declared.
 *  4. A Library object comes first and goes last.
 *  5. Names of functions are capitalised, but for those that the standard's templates call (lock, unlock) and
 *     for those that only tell what an object knows (size, native).
 *  6. Thread and signal safety are those of the C functions.
 */
#ifndef QVOPL_HPP
#define QVOPL_HPP

#include "qvopl/events.hpp"         // IWYU pragma: export
#include "qvopl/files.hpp"          // IWYU pragma: export
#include "qvopl/handle.hpp"         // IWYU pragma: export
#include "qvopl/library.hpp"        // IWYU pragma: export
#include "qvopl/locks.hpp"          // IWYU pragma: export
#include "qvopl/processes.hpp"      // IWYU pragma: export
#include "qvopl/result.hpp"         // IWYU pragma: export
#include "qvopl/servers.hpp"        // IWYU pragma: export
#include "qvopl/shared_layout.hpp"  // IWYU pragma: export
#include "qvopl/shared_memory.hpp"  // IWYU pragma: export
#include "qvopl/sockets.hpp"        // IWYU pragma: export
#include "qvopl/threads.hpp"        // IWYU pragma: export

#endif
