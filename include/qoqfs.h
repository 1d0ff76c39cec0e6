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
 * during the call that fails. The numbers in brackets below are those of the reports, the last one
 * of a failure behind those that say more; the host guide tells what each means and what to do. */
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
 * start-up.
 *
 * False, reported, where
 * - the inputs are not what they have to be (344, 342, 405), or there is no memory to begin with
 *   (324): whatever stood before stays in use. From there on a start-up replaces it, also one that
 *   fails;
 * - the tables do not come up (405, 331, 328, 116, 342, 324, 347): nothing is up;
 * - the flash stores do not (342, 343), or a file of the deployed VFS cannot be read (342): the
 *   tables are up, and that file's value and all behind it are those of the tables. End with
 *   qoQfsNvarTerm(false).
 *
 * True also after a warning (0) that names a file which the deployed VFS lacks, whose value stays
 * that of the tables, and after a value has been left out that the store of the current values
 * refuses (334). */
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

/* The table of index 0 (base), 1 (overriding) or 2 (current values). A higher index is
 * reported (0) and gives FCS_FILE_CURRENT_VALUES. */
DOLM_API FcsFileName qoQfsGetFcsFileNameMapping(uint32_t index);

/* A path below is NUL-terminated and may leave out its leading "/home/". Comparison is
 * case-sensitive and ends after 255 characters. */

/* Whether the table fileName holds path. A missing name is not reported, but a null path (402) and
 * an unknown table (337) are. */
DOLM_API bool qoqfsCheckNvarExists(const char *path, FcsFileName fileName);

/* Gives the value of path in the table fileName: *data points to the library's own buffer of *size
 * bytes (null and 0 for an empty value), good until the next qoQfsNvarResize of that name or the
 * next qoQfsNvarTerm. The host writes a changed value of the current values table through it and
 * never frees it. Where not null, *writable is false if termination passes by the file of that
 * name in the deployed VFS (true without one), and *maxSize is the value's limit in bytes.
 *
 * False, reported, for a null path, data or size (402), an unknown table (337, 39), a name that is
 * not there or tables that are not up (39), a value without a buffer (323) and an entry that is not
 * accessible (349). But for 402, which writes nothing, *data is then null and *size 0; *writable
 * and *maxSize are untouched. */
DOLM_API bool qoQfsNvarGet(const char *path, uint8_t **data, uint32_t *size, FcsFileName fileName,
                           bool *writable, uint32_t *maxSize);

/* Gives the value of path in the current values table a new size in bytes. *data gets the new
 * buffer (null for size 0): the old content up to the smaller size, and undefined bytes beyond,
 * which the caller fills. Pointers got earlier for this name are dead, unless the size stayed the
 * same. The limit of the name is tested at termination, not here.
 *
 * False, reported, with value, size and pointers as before, for a null path or data (402), a name
 * that is not there or tables that are not up (39), an entry that is not accessible (349) and
 * without memory (324). */
DOLM_API bool qoQfsNvarResize(const char *path, uint8_t **data, uint32_t size);

/* Writes the current values back: into a new store, into the files of a deployed VFS, and
 * serialises the new store. With keepOpen the new store takes the place of the overriding values,
 * where qoQfsGetBuildVynCfgFcsBuffer finds its bytes, and the library stays up; otherwise
 * everything is released, the bytes included. All pointers to values die.
 *
 * False, reported, where
 * - the tables are not up (327): nothing happens;
 * - a value is refused, above its limit for instance, or cannot be written to the flash, or memory
 *   runs out before the new store stands (348): all tables are released and AFS is down, but files
 *   that were written by then stay written;
 * - memory runs out while the current values are made anew (346): everything is written, and the
 *   library stays up without current values. The next termination writes nothing: with keepOpen it
 *   tries again to make them, without it releases everything;
 * - AFS does not terminate (338): without keepOpen the tables stay up. */
DOLM_API bool qoQfsNvarTerm(bool keepOpen);

/* Gives the bytes of the overriding table: after qoQfsNvarTerm(true) the rebuilt store, before that
 * the payload of "vync.cfg" as it came. They carry no "vync.cfg" head, stay the library's, and are
 * good until the next qoQfsNvarTerm or start-up. False, reported, for a null argument (402); false,
 * not reported and with nothing written, where there are no bytes. */
DOLM_API bool qoQfsGetBuildVynCfgFcsBuffer(uint8_t **bytes, uint32_t *size);

DOLM_EXTERN_C_END

#endif
