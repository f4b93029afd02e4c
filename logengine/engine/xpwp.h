/* The log engine's C interface, as the agent loads it from libxrvudp.so.
 *
 * One engine per process: XPWP_StartCommonProvider creates it, XPWP_LoadMetafile
 * hands it one MDL text per table, and from then on the engine's own threads follow
 * the files and call back with every record and every change of a file's state.
 *
 * Every function returns one of the XPWP_Result codes unless said otherwise; a null
 * or stale handle gives CDP_Invalid_Handle. Strings are UTF-8 and NUL-terminated.
 * Callbacks run on the engine's threads, one file's records in order; they may call
 * the status and statistics functions but must not flush, stop or load from inside.
 */
#ifndef XRVLOG_XPWP_H
#define XRVLOG_XPWP_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum XPWP_Result {
  CDP_Success = 0,
  CDP_Failure = 1,            /* an internal error: the engine's diagnostics say which */
  CDP_Invalid_Argument = 2,   /* a null pointer, a length without a NUL, an unknown start mode */
  CDP_Metafile_Error = 3,     /* the MDL text was not loaded: its line and column are in the diagnostics */
  CDP_Table_Not_Found = 4,    /* no table of that name is loaded */
  CDP_Already_Started = 5,    /* XPWP_StartCommonProvider on a running engine */
  CDP_Invalid_Handle = 6,
  CDP_File_Threads_Starting = 17,  /* readiness: some file thread has not made its first pass */
  CDP_All_File_Threads_Started = 18
} XPWP_Result;

/* The only start mode: the engine runs its own threads (one per followed file and one
 * per file pattern) and calls back on them. */
#define XPWP_START_THREADED 2

/* Values of the status callback's last argument. */
typedef enum XPWP_SourceStatus {
  XPWP_SOURCE_OFFLINE = 0,        /* the file is missing, unreadable, or no longer followed */
  XPWP_SOURCE_FOUND = 1,          /* the file was opened (again) and is being followed */
  XPWP_TABLE_FULLY_OFFLINE = 2,   /* after a flush: no thread of the table runs any more */
  XPWP_TABLE_ACTIVE = 3           /* every source of a newly loaded table has made its first pass */
} XPWP_SourceStatus;

typedef struct XPWP_Handle_s* XPWP_Handle;

typedef struct XPWP_NameValue {
  const char* name;
  const char* value; /* never null from this engine */
} XPWP_NameValue;

/* One record: the attributes of the table in MDL order. A sampled table ends the
 * records of one pass over a file with a call whose count is 0. The strings are valid
 * only during the call. The context is the engine's handle. */
typedef void (*XPWP_DataCallback)(void* context, const char* table, const char* source,
                                  const char* description, const XPWP_NameValue* pairs,
                                  int count);
/* source is null for the table-wide values 2 and 3. */
typedef void (*XPWP_StatusCallback)(void* context, const char* table, const char* source,
                                    int status);

typedef enum XPWP_FileState {
  XPWP_FILE_WAITING = 0,    /* not there (yet): looked for every FileExistTimeToWait */
  XPWP_FILE_FOLLOWING = 1,  /* open and read as it grows */
  XPWP_FILE_STOPPED = 2,    /* no longer followed (flushed, or not chosen by CompareBy) */
  XPWP_FILE_ERROR = 3       /* cannot be read: the diagnostics say why */
} XPWP_FileState;

typedef struct XPWP_MonitoredFileInfo_t {
  char* table;
  char* file;     /* the path followed, or the pattern while no file matches it */
  char* pattern;  /* the REGEX / REGEXSTRICT pattern, or "" for a plain path */
  int state;      /* XPWP_FileState */
  int64_t size;          /* bytes, -1 when unknown */
  int64_t position;      /* offset of the next byte to read */
  int64_t lastModified;  /* seconds since the epoch, -1 when unknown */
  uint64_t lines;        /* lines read since the table was loaded */
  uint64_t records;      /* records handed to the data callback */
} XPWP_MonitoredFileInfo_t;

typedef struct XPWP_LogFileRegExStatistics_t {
  char* table;
  char* attribute;  /* the attribute whose filter holds the pattern; "" for the
                       //ATTRIBUTES REGEX and //RECORDSET patterns */
  char* pattern;
  uint64_t matches;
  uint64_t misses;
  uint64_t limitHits;  /* records given up because the match effort hit its bound */
  double cpuSeconds;   /* estimated from a sample of the records */
} XPWP_LogFileRegExStatistics_t;

int XPWP_StartCommonProvider(XPWP_Handle* handle, int mode);
int XPWP_StopCommonProvider(XPWP_Handle handle);
int XPWP_RegisterStatusCallback(XPWP_Handle handle, XPWP_StatusCallback callback);
int XPWP_RegisterDataCallback(XPWP_Handle handle, XPWP_DataCallback callback);
/* length counts the terminating NUL (strlen + 1); a shorter length is accepted when
 * the text has no NUL. Loading a table that exists replaces it. */
int XPWP_LoadMetafile(XPWP_Handle handle, const char* mdl, size_t length);

int XPWP_GetMonitoredFileStatus(XPWP_Handle handle, int* count, XPWP_MonitoredFileInfo_t** info);
int XPWP_FreeMonitoredFileInfo(XPWP_MonitoredFileInfo_t* info, int count);
int XPWP_GetLogFileRegExStatistics(XPWP_Handle handle, int* count,
                                   XPWP_LogFileRegExStatistics_t** stats);
int XPWP_FreeLogFileRegexStatistics(XPWP_LogFileRegExStatistics_t* stats, int count);

/* Stop every file thread of all tables (or of one), unload the tables, then report
 * XPWP_TABLE_FULLY_OFFLINE for each. Positions are saved first. */
int XPWP_FlushCommonProvider(XPWP_Handle handle);
int XPWP_FlushCommonProviderTable(XPWP_Handle handle, const char* table);

int XPWP_AreAllFileThreadsStarted(XPWP_Handle handle);
int XPWP_AreAllFileThreadsStartedTable(XPWP_Handle handle, const char* table);

/* Make every file thread (of all tables, or of one) look at its files now. */
int XPWP_WakeUpAllFileThreads(XPWP_Handle handle);
int XPWP_WakeUpAllFileThreadsTable(XPWP_Handle handle, const char* table);

#ifdef __cplusplus
}
#endif

#endif
