/* The host's door to the library: start-up, NVAR access, termination. Compiles as C11.
 *
 * Order of calls:
 *   1. qoQfsDolmInit
 *   2. any number of qoqfsCheckNvarExists, qoQfsNvarGet, qoQfsNvarResize and the getters
 *   3. qoQfsNvarTerm(true), which writes everything back
 *   4. qoQfsGetBuildVynCfgFcsBuffer, and the host copies the rebuilt store's bytes
 *   5. steps 2 to 4 as often as wanted
 *   6. qoQfsNvarTerm(false), after which start-up may run again
 * A value is changed by writing through the pointer that qoQfsNvarGet or qoQfsNvarResize gave.
 *
 * The library has one instance per process and runs on one thread at a time. Operations give back
 * plain success or failure; the reason of a failure reaches the host through its status callback,
 * during the call that fails. */
#ifndef DOLM_QOQFS_H
#define DOLM_QOQFS_H

#include <assert.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "dolm_api.h"

/* How grave a report is. */
DOLM_ENUM(ErrorLevel, int32_t){
    ERROR_LEVEL_WARNING = 2, /* start-up goes on: a file is missing from the deployed VFS */
    ERROR_LEVEL_ERROR = 4,   /* the operation fails, or a soft assertion */
};

/* Catalogue numbers, 0 to 417; those that this library raises or has a text for. The others belong
 * to other components of the host tool. */
DOLM_ENUM(ImageToolsErrorName, int32_t){
    IMAGE_TOOLS_NO_ERROR = 0,
    IMAGE_TOOLS_INITIALIZE_ERROR = 1,
    IMAGE_TOOLS_FILE_NOT_FOUND = 39,
    IMAGE_TOOLS_FILE_WRITE_ERROR = 102,
    IMAGE_TOOLS_BUFFER_PARSING_ERROR = 116,
    IMAGE_TOOLS_INVALID_DATA_POINTER = 323,
    IMAGE_TOOLS_OUT_OF_MEMORY = 324,
    IMAGE_TOOLS_FCS_REMOVE_ENTRY_FAILED = 325,
    IMAGE_TOOLS_QFS_NOT_INITIALIZED = 326,
    IMAGE_TOOLS_FCS_NOT_INITIALIZED = 327,
    IMAGE_TOOLS_FCS_ENTRIES_FAILED = 328,
    IMAGE_TOOLS_FCS_DUPLICATE_LABEL = 329,
    IMAGE_TOOLS_FCS_ENTRY_IN_USE = 330,
    IMAGE_TOOLS_FCS_CREATE_HANDLE_FAILED = 331,
    IMAGE_TOOLS_FCS_GET_FILE_FAILED = 332,
    IMAGE_TOOLS_FCS_GET_ATTRIBUTES_FAILED = 333,
    IMAGE_TOOLS_FCS_ADD_FILE_FAILED = 334,
    IMAGE_TOOLS_FCS_DELETE_FILE_FAILED = 335,
    IMAGE_TOOLS_FCS_FLUSH_FAILED = 336,
    IMAGE_TOOLS_FCS_INVALID_FILE = 337,
    IMAGE_TOOLS_QFS_TERMINATE_FAILED = 338,
    IMAGE_TOOLS_QFS_GET_SIZE_FAILED = 339,
    IMAGE_TOOLS_QFS_DELETE_FILE_FAILED = 340,
    IMAGE_TOOLS_TARN_DECOMPOSE_FAILED = 341,
    IMAGE_TOOLS_QFS_INIT_FAILED = 342,
    IMAGE_TOOLS_EFS_INIT_FAILED = 343,
    IMAGE_TOOLS_ORVEL_CFG_LOAD_FAILED = 344,
    IMAGE_TOOLS_VYN_CFG_LOAD_FAILED = 345,
    IMAGE_TOOLS_CURRENT_VALUES_CREATE_FAILED = 346,
    IMAGE_TOOLS_CURRENT_VALUES_GENERATE_FAILED = 347,
    IMAGE_TOOLS_VYN_CFG_CREATE_FAILED = 348,
    IMAGE_TOOLS_NVAR_ACCESS_ERROR = 349,
    IMAGE_TOOLS_CORRUPTED_BUFFER = 402,
    IMAGE_TOOLS_FTBL_LOAD_FAILED = 405,
    IMAGE_TOOLS_MAX_VALUE = 417,
};

/* Names a configuration table. qoQfsGetFcsFileNameMapping gives the first three by index. */
DOLM_ENUM(FcsFileName, uint32_t){
    FCS_FILE_ORVEL_CFG = 0x10000006,      /* the base values, as loaded */
    FCS_FILE_VYN_CFG = 0x10000007,        /* the overriding values, or the rebuilt store */
    FCS_FILE_CURRENT_VALUES = 0x10000008, /* the working values: the ones to read and change */
    FCS_FILE_UNSET = 0x10000009,          /* no table */
};

#pragma pack(push, 1)

/* One byte range of the host. */
typedef struct _commonDolmTable {
    uint8_t *data; /* may be null when size is 0 */
    uint32_t size; /* bytes; 0 means that the input is absent */
} _commonDolmTable;

/* The inputs of start-up. The host owns all of them. orvelCfg, vyncCfg and ftbl are copied and may
 * go away when qoQfsDolmInit returns; qfsImage and efsImage are read and written in place, and must
 * stay valid and writable until the final qoQfsNvarTerm. */
typedef struct _commonDolmInputs {
    _commonDolmTable orvelCfg; /* "orvel.cfg", a serialised store; mandatory */
    _commonDolmTable vyncCfg;  /* "vync.cfg": a 16-byte head whose bytes 8 to 11 hold the payload
                                  length, little-endian, then a serialised store */
    _commonDolmTable qfsImage; /* AFS flash image */
    _commonDolmTable ftbl;     /* the file table "ftbl.bin"; mandatory */
    uint32_t afsSkuId;         /* SKU that selects the file table's row set */
    _commonDolmTable efsImage; /* EFS flash image */
} _commonDolmInputs;

#pragma pack(pop)

static_assert(offsetof(_commonDolmTable, data) == 0, "packed");
static_assert(offsetof(_commonDolmTable, size) == sizeof(void *), "packed");
static_assert(sizeof(_commonDolmTable) == sizeof(void *) + 4, "packed");
static_assert(offsetof(_commonDolmInputs, orvelCfg) == 0, "packed");
static_assert(offsetof(_commonDolmInputs, vyncCfg) == sizeof(_commonDolmTable), "packed");
static_assert(offsetof(_commonDolmInputs, qfsImage) == 2 * sizeof(_commonDolmTable), "packed");
static_assert(offsetof(_commonDolmInputs, ftbl) == 3 * sizeof(_commonDolmTable), "packed");
static_assert(offsetof(_commonDolmInputs, afsSkuId) == 4 * sizeof(_commonDolmTable), "packed");
static_assert(offsetof(_commonDolmInputs, efsImage) == 4 * sizeof(_commonDolmTable) + 4, "packed");
static_assert(sizeof(_commonDolmInputs) == 5 * sizeof(_commonDolmTable) + 4, "packed");

/* The host's receiver of reports: level, catalogue number, the catalogue's text for that number
 * (empty for number 0) and a message, often empty. Both strings are never null and live only during
 * the call. It runs on the caller's thread inside the operation that reports; it must not call the
 * library and must not throw. */
typedef void (*DolmStatusCallback)(ErrorLevel level, ImageToolsErrorName number, const char *text,
                                   const char *message);

DOLM_EXTERN_C_BEGIN

/* Brings everything up from the inputs: the file table, the two configuration stores, their merge
 * into the current values, the flash stores on their images, and, where the flash image holds a
 * deployed VFS, the values of its files. inputs is read only during the call. statusCallback may be
 * null, which drops all reports; otherwise it is kept, also after termination, until the next
 * start-up. A failure of the checks of the inputs leaves whatever stood before in use; from there
 * on a start-up replaces it, also if it fails later.
 *
 * False after these reports, all of level 4; "status" means that the message carries the status of
 * a lower layer:
 *   344  no inputs, or no "orvel.cfg"
 *   342  a range with a size but no data (the message names it); "vync.cfg" shorter than the
 *        payload that its head announces; AFS would not mount (after 1 with its status and a line
 *        on standard output); a deployed file could not be read, is shorter than its trailer, or
 *        found no place (after 39 or 324)
 *   405  no file table, or one that is refused (status)
 *   116  "vync.cfg" shorter than its head
 *   331  a store is refused (status)
 *   328  the files of a store could not be taken over (after 323, 324, or 332 or 333 with status)
 *   347  no memory for the current values (after 324, 334 with status 9, or 331 with status and
 * 346) 343  the EFS image is too short or would not mount 324  no memory Two kinds of reports come
 * while start-up goes on: a warning of level 2, number 0, names a file that the deployed VFS lacks,
 * whose value stays that of the tables; and a value that the store of the current values refuses is
 * left out of them, after 334 with status. Once the tables are up they stay up when the flash stage
 * fails, and a value whose file could not be read, with all behind it, is that of the tables: end
 * with qoQfsNvarTerm(false). */
DOLM_API bool qoQfsDolmInit(const _commonDolmInputs *inputs, DolmStatusCallback statusCallback);

/* Whether AFS is up. */
DOLM_API bool qoQfsIsInitialized(void);

/* Whether the tables are up; NVAR operations find names only while they are. */
DOLM_API bool qoFcsIsInitialized(void);

/* Whether AFS is up on an image with a deployed VFS: "/home/mca/deploy" is in the file table and is
 * a file of non-zero size in the stores. Asks the store at each call; reports nothing. */
DOLM_API bool qoQfsIsVfsDeployed(void);

/* Size in bytes of an EFS image of the geometry in force: that of the loaded file table, or the
 * default. Says nothing about whether an image was given. */
DOLM_API uint32_t qoQfsGetEfsSize(void);

/* The table of index 0 (base), 1 (overriding) or 2 (current values). A higher index reports number
 * 0 with "Invalid fcsFileNameMap value" and gives FCS_FILE_CURRENT_VALUES. */
DOLM_API FcsFileName qoQfsGetFcsFileNameMapping(uint32_t index);

/* A path below is NUL-terminated and may leave out its leading "/home/". Comparison is
 * case-sensitive and ends after 255 characters. */

/* Whether the table fileName holds path. False with a report of 402 for a null path and of 337 for
 * an unknown table; a missing name is not reported. */
DOLM_API bool qoqfsCheckNvarExists(const char *path, FcsFileName fileName);

/* Gives the value of path in the table fileName: *data points to the library's own buffer of *size
 * bytes (null and 0 for an empty value), good until the next qoQfsNvarResize of that name or the
 * next qoQfsNvarTerm. The host writes a changed value of the current values table through it and
 * never frees it. Where not null, *writable is false if termination passes by the file of that
 * name in the deployed VFS (true without one), and *maxSize is the value's limit in bytes.
 *
 * False after these reports, with *writable and *maxSize untouched, and *data null and *size 0 but
 * for 402:
 *   402  path, data or size is null; nothing is written
 *   337  unknown table (followed by 39)
 *   39   no such name, or the tables are not up
 *   323  a value without a buffer
 *   349  the entry is not accessible */
DOLM_API bool qoQfsNvarGet(const char *path, uint8_t **data, uint32_t *size, FcsFileName fileName,
                           bool *writable, uint32_t *maxSize);

/* Gives the value of path in the current values table a new size in bytes. *data gets the new
 * buffer (null for size 0): the old content up to the smaller size, and undefined bytes beyond,
 * which the caller fills. Pointers got earlier for this name are dead, unless the size stayed the
 * same. The limit of the name is tested at termination, not here.
 *
 * False after these reports, with value, size and pointers as before:
 *   402  path or data is null
 *   39   no such name, or the tables are not up
 *   349  the entry is not accessible
 *   324  no memory */
DOLM_API bool qoQfsNvarResize(const char *path, uint8_t **data, uint32_t size);

/* Writes the current values back: into a new store, into the files of a deployed VFS, and
 * serialises the new store. With keepOpen the new store takes the place of the overriding values,
 * where qoQfsGetBuildVynCfgFcsBuffer finds its bytes, and the library stays up; otherwise
 * everything is released, the bytes included. All pointers to values die.
 *
 * False after these reports; 348 comes last and says that all tables are released and AFS is down:
 *   327  the tables are not up; nothing happens
 *   331  no new store (status), then 348
 *   329, 330, 334, 324  a value was refused (334 with the status: 12 for one over its limit or over
 *        65,523 bytes), then 348
 *   102  a value could not be written to the flash (status), then 348
 *   339  a file is missing from the deployed VFS or unreadable, then 348
 *   336  the store could not be serialised (status), then 348
 *   346  no memory to make the current values anew (after 324, 334 with status 9, or 331 with
 *        status and 346 once more). Everything has been written by then, and the library stays up
 *        without current values. The next termination writes nothing: with keepOpen it tries again
 *        to make them, without it releases everything
 *   338  AFS would not terminate (status); without keepOpen the tables stay up */
DOLM_API bool qoQfsNvarTerm(bool keepOpen);

/* Gives the bytes of the overriding table: after qoQfsNvarTerm(true) the rebuilt store, before that
 * the payload of "vync.cfg" as it came. They carry no "vync.cfg" head, stay the library's, and are
 * good until the next qoQfsNvarTerm or start-up. False with a report of 402 if an argument is null;
 * false without a report, and with nothing written, if there are no bytes. */
DOLM_API bool qoQfsGetBuildVynCfgFcsBuffer(uint8_t **bytes, uint32_t *size);

DOLM_EXTERN_C_END

#endif
