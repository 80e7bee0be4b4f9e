/*
 * What every result code means, in the words of the C headers. Made by scripts/make-cpp-codes: change the
 * headers, and make it again.
 */
#ifndef QVOPL_CODES_HPP
#define QVOPL_CODES_HPP

#include <algorithm>
#include <iterator>
#include <system_error>

#include "../OPL_Types.h"

namespace qvopl {

namespace detail {

struct CodeEntry {
  OPL_Result code;
  std::errc condition;  // errc{} where none comes near
  bool isRecorded;      // whether a failure with it leaves a message in the error record
  const char* text;
};

// clang-format off
inline constexpr CodeEntry kCodes[] = {
    // OPL_SYNC_E_NO_MEMORY
    {0x050001, std::errc::not_enough_memory, true,
     "no memory"},
    // OPL_SYNC_E_MUTEX_EXISTS
    {0x050003, std::errc::file_exists, true,
     "a mutex of that name exists"},
    // OPL_SYNC_E_MUTEX_MISSING
    {0x050005, std::errc::no_such_file_or_directory, true,
     "there is no mutex of that name, or it was removed"},
    // OPL_SYNC_E_EVENT_EXISTS
    {0x05000A, std::errc::file_exists, true,
     "an event of that name exists"},
    // OPL_SYNC_E_BAD_NAME
    {0x050013, std::errc::filename_too_long, true,
     "the name is longer than OPL_SYNC_NAME_MAX"},
    // OPL_SYNC_E_RWLOCK_EXISTS
    {0x050014, std::errc::file_exists, true,
     "a read-write lock of that name exists"},
    // OPL_SYNC_E_RWLOCK_MISSING
    {0x050016, std::errc::no_such_file_or_directory, true,
     "there is no read-write lock of that name"},
    // OPL_SYNC_E_NOT_HELD
    {0x050018, std::errc::operation_not_permitted, false,
     "the thread does not hold the read-write lock"},
    // OPL_SYNC_E_BAD_LOCK_MODE
    {0x050019, std::errc::invalid_argument, true,
     "neither shared nor exclusive"},
    // OPL_SYNC_E_UNLINK
    {0x05001C, std::errc{}, true,
     "a file could not be removed"},
    // OPL_SYNC_E_OPEN
    {0x05001E, std::errc{}, true,
     "a file could not be opened; there is no event of that name"},
    // OPL_SYNC_E_SEMOP
    {0x050023, std::errc{}, true,
     "a semaphore operation failed"},
    // OPL_SYNC_E_WRITE
    {0x05002A, std::errc{}, true,
     "a file or an event could not be written"},
    // OPL_SYNC_E_NOT_OWNER
    {0x05002C, std::errc::operation_not_permitted, true,
     "the thread does not own the mutex"},
    // OPL_SYNC_E_TABLE_FULL
    {0x05002D, std::errc::too_many_files_open, true,
     "the process holds too many objects of this kind"},
    // OPL_SYNC_E_MUTEX_INIT
    {0x05003C, std::errc::not_enough_memory, true,
     "the thread mutex could not be made"},
    // OPL_SYNC_E_LOCK
    {0x05003D, std::errc{}, true,
     "a lock could not be taken"},
    // OPL_SYNC_E_UNLOCK
    {0x05003E, std::errc{}, true,
     "a lock could not be released"},
    // OPL_SYNC_E_NO_PERMISSION
    {0x05003F, std::errc::invalid_argument, true,
     "no permission flag is given"},
    // OPL_SYNC_E_INTERRUPTED
    {0x050042, std::errc::interrupted, true,
     "a signal came, and the object does not restart"},
    // OPL_SYNC_E_INVALID_MODE
    {0x050043, std::errc::invalid_argument, true,
     "mode is not 0"},
    // OPL_SYNC_E_NULL_ARGUMENT
    {0x050046, std::errc::invalid_argument, true,
     "a required pointer argument is null"},
    // OPL_SYNC_E_INITIALISED
    {0x050048, std::errc{}, true,
     "reserved; a critical section that is ready already"},
    // OPL_SYNC_E_TIMEOUT
    {0x05004B, std::errc::timed_out, true,
     "nothing became ready in time"},
    // OPL_SYNC_E_MKFIFO
    {0x05004F, std::errc{}, true,
     "an event's pipe could not be made"},
    // OPL_SYNC_E_READ
    {0x050050, std::errc{}, true,
     "a file or an event could not be read"},
    // OPL_SYNC_E_NO_CONDITION
    {0x050051, std::errc::invalid_argument, true,
     "a waitable event asks for nothing"},
    // OPL_SYNC_E_POLL
    {0x050054, std::errc{}, true,
     "poll failed"},
    // OPL_SYNC_E_LSEEK
    {0x050055, std::errc{}, true,
     "a lock file's position could not be read or set"},
    // OPL_SYNC_E_FCNTL
    {0x050058, std::errc{}, true,
     "a lock file could not be locked or unlocked"},
    // OPL_SYNC_E_CHMOD
    {0x050059, std::errc{}, true,
     "a lock file's permissions could not be set"},
    // OPL_SYNC_E_LOCKFILE_MISSING
    {0x05005A, std::errc::no_such_file_or_directory, true,
     "there is no lock file of that name"},
    // OPL_SYNC_E_STAT
    {0x05005B, std::errc{}, true,
     "a file mutex's file could not be looked at"},
    // OPL_SYNC_E_MUTEXFILE_HELD
    {0x05005D, std::errc::device_or_resource_busy, true,
     "another thread or process holds the file mutex"},
    // OPL_SYNC_E_MISMATCH
    {0x05005E, std::errc::invalid_argument, true,
     "the name stands for another object than the handle"},
    // OPL_SYNC_E_TOO_MANY_EVENTS
    {0x05005F, std::errc::invalid_argument, true,
     "more than OPL_SYNC_WAIT_MAX waitable events"},
    // OPL_SYNC_E_NOT_NULL
    {0x050060, std::errc::invalid_argument, true,
     "reserved; a message only"},
    // OPL_SYNC_E_REGISTERED
    {0x050061, std::errc::file_exists, true,
     "the semaphore set is registered already"},
    // OPL_SYNC_E_NOT_REGISTERED
    {0x050062, std::errc::no_such_file_or_directory, true,
     "the semaphore set is not registered"},
    // OPL_SYNC_E_REGISTER
    {0x050063, std::errc{}, true,
     "the control file could not be made"},
    // OPL_SYNC_E_DEREGISTER
    {0x050064, std::errc{}, true,
     "the control file or the set could not be removed"},
    // OPL_SHAREDMEM_E_MISSING
    {0x050101, std::errc::no_such_file_or_directory, true,
     "there is no locked shared memory of that name"},
    // OPL_SHAREDMEM_E_BAD_NAME
    {0x050102, std::errc::filename_too_long, true,
     "the name is longer than OPL_SHAREDMEM_NAME_MAX, or null"},
    // OPL_SHAREDMEM_E_NO_MEMORY
    {0x050103, std::errc::not_enough_memory, true,
     "no memory for the handle"},
    // OPL_SHAREDMEM_E_EXISTS
    {0x05010A, std::errc::file_exists, true,
     "there is a locked shared memory of that name"},
    // OPL_SHAREDMEM_E_OPENED
    {0x050110, std::errc::device_or_resource_busy, true,
     "this process has the block open already"},
    // OPL_SHAREDMEM_E_TABLE_FULL
    {0x050111, std::errc::too_many_files_open, true,
     "the process has 20 blocks open"},
    // OPL_SHAREDMEM_E_NO_PERMISSION
    {0x050117, std::errc::invalid_argument, true,
     "no permission flag is given"},
    // OPL_SHAREDMEM_E_INVALID_MODE
    {0x05011C, std::errc::invalid_argument, true,
     "mode is not 0"},
    // OPL_SHAREDMEM_E_BAD_ACCESS
    {0x05011F, std::errc::invalid_argument, true,
     "neither shared nor exclusive"},
    // OPL_SHAREDMEM_E_NO_NAME
    {0x050120, std::errc::invalid_argument, true,
     "the name of a locked shared memory is null"},
    // OPL_INIT_E_INVALID_MODE
    {0x050202, std::errc::invalid_argument, false,
     "mode is out of range"},
    // OPL_INIT_E_STOPPED
    {0x050203, std::errc::operation_not_permitted, false,
     "the library is not begun in this process, or has ended"},
    // OPL_INIT_E_LOCK
    {0x050206, std::errc{}, true,
     "the initialisation lock could not be taken"},
    // OPL_INIT_E_UNLOCK
    {0x050207, std::errc{}, true,
     "reserved; a message only"},
    // OPL_INIT_E_NO_INSTANCE
    {0x05020B, std::errc{}, false,
     "no instance string could be had"},
    // OPL_INIT_E_LOG_NAME
    {0x05020C, std::errc::invalid_argument, false,
     "the log name is null or empty"},
    // OPL_THREAD_E_RESOURCES
    {0x050301, std::errc::not_enough_memory, true,
     "no memory or no room for another thread"},
    // OPL_THREAD_E_INVALID_ARGUMENT
    {0x050302, std::errc::invalid_argument, true,
     "a null handle, or a mode, option or value out of range"},
    // OPL_THREAD_E_CREATE
    {0x050303, std::errc{}, true,
     "the system refused the thread for another reason"},
    // OPL_THREAD_E_NULL_ARGUMENT
    {0x050304, std::errc::invalid_argument, false,
     "a required output pointer is null"},
    // OPL_THREAD_E_INVALID_KEY
    {0x050307, std::errc::invalid_argument, false,
     "the key is OPL_THREAD_NO_KEY or was never allocated"},
    // OPL_THREAD_E_KEY_NO_MEMORY
    {0x050308, std::errc::not_enough_memory, false,
     "no memory for a key"},
    // OPL_THREAD_E_NO_KEY
    {0x05030C, std::errc::not_enough_memory, false,
     "the system has no key left"},
    // OPL_THREAD_E_SET_VALUE
    {0x05030D, std::errc{}, false,
     "the value could not be stored"},
    // OPL_SIG_E_NO_MEMORY
    {0x050402, std::errc::not_enough_memory, true,
     "no memory for the saved mask"},
    // OPL_SIG_E_FILL_SET
    {0x050403, std::errc{}, true,
     "a set could not be filled"},
    // OPL_SIG_E_MASK
    {0x050404, std::errc{}, true,
     "the thread's mask could not be changed"},
    // OPL_SIG_E_INVALID_MODE
    {0x050405, std::errc::invalid_argument, true,
     "mode is not 0"},
    // OPL_SIG_E_SIGNAL
    {0x050407, std::errc{}, true,
     "the handler could not be set"},
    // OPL_SIG_E_EMPTY_SET
    {0x050408, std::errc{}, true,
     "a set could not be emptied"},
    // OPL_SIG_E_ACTION
    {0x050409, std::errc{}, true,
     "the action could not be read or set"},
    // OPL_SIG_E_IS_MEMBER
    {0x05040A, std::errc{}, true,
     "a set could not be asked"},
    // OPL_SIG_E_ADD_SET
    {0x05040B, std::errc{}, true,
     "a signal could not be added to a set"},
    // OPL_SIG_E_DEL_SET
    {0x05040C, std::errc{}, true,
     "a signal could not be taken out of a set"},
    // OPL_SIG_E_RAISE
    {0x05040E, std::errc{}, true,
     "the signal could not be sent"},
    // OPL_SIG_E_WAIT
    {0x05040F, std::errc{}, true,
     "the wait failed"},
    // OPL_ERR_E_INVALID_MODE
    {0x050501, std::errc::invalid_argument, false,
     "mode is not 0"},
    // OPL_ERR_E_NO_RECORD
    {0x050502, std::errc{}, false,
     "the thread has no error record yet, or the library is not begun"},
    // OPL_USERINFO_E_TOO_SMALL
    {0x050601, std::errc::result_out_of_range, true,
     "the name is longer than the size given"},
    // OPL_USERINFO_E_INVALID_MODE
    {0x050602, std::errc::invalid_argument, true,
     "mode is not 0"},
    // OPL_USERINFO_E_LOOKUP
    {0x050603, std::errc{}, true,
     "the user database has no entry or cannot be read"},
    // OPL_USERINFO_E_NULL_ARGUMENT
    {0x050605, std::errc::invalid_argument, true,
     "a required output pointer is null"},
    // OPL_TASK_E_FORK
    {0x050703, std::errc{}, true,
     "no child process could be made"},
    // OPL_TASK_E_NULL_ARGUMENT
    {0x050704, std::errc::invalid_argument, true,
     "a required argument is null"},
    // OPL_NET_E_FAILED
    {0x050801, std::errc{}, false,
     "not found, or a damaged entry of a database"},
    // OPL_NET_E_HOST_NOT_FOUND
    {0x050802, std::errc{}, false,
     "there is no such host"},
    // OPL_NET_E_TRY_AGAIN
    {0x050803, std::errc::resource_unavailable_try_again, false,
     "no answer now"},
    // OPL_NET_E_NO_RECOVERY
    {0x050804, std::errc{}, false,
     "no answer, and none to come"},
    // OPL_NET_E_NO_DATA
    {0x050805, std::errc{}, false,
     "the host has no address"},
    // OPL_NET_E_TOO_SMALL
    {0x050806, std::errc::result_out_of_range, false,
     "the answer does not fit into the buffer"},
    // OPL_NET_E_INVALID_ARGUMENT
    {0x05080C, std::errc::invalid_argument, false,
     "an argument that the system does not take, or null"},
    // OPL_SOCKET_E_NO_MEMORY
    {0x050902, std::errc::not_enough_memory, true,
     "no memory for the record"},
    // OPL_SOCKET_E_INVALID_MODE
    {0x050903, std::errc::invalid_argument, true,
     "mode is not 0"},
    // OPL_SOCKET_E_OPEN
    {0x050905, std::errc{}, true,
     "the system refused the socket"},
    // OPL_SOCKET_E_BAD_OPTION
    {0x050906, std::errc::invalid_argument, true,
     "no such option"},
    // OPL_SOCKET_E_SET_OPTION
    {0x050907, std::errc{}, true,
     "the option could not be set"},
    // OPL_SOCKET_E_RECEIVE
    {0x050908, std::errc{}, true,
     "nothing could be received"},
    // OPL_SOCKET_E_SEND
    {0x050909, std::errc{}, true,
     "nothing could be sent; the socket counts as dead from now on"},
    // OPL_SOCKET_E_BAD_NOTIFICATION
    {0x05090B, std::errc::invalid_argument, true,
     "write and close are asked for without read"},
    // OPL_SOCKET_E_ACCEPT
    {0x05090E, std::errc{}, true,
     "no connection could be accepted"},
    // OPL_SOCKET_E_LISTEN
    {0x05090F, std::errc{}, true,
     "the socket cannot listen"},
    // OPL_SOCKET_E_BIND
    {0x050910, std::errc{}, true,
     "the address could not be taken"},
    // OPL_SOCKET_E_CONNECT
    {0x050911, std::errc{}, true,
     "no connection could be made"},
    // OPL_SOCKET_E_SHUTDOWN
    {0x050912, std::errc{}, true,
     "the connection could not be shut down"},
    // OPL_SOCKET_E_INET_ADDR
    {0x050913, std::errc::invalid_argument, true,
     "the text is no IPv4 address, or is 255.255.255.255"},
    // OPL_SOCKET_E_INET_NTOA
    {0x050914, std::errc{}, true,
     "the address has no text"},
    // OPL_SOCKET_E_BAD_FAMILY
    {0x05091A, std::errc::address_family_not_supported, true,
     "the address is of another family, or of none"},
    // OPL_SOCKET_E_NO_ADDRESS
    {0x05091B, std::errc::address_not_available, true,
     "the socket has no such address"},
    // OPL_SOCKET_E_WOULD_BLOCK
    {0x05091D, std::errc::resource_unavailable_try_again, false,
     "not now; the connection is being made"},
    // OPL_SOCKET_E_TOO_SMALL
    {0x05091E, std::errc::result_out_of_range, true,
     "the buffer is smaller than a packed address"},
    // OPL_SOCKET_E_PAIR
    {0x05091F, std::errc{}, true,
     "the pair could not be made"},
    // OPL_SOCKET_E_MESSAGE_SEND
    {0x050921, std::errc{}, true,
     "the message could not be sent"},
    // OPL_SOCKET_E_DUPLICATE
    {0x050923, std::errc{}, true,
     "the descriptor could not be duplicated"},
    // OPL_SOCKET_E_BAD_ADDRESS
    {0x050924, std::errc::invalid_argument, true,
     "the address cannot be used"},
    // OPL_SOCKET_E_REFUSED
    {0x050925, std::errc::connection_refused, true,
     "nobody listens there"},
    // OPL_SOCKET_E_UNREACHABLE
    {0x050926, std::errc::network_unreachable, true,
     "no route leads to the network"},
    // OPL_SOCKET_E_RESET
    {0x050927, std::errc::connection_reset, true,
     "the peer has reset the connection"},
    // OPL_SOCKET_E_BROKEN_PIPE
    {0x050928, std::errc::broken_pipe, true,
     "the connection is broken"},
    // OPL_SOCKET_E_TIMEOUT
    {0x050929, std::errc::timed_out, true,
     "nothing became ready in time; the connection timed out"},
    // OPL_SOCKET_E_POLL
    {0x05092A, std::errc{}, true,
     "poll failed"},
    // OPL_SOCKET_E_BAD_NAME
    {0x05092B, std::errc::filename_too_long, true,
     "the path is longer than OPL_SOCKET_PATH_MAX"},
    // OPL_SOCKET_E_NULL_ARGUMENT
    {0x05092C, std::errc::invalid_argument, true,
     "a required pointer argument is null"},
    // OPL_SOCKET_E_NOT_NULL
    {0x05092D, std::errc::invalid_argument, true,
     "a handle to be filled is set already"},
    // OPL_SOCKET_E_NON_BLOCKING
    {0x05092E, std::errc{}, true,
     "the blocking mode could not be changed"},
    // OPL_SOCKET_E_NOT_CONNECTED
    {0x050931, std::errc::not_connected, true,
     "the socket to shut down is not connected"},
    // OPL_SOCKET_E_TOO_MANY
    {0x050932, std::errc::invalid_argument, true,
     "more than OPL_SOCKET_SELECT_MAX sockets to select from"},
    // OPL_SERVER_E_NO_MEMORY
    {0x050B01, std::errc::not_enough_memory, true,
     "no memory"},
    // OPL_SERVER_E_INVALID_MODE
    {0x050B02, std::errc::invalid_argument, true,
     "mode is above 1"},
    // OPL_SERVER_E_STARTED
    {0x050B08, std::errc::device_or_resource_busy, true,
     "the server runs already"},
    // OPL_SERVER_E_NOT_STARTED
    {0x050B09, std::errc::no_such_process, true,
     "the server does not run, or has not finished starting"},
    // OPL_SERVER_E_SYSTEM
    {0x050B0A, std::errc{}, true,
     "the listing's command could not be run"},
    // OPL_SERVER_E_OPEN
    {0x050B0B, std::errc{}, true,
     "a file could not be opened"},
    // OPL_SERVER_E_STAT
    {0x050B0C, std::errc{}, true,
     "the listing's file could not be looked at"},
    // OPL_SERVER_E_READ_SIZE
    {0x050B0D, std::errc{}, true,
     "a file could not be read, or is too short"},
    // OPL_SERVER_E_KILL
    {0x050B0E, std::errc{}, true,
     "a process could not be signalled"},
    // OPL_SERVER_E_TIMEOUT
    {0x050B0F, std::errc::timed_out, true,
     "not started, or still running, after the time given"},
    // OPL_SERVER_E_IN_MAIN
    {0x050B11, std::errc::device_or_resource_busy, true,
     "the process is in OPL_ServerMain already"},
    // OPL_SERVER_E_CONTROLLER
    {0x050B14, std::errc{}, true,
     "the controller file could not be read or written"},
    // OPL_SERVER_E_BAD_LINE
    {0x050B16, std::errc{}, true,
     "reserved; a line that is no listing's"},
    // OPL_SERVER_E_FORK
    {0x050B17, std::errc{}, true,
     "no child process could be made"},
    // OPL_SERVER_E_SETPGRP
    {0x050B18, std::errc{}, true,
     "no process group could be made"},
    // OPL_SERVER_E_TOO_SMALL
    {0x050B19, std::errc::result_out_of_range, true,
     "the text does not fit into the buffer"},
    // OPL_SERVER_E_NULL_ARGUMENT
    {0x050B26, std::errc::invalid_argument, true,
     "a required pointer argument is null"},
    // OPL_SERVER_E_POPEN
    {0x050B27, std::errc{}, true,
     "the spawner's script could not be run"},
    // OPL_SERVER_E_NO_SPAWNER
    {0x050B28, std::errc{}, true,
     "the spawner's script printed nothing"},
    // OPL_SERVER_E_PARAM_NO_MEMORY
    {0x050B39, std::errc::not_enough_memory, true,
     "no memory for parameters"},
    // OPL_SERVER_E_PARAM
    {0x050B3A, std::errc::invalid_argument, true,
     "a bad argument of a parameter function; the program to start could not be executed"},
    // OPL_MEM_E_NO_MEMORY
    {0x050C01, std::errc::not_enough_memory, false,
     "no memory for a new context"},
    // OPL_MEM_E_NULL_ARGUMENT
    {0x050C02, std::errc::invalid_argument, false,
     "a context, callback or state is null"},
    // OPL_FILE_E_STAT
    {0x050D01, std::errc{}, true,
     "a file's status could not be read"},
    // OPL_FILE_E_NO_MEMORY
    {0x050D02, std::errc::not_enough_memory, true,
     "no memory"},
    // OPL_FILE_E_TOO_SMALL
    {0x050D04, std::errc::result_out_of_range, true,
     "a buffer is too small"},
    // OPL_FILE_E_ACCESS
    {0x050D06, std::errc{}, true,
     "reserved; no function returns it"},
    // OPL_FILE_E_NOT_FOUND
    {0x050D07, std::errc::no_such_file_or_directory, true,
     "no such program or file"},
    // OPL_FILE_E_CANONICAL
    {0x050D08, std::errc{}, true,
     "the canonical name could not be made"},
    // OPL_FILE_E_GLOB
    {0x050D09, std::errc{}, true,
     "the pattern matcher failed"},
    // OPL_FILE_E_NO_MATCH
    {0x050D0C, std::errc::no_such_file_or_directory, true,
     "no name matches the pattern"},
    // OPL_FILE_E_OPEN
    {0x050D0D, std::errc{}, true,
     "a file could not be opened"},
    // OPL_FILE_E_READ
    {0x050D0E, std::errc{}, true,
     "a file could not be read"},
    // OPL_FILE_E_WRITE
    {0x050D0F, std::errc{}, true,
     "a file could not be written"},
    // OPL_FILE_E_RMDIR
    {0x050D11, std::errc{}, true,
     "a directory could not be removed"},
    // OPL_FILE_E_REMOVE
    {0x050D13, std::errc{}, true,
     "a file could not be removed"},
    // OPL_FILE_E_NULL_ARGUMENT
    {0x050D14, std::errc::invalid_argument, true,
     "a required argument is null or empty"},
    // OPL_FILE_E_EXISTS
    {0x050D16, std::errc::file_exists, true,
     "the target of an exclusive copy exists"},
    // OPL_FILE_E_MKDIR
    {0x050D17, std::errc{}, true,
     "a directory could not be made"},
    // OPL_FILE_E_NO_PATH
    {0x050D18, std::errc::invalid_argument, true,
     "the path is null or empty"},
    // OPL_FILE_E_TEMP_NAME
    {0x050D19, std::errc{}, true,
     "no temporary name could be made"},
    // OPL_FILE_E_INVALID_MODE
    {0x050D1B, std::errc::invalid_argument, true,
     "mode is not 0"},
    // OPL_TERM_E_OPEN
    {0x050E01, std::errc{}, true,
     "the terminal could not be opened"},
    // OPL_TERM_E_NULL_ARGUMENT
    {0x050E02, std::errc::invalid_argument, true,
     "the buffer is null"},
    // OPL_TERM_E_BAD_SIZE
    {0x050E03, std::errc::invalid_argument, true,
     "the size is below 1"},
    // OPL_TERM_E_NAME
    {0x050E04, std::errc{}, true,
     "the terminal has no name"},
    // OPL_TERM_E_READ
    {0x050E05, std::errc{}, true,
     "standard input could not be read"},
    // OPL_PROCESS_E_ID
    {0x050F01, std::errc{}, true,
     "the system gave no process id"},
    // OPL_PROCESS_E_NULL_ARGUMENT
    {0x050F02, std::errc::invalid_argument, true,
     "a required output pointer is null"},
    // OPL_PROCESS_E_ATFORK
    {0x050F07, std::errc{}, true,
     "fork handlers could not be registered"},
    // OPL_PROCESS_E_KILL
    {0x050F09, std::errc{}, true,
     "the process could not be signalled"},
    // OPL_PROCESS_E_TIMES
    {0x050F0C, std::errc{}, true,
     "the times could not be read"},
    // OPL_CRT_E_FTIME
    {0x051001, std::errc{}, true,
     "the time could not be read (OPL_CrtFTime)"},
    // OPL_CRT_E_SYSTEM
    {0x051002, std::errc{}, true,
     "the command could not be run"},
    // OPL_CRT_E_GETTIMEOFDAY
    {0x051003, std::errc{}, true,
     "the time could not be read (OPL_CrtGetTimeOfDay)"},
    // OPL_MSGQ_E_REGISTERED
    {0x051102, std::errc::file_exists, true,
     "the message queue is registered already"},
    // OPL_MSGQ_E_NOT_REGISTERED
    {0x051103, std::errc::no_such_file_or_directory, true,
     "the message queue is not registered"},
    // OPL_MSGQ_E_REGISTER
    {0x051104, std::errc{}, true,
     "the control file could not be made"},
    // OPL_MSGQ_E_DEREGISTER
    {0x051105, std::errc{}, true,
     "the control file or the queue could not be removed"},
    // OPL_PRIVATE_E_OPEN
    {0x051203, std::errc{}, true,
     "the object file could not be opened or created"},
    // OPL_PRIVATE_E_WRITE
    {0x051204, std::errc{}, true,
     "the id could not be written whole"},
    // OPL_PRIVATE_E_READ
    {0x051205, std::errc{}, true,
     "the id could not be read whole"},
    // OPL_PRIVATE_E_CLOSE
    {0x051206, std::errc{}, true,
     "the object file could not be closed"},
    // OPL_PRIVATE_E_FCHMOD
    {0x051207, std::errc{}, true,
     "the object file's permissions could not be set"},
    // OPL_PRIVATE_E_SHMEM_EXISTS
    {0x051208, std::errc::file_exists, true,
     "the shared memory's object file exists"},
    // OPL_PRIVATE_E_SHMEM_MISSING
    {0x051209, std::errc::no_such_file_or_directory, true,
     "the shared memory's object file or segment does not exist"},
    // OPL_PRIVATE_E_SEM_EXISTS
    {0x05120A, std::errc::file_exists, true,
     "the semaphore set's object file exists"},
    // OPL_PRIVATE_E_SEM_MISSING
    {0x05120B, std::errc::no_such_file_or_directory, true,
     "the semaphore set's object file or set does not exist"},
    // OPL_PRIVATE_E_SHMGET
    {0x05120C, std::errc{}, true,
     "no segment could be made"},
    // OPL_PRIVATE_E_SHM_REMOVE
    {0x05120D, std::errc{}, true,
     "the segment could not be removed"},
    // OPL_PRIVATE_E_SHM_DETACH
    {0x05120E, std::errc{}, true,
     "the segment could not be detached"},
    // OPL_PRIVATE_E_SHM_ATTACH
    {0x05120F, std::errc{}, true,
     "the segment could not be attached"},
    // OPL_PRIVATE_E_SEMGET
    {0x051210, std::errc{}, true,
     "no set could be made"},
    // OPL_PRIVATE_E_SEMCTL
    {0x051211, std::errc{}, true,
     "the set's values could not be set, or the set not removed"},
    // OPL_PRIVATE_E_SEMOP
    {0x051212, std::errc{}, true,
     "a semaphore operation failed"},
    // OPL_PRIVATE_E_MGMT_STAT
    {0x051214, std::errc{}, true,
     "the management lock's temporary file could not be looked at"},
    // OPL_PRIVATE_E_MGMT_LINK
    {0x051215, std::errc{}, true,
     "the management file could not be linked"},
    // OPL_PRIVATE_E_IN_USE
    {0x051216, std::errc::device_or_resource_busy, false,
     "others still use the object"},
    // OPL_PRIVATE_E_MGMT_EXISTS
    {0x051217, std::errc::file_exists, true,
     "another process made the management lock first"},
    // OPL_PRIVATE_E_MGMT_MISSING
    {0x051218, std::errc::no_such_file_or_directory, true,
     "no management lock: not held by this process, or removed"},
    // OPL_PRIVATE_E_MGMT_HELD
    {0x051219, std::errc::device_or_resource_busy, true,
     "this process holds a management lock already"},
    // OPL_PRIVATE_E_MGMT_UNAVAILABLE
    {0x05121A, std::errc::device_or_resource_busy, true,
     "the management lock is being removed, or others still use it"},
};
// clang-format on

inline const CodeEntry& EntryOfCode(OPL_Result code) noexcept {
  static constexpr CodeEntry kUnknown{0, std::errc{}, true, "not a result code of QVOPL"};
  static constexpr CodeEntry kSuccess{0, std::errc{}, false, "success"};
  if (code == OPL_OK) return kSuccess;
  const CodeEntry* const found =
      std::lower_bound(std::begin(kCodes), std::end(kCodes), code,
                       [](const CodeEntry& entry, OPL_Result wanted) { return entry.code < wanted; });
  return found != std::end(kCodes) && found->code == code ? *found : kUnknown;
}

}  // namespace detail

}  // namespace qvopl

#endif
