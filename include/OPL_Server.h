/**
 * @defgroup server Servers
 *
 * Server control: starting and stopping daemons, listing their processes, and a daemon's own main frame.
 *
 * A server object says which program a daemon is, under which name its processes are listed, and under which
 * name its state is kept. A controller makes one and starts, asks and stops the daemon with it; the daemon
 * makes one and runs in OPL_ServerMain. Either may be a 32-bit or a 64-bit program.
 *
 * Whether a daemon runs is told by the list of the system's processes, which the script OPL_ServerPS of the
 * server's script directory prints; whether it has finished starting, by its controller file in the IPC
 * directory. See docs/servers.md.
 *
 * @callable after OPL_InitBegin, by one thread at a time for an object, not in a signal handler
 * @{
 */
#ifndef OPL_SERVER_H
#define OPL_SERVER_H

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes. */
enum {
  OPL_SERVER_E_NO_MEMORY = 0x050B01,       /**< no memory */
  OPL_SERVER_E_INVALID_MODE = 0x050B02,    /**< mode is above 1 */
  OPL_SERVER_E_STARTED = 0x050B08,         /**< the server runs already */
  OPL_SERVER_E_NOT_STARTED = 0x050B09,     /**< the server does not run, or has not finished starting */
  OPL_SERVER_E_SYSTEM = 0x050B0A,          /**< the listing's command could not be run */
  OPL_SERVER_E_OPEN = 0x050B0B,            /**< a file could not be opened */
  OPL_SERVER_E_STAT = 0x050B0C,            /**< the listing's file could not be looked at */
  OPL_SERVER_E_READ_SIZE = 0x050B0D,       /**< a file could not be read, or is too short */
  OPL_SERVER_E_KILL = 0x050B0E,            /**< a process could not be signalled */
  OPL_SERVER_E_TIMEOUT = 0x050B0F,         /**< not started, or still running, after the time given */
  OPL_SERVER_E_IN_MAIN = 0x050B11,         /**< the process is in OPL_ServerMain already */
  OPL_SERVER_E_CONTROLLER = 0x050B14,      /**< the controller file could not be read or written */
  OPL_SERVER_E_BAD_LINE = 0x050B16,        /**< reserved; a line that is no listing's */
  OPL_SERVER_E_FORK = 0x050B17,            /**< no child process could be made */
  OPL_SERVER_E_SETPGRP = 0x050B18,         /**< no process group could be made */
  OPL_SERVER_E_TOO_SMALL = 0x050B19,       /**< the text does not fit into the buffer */
  OPL_SERVER_E_NULL_ARGUMENT = 0x050B26,   /**< a required pointer argument is null */
  OPL_SERVER_E_POPEN = 0x050B27,           /**< the spawner's script could not be run */
  OPL_SERVER_E_NO_SPAWNER = 0x050B28,      /**< the spawner's script printed nothing */
  OPL_SERVER_E_PARAM_NO_MEMORY = 0x050B39, /**< no memory for parameters */
  OPL_SERVER_E_PARAM = 0x050B3A            /**< a bad argument of a parameter function; the program to start
                                                could not be executed */
};

/** What OPL_ServerParamSet sets, with the bytes of a buffer for OPL_ServerParamGet. */
enum {
  OPL_SERVER_PARAM_SCRIPT_DIRECTORY = 0, /**< where OPL_ServerPS and OPL_ServerInitPidGet lie; 4095 bytes */
  OPL_SERVER_PARAM_CONTROLLER_NAME = 1,  /**< begins the controller file's name; 20 bytes */
  OPL_SERVER_PARAM_EXECUTABLE_PATH = 2,  /**< the program that OPL_ServerStart runs; 4095 bytes */
  OPL_SERVER_PARAM_PROCESS_NAME = 3 /**< its argument zero, which the listing is searched for; 255 bytes */
};

/** How OPL_ServerMain runs a daemon. */
enum {
  OPL_SERVER_DETACHED = 0,  /**< away from the terminal, as a child of the system */
  OPL_SERVER_FOREGROUND = 1 /**< as it was started */
};

/** Bytes for the texts of a listed process. */
enum {
  OPL_SERVER_USER_NAME_SIZE = 64,    /**< of OPL_ServerInfoGetUserName */
  OPL_SERVER_TIME_SIZE = 50,         /**< of OPL_ServerInfoGetStartTime and OPL_ServerInfoGetCPUTime */
  OPL_SERVER_SERVICE_NAME_SIZE = 256 /**< of OPL_ServerInfoGetServiceName */
};

/** The parameters of a server. */
typedef struct OPL_ServerParam OPL_ServerParam;

/** A server. */
typedef struct OPL_Server OPL_Server;

/** One process of a server. */
typedef struct OPL_ServerInfo OPL_ServerInfo;

/**
 * Makes a set of empty parameters.
 *
 * @param ppServerParam  receives it, ended with OPL_ServerParamDestroy
 * @param mode           0
 *
 * @return OPL_OK                        made
 * @return OPL_SERVER_E_PARAM            ppServerParam is null, or mode is not 0
 * @return OPL_SERVER_E_PARAM_NO_MEMORY  no memory
 */
OPL_API OPL_Result OPL_ServerParamCreate(OPL_ServerParam** ppServerParam, uint32_t mode);

/**
 * Releases parameters and stores null.
 *
 * @param ppServerParam  the parameters; null afterwards
 *
 * @return OPL_OK              released
 * @return OPL_SERVER_E_PARAM  ppServerParam or *ppServerParam is null
 */
OPL_API OPL_Result OPL_ServerParamDestroy(OPL_ServerParam** ppServerParam);

/**
 * Sets a parameter.
 *
 * @param pServerParam  the parameters
 * @param option        OPL_SERVER_PARAM_*
 * @param text          cut to the option's bytes, the terminator included
 *
 * @return OPL_OK              set
 * @return OPL_SERVER_E_PARAM  pServerParam or text is null, or there is no such option
 */
OPL_API OPL_Result OPL_ServerParamSet(OPL_ServerParam* pServerParam, uint32_t option, const char* text);

/**
 * Tells a parameter.
 *
 * @param pServerParam  the parameters
 * @param option        OPL_SERVER_PARAM_*
 * @param buffer        receives the text; has the option's bytes
 *
 * @return OPL_OK              told
 * @return OPL_SERVER_E_PARAM  pServerParam or buffer is null, or there is no such option
 */
OPL_API OPL_Result OPL_ServerParamGet(const OPL_ServerParam* pServerParam, uint32_t option, char* buffer);

/**
 * Makes a server object, with copies of the parameters.
 *
 * @param ppServer      receives it, ended with OPL_ServerDestroy; null only checks the other arguments
 * @param mode          OPL_SERVER_DETACHED or OPL_SERVER_FOREGROUND; looked at by OPL_ServerMain
 * @param pServerParam  may be released afterwards
 *
 * @return OPL_OK                     made
 * @return OPL_SERVER_E_INVALID_MODE  mode is above 1
 * @return OPL_SERVER_E_PARAM         pServerParam is null
 * @return OPL_SERVER_E_NO_MEMORY     no memory
 */
OPL_API OPL_Result OPL_ServerCreate(OPL_Server** ppServer, uint32_t mode,
                                    const OPL_ServerParam* pServerParam);

/**
 * Releases a server object and stores null; the daemon goes on.
 *
 * @param ppServer  the object, or a null handle; may be null itself
 *
 * @return OPL_OK  released, or there was none
 */
OPL_API OPL_Result OPL_ServerDestroy(OPL_Server** ppServer);

/** @} */

/**
 * @defgroup servercontrol Controllers
 * @ingroup server
 *
 * What a controller does with a server: it starts, asks, lists and stops it.
 *
 * @callable after OPL_InitBegin, by one thread at a time for an object, not in a signal handler
 * @{
 */

/**
 * Starts a daemon and waits until it says that it is started. The daemon gets no arguments; descriptors and
 * environment are the caller's.
 *
 * @param pServer         the server
 * @param reserved1       not looked at
 * @param reserved2       not looked at
 * @param timeoutSeconds  how often the controller file is looked for, once a second. A daemon that is found
 *                        at the last look counts as not started, and 0 does not look at all; in both cases it
 *                        has been started all the same.
 *
 * @return OPL_OK                      started
 * @return OPL_SERVER_E_NULL_ARGUMENT  pServer is null
 * @return OPL_SERVER_E_STARTED        it runs already
 * @return OPL_SERVER_E_NOT_STARTED    it ended before it said so
 * @return OPL_SERVER_E_TIMEOUT        it has not said so in time
 * @return OPL_SERVER_E_FORK           the system refused
 * @return OPL_SERVER_E_PARAM          returned IN THE CHILD PROCESS when the program could not be executed:
 *                                     end the process
 * @return a code of OPL_ServerInfoGet or OPL_ServerControllerPidGet for what went wrong with the listing or
 *         the controller file
 */
OPL_API OPL_Result OPL_ServerStart(OPL_Server* pServer, void* reserved1, void* reserved2,
                                   uint32_t timeoutSeconds);

/**
 * Asks a server to stop (SIGUSR1 to each of its processes) and waits.
 *
 * @param pServer      the server
 * @param waitSeconds  how often it is looked for, once a second
 *
 * @return OPL_OK                      it has stopped
 * @return OPL_SERVER_E_NULL_ARGUMENT  pServer is null
 * @return OPL_SERVER_E_NOT_STARTED    it does not run
 * @return OPL_SERVER_E_TIMEOUT        it still runs
 * @return OPL_SERVER_E_KILL           a process could not be signalled, as one of another user
 * @return a code of OPL_ServerInfoGet for what went wrong with the listing
 */
OPL_API OPL_Result OPL_ServerStop(OPL_Server* pServer, uint32_t waitSeconds);

/**
 * Asks a server to end, as OPL_ServerStop does, with SIGTERM.
 *
 * @param pServer      the server
 * @param waitSeconds  how often it is looked for, once a second
 *
 * @return as OPL_ServerStop
 */
OPL_API OPL_Result OPL_ServerTerminate(OPL_Server* pServer, uint32_t waitSeconds);

/**
 * Ends a server, as OPL_ServerStop does, with SIGKILL. Its controller file stays; the next start gets by it.
 *
 * @param pServer      the server
 * @param waitSeconds  how often it is looked for, once a second
 *
 * @return as OPL_ServerStop
 */
OPL_API OPL_Result OPL_ServerKill(OPL_Server* pServer, uint32_t waitSeconds);

/**
 * Tells whether a server runs.
 *
 * @param pServer     the server
 * @param pIsRunning  receives 1 or 0
 *
 * @return OPL_OK                      told
 * @return OPL_SERVER_E_NULL_ARGUMENT  an argument is null
 * @return a code of OPL_ServerInfoGet
 */
OPL_API OPL_Result OPL_ServerIsStarted(OPL_Server* pServer, uint32_t* pIsRunning);

/**
 * Tells the process id that a daemon has written when it was started. It may be a dead one's.
 *
 * @param pServer  the server
 * @param pPid     receives the id
 *
 * @return OPL_OK                      told
 * @return OPL_SERVER_E_NULL_ARGUMENT  an argument is null
 * @return OPL_SERVER_E_NOT_STARTED    there is no controller file
 * @return OPL_SERVER_E_READ_SIZE      it has less than 4 bytes
 * @return OPL_SERVER_E_OPEN, OPL_SERVER_E_CONTROLLER  it could not be opened or read
 */
OPL_API OPL_Result OPL_ServerControllerPidGet(OPL_Server* pServer, uint32_t* pPid);

/**
 * Lists a server's processes.
 *
 * @param pServer        the server
 * @param pppServerInfo  receives an array of processes, released with OPL_ServerInfoDestroy
 * @param pNumProcess    receives their number
 *
 * @return OPL_OK                      listed; there may be none
 * @return OPL_SERVER_E_NULL_ARGUMENT  an argument is null
 * @return OPL_SERVER_E_SYSTEM, _OPEN, _STAT, _READ_SIZE, _POPEN, _NO_SPAWNER  the system refused
 * @return OPL_SERVER_E_NO_MEMORY      no memory
 */
OPL_API OPL_Result OPL_ServerInfoGet(OPL_Server* pServer, OPL_ServerInfo*** pppServerInfo,
                                     uint32_t* pNumProcess);

/**
 * Releases a list and stores null.
 *
 * @callable at any time, by any thread, not in a signal handler
 *
 * @param pServer        not looked at
 * @param pppServerInfo  the list; null for none
 * @param numProcess     its number of processes
 *
 * @return OPL_OK  released, or there was none
 */
OPL_API OPL_Result OPL_ServerInfoDestroy(OPL_Server* pServer, OPL_ServerInfo*** pppServerInfo,
                                         uint32_t numProcess);

/**
 * Tells the process whose children daemons become: what the script OPL_ServerInitPidGet prints.
 *
 * @param pServer  the server
 * @param pPid     receives the id
 *
 * @return OPL_OK                      told
 * @return OPL_SERVER_E_NULL_ARGUMENT  an argument is null
 * @return OPL_SERVER_E_POPEN, OPL_SERVER_E_NO_SPAWNER  the script could not be run, or printed nothing
 */
OPL_API OPL_Result OPL_ServerSystemSpawnerPidGet(OPL_Server* pServer, uint32_t* pPid);

/** @} */

/**
 * @defgroup serverinfo Listed processes
 * @ingroup server
 *
 * What is known of a listed process. The texts are copied with their terminator.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 * @{
 */

/**
 * Tells the caller's own user name, whose process it is.
 *
 * @param hServerInfo  a process of a list
 * @param userName     receives the text with its terminator
 * @param size         bytes of userName; OPL_SERVER_USER_NAME_SIZE suffices
 *
 * @return OPL_OK                      told
 * @return OPL_SERVER_E_NULL_ARGUMENT  an argument is null
 * @return OPL_SERVER_E_TOO_SMALL      the text with its terminator is longer than size bytes
 */
OPL_API OPL_Result OPL_ServerInfoGetUserName(const OPL_ServerInfo* hServerInfo, char* userName,
                                             uint32_t size);

/**
 * Tells the process id.
 *
 * @param hServerInfo  a process of a list
 * @param pPid         receives the id
 *
 * @return OPL_OK                      told
 * @return OPL_SERVER_E_NULL_ARGUMENT  an argument is null
 */
OPL_API OPL_Result OPL_ServerInfoGetPid(const OPL_ServerInfo* hServerInfo, uint32_t* pPid);

/**
 * Tells the parent's process id.
 *
 * @param hServerInfo  a process of a list
 * @param pPid         receives the id
 *
 * @return OPL_OK                      told
 * @return OPL_SERVER_E_NULL_ARGUMENT  an argument is null
 */
OPL_API OPL_Result OPL_ServerInfoGetPPid(const OPL_ServerInfo* hServerInfo, uint32_t* pPid);

/**
 * Tells when the process started, as the script OPL_ServerPS prints it.
 *
 * @param hServerInfo  a process of a list
 * @param startTime    receives the text with its terminator
 * @param size         bytes of startTime; OPL_SERVER_TIME_SIZE suffices
 *
 * @return as OPL_ServerInfoGetUserName
 */
OPL_API OPL_Result OPL_ServerInfoGetStartTime(const OPL_ServerInfo* hServerInfo, char* startTime,
                                              uint32_t size);

/**
 * Tells the processor time that the process has used, as the script OPL_ServerPS prints it.
 *
 * @param hServerInfo  a process of a list
 * @param cpuTime      receives the text with its terminator
 * @param size         bytes of cpuTime; OPL_SERVER_TIME_SIZE suffices
 *
 * @return as OPL_ServerInfoGetUserName
 */
OPL_API OPL_Result OPL_ServerInfoGetCPUTime(const OPL_ServerInfo* hServerInfo, char* cpuTime, uint32_t size);

/**
 * Tells the server's process name.
 *
 * @param hServerInfo  a process of a list
 * @param serviceName  receives the text with its terminator
 * @param size         bytes of serviceName; OPL_SERVER_SERVICE_NAME_SIZE suffices
 *
 * @return as OPL_ServerInfoGetUserName
 */
OPL_API OPL_Result OPL_ServerInfoGetServiceName(const OPL_ServerInfo* hServerInfo, char* serviceName,
                                                uint32_t size);

/** @} */

/**
 * @defgroup serverdaemon Daemons
 * @ingroup server
 *
 * A daemon's own main frame, and what it says of its state.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 * @{
 */

/** What a daemon runs in OPL_ServerMain. Its result goes to OPL_ServerMain's caller. */
typedef uint32_t (*OPL_ServerMainFunction)(void* a, void* b, void* c);

/** What is called in a signal handler when the daemon is asked to stop. */
typedef void (*OPL_ServerSignalCallback)(void* c);

/**
 * Runs a daemon: handles SIGUSR1 and SIGTERM, detaches from the terminal, and calls its main function. That
 * calls OPL_ServerSetStarted when it is ready and OPL_ServerSetStop before it returns.
 *
 * In mode OPL_SERVER_DETACHED the process forks twice, leaves its parents behind, takes over what they had of
 * the library (OPL_InitSetCurrentPid) and sets its umask to 077. Other threads do not come along.
 *
 * @callable after OPL_InitBegin, by one thread of the process, not in a signal handler
 *
 * @param pServer   the server; not released before the call returns
 * @param closeStd  1 closes standard input, output and error of a detached daemon
 * @param main      the main function; is not called after a failure
 * @param callback  called in a signal handler, with c: it may set a flag, write to a pipe, and nothing that
 *                  allocates or locks; may be null. The signal alone stops nothing.
 * @param a         handed to main
 * @param b         handed to main
 * @param c         handed to main, and to callback
 * @param pResult   receives main's result; may be null
 *
 * @return OPL_OK                      main has returned
 * @return OPL_SERVER_E_NULL_ARGUMENT  pServer or main is null
 * @return OPL_SERVER_E_IN_MAIN        the process is in OPL_ServerMain already
 * @return OPL_SERVER_E_FORK, OPL_SERVER_E_SETPGRP, or a code of OPL_SigSignal or OPL_InitSetCurrentPid for
 *         what the system refused
 */
OPL_API OPL_Result OPL_ServerMain(OPL_Server* pServer, uint32_t closeStd, OPL_ServerMainFunction main,
                                  OPL_ServerSignalCallback callback, void* a, void* b, void* c,
                                  uint32_t* pResult);

/**
 * Says that the daemon is started: writes its process id into the controller file. In the main function.
 *
 * @return OPL_OK                      said
 * @return OPL_SERVER_E_NULL_ARGUMENT  the process is not in OPL_ServerMain
 * @return OPL_SERVER_E_OPEN, OPL_SERVER_E_CONTROLLER  the file could not be opened or written
 */
OPL_API OPL_Result OPL_ServerSetStarted(void);

/** Does nothing. @return OPL_OK */
OPL_API OPL_Result OPL_ServerSetStartPending(void);

/** Does nothing. @return OPL_OK */
OPL_API OPL_Result OPL_ServerSetStopPending(void);

/**
 * Removes the controller file. In the main function.
 *
 * @return OPL_OK                      removed, or there was none
 * @return OPL_SERVER_E_NULL_ARGUMENT  the process is not in OPL_ServerMain
 */
OPL_API OPL_Result OPL_ServerSetStop(void);

/**
 * Removes the controller files of the instance whose names match a pattern. Called by OPL_InitTerminateIPC.
 *
 * @param flag     not looked at
 * @param pattern  as the shell matches names, relative to the IPC directory
 *
 * @return OPL_OK  removed, or there was none
 * @return OPL_FILE_E_REMOVE, or a code of OPL_FileNameFind; all files are gone through all the same
 */
OPL_API OPL_Result OPL_ServerTerminateIPC(uint32_t flag, const char* pattern);

/** Does nothing. @return OPL_OK */
OPL_API OPL_Result OPL_ServerChangeDriveToBinDrive(void);

/** @} */

OPL_END_DECLS

#endif
