/**
 * @defgroup file Files
 *
 * Canonical names, existence, the search path, sizes, removal, copies, temporary names, and lists of
 * the names that match a pattern.
 *
 * The functions work at any time, but for the pattern lists and what builds on them (OPL_FileNameFind,
 * OPL_FileNameFindEnd, OPL_FileRecursiveRm), which need the library begun. Files may be larger than 2 GB in
 * both widths. See docs/files.md.
 *
 * @callable at any time, by any thread, not in a signal handler
 * @{
 */
#ifndef OPL_FILE_H
#define OPL_FILE_H

#include "OPL_Types.h"

OPL_BEGIN_DECLS

/** Result codes. */
enum {
  OPL_FILE_E_STAT = 0x050D01,          /**< a file's status could not be read */
  OPL_FILE_E_NO_MEMORY = 0x050D02,     /**< no memory */
  OPL_FILE_E_TOO_SMALL = 0x050D04,     /**< a buffer is too small */
  OPL_FILE_E_ACCESS = 0x050D06,        /**< reserved; no function returns it */
  OPL_FILE_E_NOT_FOUND = 0x050D07,     /**< no such program or file */
  OPL_FILE_E_CANONICAL = 0x050D08,     /**< the canonical name could not be made */
  OPL_FILE_E_GLOB = 0x050D09,          /**< the pattern matcher failed */
  OPL_FILE_E_NO_MATCH = 0x050D0C,      /**< no name matches the pattern */
  OPL_FILE_E_OPEN = 0x050D0D,          /**< a file could not be opened */
  OPL_FILE_E_READ = 0x050D0E,          /**< a file could not be read */
  OPL_FILE_E_WRITE = 0x050D0F,         /**< a file could not be written */
  OPL_FILE_E_RMDIR = 0x050D11,         /**< a directory could not be removed */
  OPL_FILE_E_REMOVE = 0x050D13,        /**< a file could not be removed */
  OPL_FILE_E_NULL_ARGUMENT = 0x050D14, /**< a required argument is null or empty */
  OPL_FILE_E_EXISTS = 0x050D16,        /**< the target of an exclusive copy exists */
  OPL_FILE_E_MKDIR = 0x050D17,         /**< a directory could not be made */
  OPL_FILE_E_NO_PATH = 0x050D18,       /**< the path is null or empty */
  OPL_FILE_E_TEMP_NAME = 0x050D19,     /**< no temporary name could be made */
  OPL_FILE_E_INVALID_MODE = 0x050D1B   /**< mode is not 0 */
};

/** The mode of OPL_FileNameFind. */
enum {
  OPL_FILE_FIND_NEW = 0,   /**< makes a list */
  OPL_FILE_FIND_APPEND = 1 /**< adds to the list in the handle */
};

/** A list of names; made by OPL_FileNameFind, released by OPL_FileNameFindEnd. */
typedef struct OPL_FileNameList OPL_FileNameList;

/**
 * Prepares the pattern lists. Called by OPL_InitBegin.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 *
 * @return OPL_OK, or a code of OPL_SyncCriticalSectionInit
 */
OPL_API OPL_Result OPL_FileInit(void);

/**
 * Ends the pattern lists. Called by the last OPL_InitEnd.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 *
 * @return OPL_OK, or a code of OPL_SyncCriticalSectionUnInit
 */
OPL_API OPL_Result OPL_FileEnd(void);

/**
 * Resolves a path: absolute, without links, "." and "..". A path that ends in '/' or '\' keeps a '/' at its
 * end.
 *
 * @param path    the file or directory, which must exist
 * @param buffer  receives the name; must hold PATH_MAX bytes, whatever size says
 * @param size    the most bytes to use when a '/' is added
 *
 * @return OPL_OK                    resolved
 * @return OPL_FILE_E_NULL_ARGUMENT  path or buffer is null
 * @return OPL_FILE_E_CANONICAL      the system could not resolve it
 * @return OPL_FILE_E_TOO_SMALL      no room for the '/'
 */
OPL_API OPL_Result OPL_FileCanonicalNameGet(const char* path, char* buffer, uint32_t size);

/**
 * Tells whether there is a file of that name. Slashes and backslashes at its end do not count.
 *
 * @param path     the name
 * @param pExists  receives 1 or 0; 0 also when the system does not let the file be looked at; may be null
 *
 * @return OPL_OK                told
 * @return OPL_FILE_E_NO_PATH    path is null or empty
 * @return OPL_FILE_E_NO_MEMORY  no memory
 */
OPL_API OPL_Result OPL_FileExists(const char* path, uint32_t* pExists);

/**
 * Finds the directory that holds a program: of a name with '/', the part before the last one; else the first
 * directory of PATH that has a file of that name. An empty element of PATH is the current directory, and ends
 * the search.
 *
 * @param name    the program
 * @param buffer  receives the directory's canonical name, the empty text when there is none; must hold
 * PATH_MAX bytes
 * @param size    bytes of buffer
 *
 * @return OPL_OK                    found
 * @return OPL_FILE_E_NULL_ARGUMENT  name or buffer is null
 * @return OPL_FILE_E_NOT_FOUND      no directory has it
 * @return OPL_FILE_E_TOO_SMALL      an element of PATH, or it with the name, exceeds 512 characters
 * @return OPL_FILE_E_NO_MEMORY      no memory
 */
OPL_API OPL_Result OPL_FileExecutablePathFind(const char* name, char* buffer, uint32_t size);

/**
 * Tells a file's size in bytes.
 *
 * @param path   the file; links are followed
 * @param pSize  receives the size; may be null
 *
 * @return OPL_OK           told
 * @return OPL_FILE_E_STAT  the system refused
 */
OPL_API OPL_Result OPL_FileSizeGet(const char* path, int64_t* pSize);

/**
 * Makes a directory for its owner alone (0700). One that exists already, whatever its kind, is success.
 *
 * @param path  the directory
 *
 * @return OPL_OK            made, or the name exists
 * @return OPL_FILE_E_MKDIR  the system refused
 */
OPL_API OPL_Result OPL_FileMkDir(const char* path);

/**
 * Removes the files and directories that match a pattern, directories with what is in them. Links are
 * removed, not followed. It stops at the first failure. Names that begin with '.' inside a directory are not
 * matched and keep that directory from being removed.
 *
 * @callable after OPL_InitBegin, by any thread, not in a signal handler
 *
 * @param reserved  not looked at
 * @param pattern   as the shell matches names
 *
 * @return OPL_OK                removed, or nothing matched
 * @return OPL_FILE_E_STAT, OPL_FILE_E_REMOVE, OPL_FILE_E_RMDIR  what the system refused
 * @return OPL_FILE_E_TOO_SMALL  a directory's name leaves no room for the pattern of what is in it
 * @return a code of OPL_FileNameFind
 */
OPL_API OPL_Result OPL_FileRecursiveRm(uint32_t reserved, const char* pattern);

/**
 * Makes the name of a file that does not exist, as tempnam does. Another process may take the name before
 * this one does: open it exclusively.
 *
 * @param directory  where; null lets the system choose
 * @param prefix     up to five characters; may be null
 * @param pName      receives the name, released with OPL_FileTempNameDestroy; may be null
 *
 * @return OPL_OK                made
 * @return OPL_FILE_E_TEMP_NAME  none could be made
 */
OPL_API OPL_Result OPL_FileTempNameCreate(const char* directory, const char* prefix, char** pName);

/**
 * Releases a name of OPL_FileTempNameCreate; null is ignored.
 *
 * @param name  the name
 *
 * @return OPL_OK
 */
OPL_API OPL_Result OPL_FileTempNameDestroy(char* name);

/**
 * Lists the names that match a pattern, sorted.
 *
 * @callable after OPL_InitBegin, by one thread at a time for a list, not in a signal handler
 *
 * @param mode      OPL_FILE_FIND_NEW, or OPL_FILE_FIND_APPEND to add to the list in *ppHandle
 * @param ppHandle  receives the list, released with OPL_FileNameFindEnd; null on failure, unless appending
 * @param pattern   as the shell matches names; "/tmp/x*"
 * @param pNames    receives the names, which belong to the list
 * @param pCount    receives their number
 *
 * @return OPL_OK                    listed
 * @return OPL_FILE_E_NULL_ARGUMENT  an argument is null, or there is no list to add to
 * @return OPL_FILE_E_NO_MEMORY      no memory
 * @return OPL_FILE_E_NO_MATCH       nothing matches
 * @return OPL_FILE_E_GLOB           the pattern matcher failed, as on a directory that cannot be read
 * @return OPL_INIT_E_STOPPED        the library is not begun
 * @return a code of OPL_SyncCriticalSectionEnter
 */
OPL_API OPL_Result OPL_FileNameFind(uint32_t mode, OPL_FileNameList** ppHandle, const char* pattern,
                                    char*** pNames, uint32_t* pCount);

/**
 * Releases a list and its names, and stores null.
 *
 * @callable after OPL_InitBegin, by one thread at a time for a list, not in a signal handler
 *
 * @param ppHandle  the list; null afterwards
 *
 * @return OPL_OK              released; also when there was none, which leaves a message
 * @return OPL_INIT_E_STOPPED  the library is not begun
 * @return a code of OPL_SyncCriticalSectionEnter or OPL_SyncCriticalSectionLeave
 */
OPL_API OPL_Result OPL_FileNameFindEnd(OPL_FileNameList** ppHandle);

/**
 * Removes a file.
 *
 * @param reserved  not looked at
 * @param path      the file
 *
 * @return OPL_OK             removed
 * @return OPL_FILE_E_REMOVE  the system refused
 */
OPL_API OPL_Result OPL_FileRm(uint32_t reserved, const char* path);

/**
 * Copies a file's contents over a target. What a longer target holds behind them stays.
 *
 * @param reserved   not looked at
 * @param source     the file to read
 * @param target     the file to write; made with permissions 0600 when it does not exist
 * @param exclusive  not 0: refuse a target that exists
 *
 * @return OPL_OK                    copied, or source and target are the same text
 * @return OPL_FILE_E_NULL_ARGUMENT  source or target is null or empty
 * @return OPL_FILE_E_OPEN           source or target could not be opened
 * @return OPL_FILE_E_EXISTS         the target exists
 * @return OPL_FILE_E_READ           the copy is incomplete
 * @return OPL_FILE_E_WRITE          a part was not written; the rest was tried
 */
OPL_API OPL_Result OPL_FileCopy(uint32_t reserved, const char* source, const char* target,
                                uint32_t exclusive);

/**
 * Makes a file's name fit for display, once the file is known to exist: the name as it is.
 *
 * @param mode     0
 * @param path     the file
 * @param display  receives the name
 * @param size     bytes of display
 *
 * @return OPL_OK                    made
 * @return OPL_FILE_E_INVALID_MODE   mode is not 0
 * @return OPL_FILE_E_NULL_ARGUMENT  path or display is null
 * @return OPL_FILE_E_TOO_SMALL      the name does not fit
 * @return OPL_FILE_E_NOT_FOUND      there is no such file
 */
OPL_API OPL_Result OPL_FileFormatFilenameForDisplay(uint32_t mode, const char* path, char* display,
                                                    uint32_t size);

/** @} */

OPL_END_DECLS

#endif
