/*
 * libtarncluster_util: the shared library under the programs of a cluster of storage appliances.
 *
 * This is the library's one public header. It compiles as C11 and as C++17.
 *
 * Conventions, said once:
 *
 *  - A status is an int: 0 is success, a negated errno value is failure. Where a function answers with a count, an
 *    index or yes/no instead, its comment says so.
 *  - Arguments are checked first: a missing (null) required argument is -EINVAL and nothing has been done.
 *  - What a function allocates for its caller belongs to the caller and goes back with free() or with the family's
 *    Free_... or Release_... function. Nodes and records that are passed in stay the caller's.
 *  - Trouble is reported as one line on g_ptslLog, when there is one: error lines when g_idLogLevel is 1 or more, info
 *    lines at 2 or more, debug lines at 3 or more.
 *  - The library starts no thread and keeps no state of its own beyond the globals declared here. Unless its comment
 *    says otherwise, a function may be called from several threads at once as long as they do not share the objects
 *    that are passed in.
 *  - "Takes the lock" means the lock file of the path in question (see "Lock files"), waited for up to 10000 ms.
 */
#ifndef TARNCLUSTER_UTIL_H
#define TARNCLUSTER_UTIL_H

#include <mntent.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

/* Marks what the library exports; everything else in it is hidden. The list of exported names is made from this mark.
 */
#define TARN_API __attribute__((visibility("default")))

#define TARN_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))

#ifdef __cplusplus
extern "C" {
#ifdef __clang__
/* Flexible array members are C; clang says so even where __extension__ marks them. */
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wc99-extensions"
#endif
#endif

/* ------------------------------------------------------------------------------------------------------------------
 * Log and diagnostics
 *
 *     Simp_Log *log = NULL;
 *     if (Simp_Log_Create("/var/log/example.log", &log, 24, 3, 0) == 0 && Simp_Log_Open(log, 0) == 0)
 *       g_ptslLog = log;
 *     ...
 *     g_ptslLog = NULL;
 *     Simp_Log_Release(log);
 * --------------------------------------------------------------------------------------------------------------- */

/** A log handle. It is closed after creation, open after Simp_Log_Open; a console handle writes to standard output. */
typedef struct Simp_Log {
  FILE *stream;              /**< stream of the log file; stdout for a console handle; null while closed */
  uint16_t hour_system;      /**< 12 or 24; anything else means 24 */
  uint16_t date_format;      /**< date format code, 1 to 9; anything else means 1 */
  __extension__ char path[]; /**< absolute path of the log file; empty for a console handle */
} Simp_Log;

/** The handle that the whole library reports to; null (the default) means no diagnostics at all. */
extern TARN_API Simp_Log *g_ptslLog;

/** Level gate: error lines at 1 (the default) or more, info lines at 2, debug lines at 3; 0 or less silences the
 * library. */
extern TARN_API int g_idLogLevel;

/**
 * Creates a log handle, closed. Missing parent folders of the path are made (mode 0755); a parent that is no folder is
 * removed and a folder made in its place.
 *
 * @param path         absolute path of the log file, below 4096 bytes; null makes a console handle
 * @param out          receives the handle; the caller gives it back with Simp_Log_Release
 * @param hour_system  12 or 24
 * @param date_format  date format code 1 to 9, see Change_Date_To_String_By_Format_Ex
 * @param truncate     not 0: the file is emptied (or created) at once; trouble with that is logged, not returned
 * @return 0; -EINVAL (no out, or a path that does not begin with "/": out untouched); -ENAMETOOLONG; -ENOMEM; -errno of
 *         the folder that could not be removed or made
 */
TARN_API int Simp_Log_Create(const char *path, Simp_Log **out, int hour_system, int date_format, int truncate);

/**
 * Opens the handle's file for appending, or emptied when truncate is not 0. An open stream is closed first. Does
 * nothing on a console handle.
 *
 * @return 0, -EINVAL, or -errno of the open; the handle is closed after a failure
 */
TARN_API int Simp_Log_Open(Simp_Log *handle, int truncate);

/** Closes the handle's stream; a console handle is flushed only. Returns 0, or -EINVAL for a null handle. */
TARN_API int Simp_Log_Close(Simp_Log *handle);

/** Closes and frees a handle; null is ignored. Standard output is never closed. */
TARN_API void Simp_Log_Release(Simp_Log *handle);

/**
 * Writes one line: date and time, the message, and one newline. There is no level gate here. Before a line goes to a
 * file, a foreign lock on the log (see Check_File_Lock) is waited for up to 10000 ms; the lock is not taken.
 *
 * A null or closed handle prints to standard output with 24 hours and the date as year-month-day. A message that
 * overflows the 4176-byte line only because of the prefix is cut.
 *
 * The handle has no lock: threads that share one rely on the stream's own.
 *
 * @return 0; -EINVAL (no format); -EOVERFLOW or -errno when the message has 4176 characters or more or cannot be
 *         formatted; -ETIME; -EIO when not all bytes were written
 */
TARN_API int Simp_Log_Write(Simp_Log *handle, const char *format, ...) TARN_PRINTF(2, 3);

/**
 * Writes the prefix of a log line: "[", date, blank, time with seconds, "] ".
 *
 * @param t            seconds since the epoch, shown in local time
 * @param buffer       receives the prefix; 40 bytes are always enough
 * @param hour_system  12 or 24
 * @param date_format  date format code 1 to 9
 * @return 0, or -EINVAL for a null buffer
 */
TARN_API int Log_DateTime_Format(time_t t, char *buffer, int hour_system, int date_format);

/* ------------------------------------------------------------------------------------------------------------------
 * Traced memory
 *
 * A debugging allocator: each block bears the place that allocated it and guards of 16 "Z" before and behind the
 * caller's bytes, and all live blocks are in one list.
 *
 * Two addresses of a block, four bytes apart, are in use; programs rely on both. Trace_Mem_Alloc answers the data's
 * own address p: read and write there. Trace_Mem_Check and Trace_Mem_Free want p + 4; given p they look at the wrong
 * bytes, and Trace_Mem_Free leaves the block alone with an error line.
 *
 *     char *p = Trace_Mem_Alloc(100, 0, __FILE__, __LINE__);
 *     strcpy(p, "hello");
 *     if (Trace_Mem_Check(p + 4) != 0) abort();
 *     Trace_Mem_Free(p + 4, __FILE__, __LINE__);
 *
 * The data's address is 12 modulo 16: copy what needs more alignment than 4 bytes in and out with memcpy.
 * --------------------------------------------------------------------------------------------------------------- */

/** What stands before a block's data. */
typedef struct Trace_Mem_Node {
  struct Trace_Mem_Node *next; /**< next block, or the list's head */
  struct Trace_Mem_Node *prev; /**< previous block, or the list's head */
  unsigned int magic;          /**< 0x5a8888a5 */
  char file[16];               /**< source file, cut at 15 characters */
  int line;                    /**< source line */
  int size;                    /**< bytes of data */
  char front[16];              /**< sixteen "Z" */
  __extension__ char data[];   /**< the data, and sixteen "Z" behind it */
} Trace_Mem_Node;

extern TARN_API Trace_Mem_Node g_tmnHead; /**< the list's head; points at itself when there is no block */
extern TARN_API char g_stPreface[16];     /**< sixteen "Z", without a terminator */
extern TARN_API pthread_mutex_t g_mtxMem; /**< guards list and counters */
extern TARN_API unsigned int g_cnAlloc;   /**< allocations so far */
extern TARN_API unsigned int g_cnFree;    /**< releases so far */
extern TARN_API int g_bDebugOutput;       /**< not 0 (the default): reports go to standard output */
extern TARN_API FILE *g_pfDebug;          /**< not used */
extern TARN_API FILE *g_pfError;          /**< reports go to this stream, too, when it is set */

/** Initialises g_mtxMem. Returns what pthread_mutex_init does. */
TARN_API int Trace_Mem_Init(void);

/**
 * Allocates a block.
 *
 * @param size    bytes, 0 or more
 * @param unused  anything
 * @param file    the caller's __FILE__
 * @param line    the caller's __LINE__
 * @return the data's address p; null for a negative size and when memory ends
 */
TARN_API void *Trace_Mem_Alloc(int size, int unused, const char *file, int line);

/**
 * Looks at a block's guards and reports a damaged one.
 *
 * @param address  p + 4; null is 0. Any other address of a block's is looked at as well as can be done within the block
 * @return 0 both are whole, 1 one is not
 */
TARN_API int Trace_Mem_Check(const void *address);

/** Checks and frees a block. address: p + 4; file and line: the caller's. Null and other addresses are logged. */
TARN_API void Trace_Mem_Free(void *address, const char *file, int line);

/**
 * Logs how many blocks are live, and reports each whose guards look whole at the data's address p; as that is four
 * bytes off, whole blocks are reported as damaged. Takes no lock: no other thread may allocate meanwhile.
 */
TARN_API void Trace_Mem_Usage(void);

/** Frees what is left, logs each block, and destroys g_mtxMem, whose result is returned. Takes no lock. */
TARN_API int Trace_Mem_Destroy(void);

/* ------------------------------------------------------------------------------------------------------------------
 * Link queue
 *
 * A first-in, first-out queue between threads. Its nodes come from malloc. Waiting is the caller's business: the queue
 * broadcasts its condition when it ceases to be empty. A queue that is full closes itself: every call answers -EXFULL
 * until Link_Queue_Reset, by which a consumer learns that the producer outran it. Closing wakes nobody.
 * --------------------------------------------------------------------------------------------------------------- */

/** One node. */
typedef struct Link_Queue_Node {
  struct Link_Queue_Node *next; /**< the queue's */
  struct Link_Queue_Node *prev; /**< the queue's */
  uint16_t unused;              /**< the caller's */
  uint16_t size;                /**< what the node adds to the queue's total */
  __extension__ char payload[]; /**< the caller's */
} Link_Queue_Node;

/** The ends of a queue. */
typedef struct Link_Queue_Head {
  Link_Queue_Node *next; /**< first node */
  Link_Queue_Node *prev; /**< last node */
} Link_Queue_Head;

/** A queue. The caller provides the storage, and does not move it. */
typedef struct Link_Queue {
  unsigned int capacity;     /**< the most nodes it holds */
  unsigned int count;        /**< nodes in it */
  unsigned int total;        /**< sum of their sizes */
  int flags;                 /**< bit 0: initialised, bit 1: closed */
  pthread_mutex_t *mutex;    /**< held during every call but Init and Destroy; null: none */
  pthread_cond_t *condition; /**< broadcast when the queue ceases to be empty; null: none */
  Link_Queue_Head head;      /**< the nodes */
} Link_Queue;

/** Makes a queue of a record. capacity: 0 or less means 32767. Returns 0 or -EINVAL. */
TARN_API int Link_Queue_Init(Link_Queue *queue, int capacity, pthread_mutex_t *mutex, pthread_cond_t *condition);

/** Ends a queue and frees its nodes, without the mutex. Returns 0 (also for one that is not initialised) or -EINVAL. */
TARN_API int Link_Queue_Destroy(Link_Queue *queue);

/** Frees the nodes, opens the queue again and gives it a new capacity. Returns 0 or -EINVAL. */
TARN_API int Link_Queue_Reset(Link_Queue *queue, int capacity);

/** Closes the queue. Returns 0 or -EINVAL. */
TARN_API int Link_Queue_Mark(Link_Queue *queue);

/** Answers the sum of the nodes' sizes (at most INT_MAX), -EXFULL, or -EINVAL. */
TARN_API int Link_Queue_Get_Size(Link_Queue *queue);

/** Answers the number of nodes, -EXFULL, or -EINVAL. */
TARN_API int Link_Queue_Get_Number(Link_Queue *queue);

/** Appends a node, which is the queue's then; a full or closed queue frees it. Returns 0, -EXFULL; -EINVAL: not taken.
 */
TARN_API int Link_Queue_Push_Node(Link_Queue *queue, Link_Queue_Node *node);

/** Takes the first node, which is the caller's then (free() it). Returns 1; 0 when empty, node untouched; -EXFULL. */
TARN_API int Link_Queue_Pop_Node(Link_Queue *queue, Link_Queue_Node **node);

/** Takes all nodes, as a ring of their own. Returns their number; 0 when empty, first untouched; -EXFULL; -EINVAL. */
TARN_API int Link_Queue_Pop_Nodes(Link_Queue *queue, Link_Queue_Node **first);

/* ------------------------------------------------------------------------------------------------------------------
 * String lists
 *
 * Strings in one block of memory, each with an object of fixed size in front of it: a plain list in the order of
 * adding (mode 0), a sorted set (1), or a stack (2). The functions without Obj are those with an object size of 0.
 *
 * Strings and objects that are handed out lie in the block; they are good until the list is changed. A string or object
 * that lies in the block may be given to Add and Push. Removing gives room back only for the entry that was added last:
 * a list that others are removed from doubles its block whenever it fills. A block holds its own addresses, so it is
 * not to be copied.
 * --------------------------------------------------------------------------------------------------------------- */

/** A list; its block holds pointers and strings. */
typedef struct Str_List {
  char magic[4];                  /**< "tsil" */
  unsigned int block_size;        /**< bytes of the block, a power of two */
  unsigned int free_bytes;        /**< bytes left between pointers and strings */
  unsigned int count;             /**< strings */
  uint16_t mode;                  /**< 0 plain, 1 sorted, 2 stack */
  uint16_t object_size;           /**< bytes in front of each string */
  char *low_end;                  /**< the lowest byte in use by strings */
  __extension__ char *pointers[]; /**< the strings in the list's order, and a null pointer */
} Str_List;

/**
 * Makes a list.
 *
 * @param size         bytes of the block, rounded up to a power of two from 64; at most 1 GiB. It grows by itself.
 * @param mode         0, 1 or 2
 * @param object_size  a multiple of 4 up to 65532; objects are aligned to 4 bytes
 * @return 0; -EINVAL, -ENOMEM (list untouched)
 */
TARN_API int Str_Obj_List_Init(Str_List **list, int size, int mode, int object_size);

/** Empties a list and gives it another mode and object size. Returns 0 or -EINVAL. */
TARN_API int Str_Obj_List_Reset(Str_List *list, int mode, int object_size);

/** Frees a list; null is ignored. */
TARN_API void Str_Obj_List_Free(Str_List *list);

/** Finds a string. object may be null. Answers its index, -ENOENT (object untouched), or -EINVAL. */
TARN_API int Str_Obj_List_Find(Str_List *list, const char *text, void **object);

/**
 * Adds a string with an object, of which copies are kept. A sorted list does not take a string twice.
 *
 * @param list    where the list is held; it may move
 * @param object  may be null only when the object size is 0
 * @return index of the string (that which is there already, in a sorted list); -EINVAL (also beyond 1 GiB); -ENOMEM
 */
TARN_API int Str_Obj_List_Add(Str_List **list, const char *text, const void *object);

/** Removes a string. object (may be null) receives its object, null without one. Answers its former index. */
TARN_API int Str_Obj_List_Remove(Str_List *list, const char *text, void **object);

/** Puts a string on a stack. Answers as Str_Obj_List_Add. */
TARN_API int Str_Obj_List_Push(Str_List **list, const char *text, const void *object);

/** Takes the top string; it can be read until the next push. Both outputs may be null. Answers its index, -ENOENT. */
TARN_API int Str_Obj_List_Pop(Str_List *list, const char **text, void **object);

/** Looks at the top string. Answers as Str_Obj_List_Pop. */
TARN_API int Str_Obj_List_Peek(Str_List *list, const char **text, void **object);

/** Str_Obj_List_Init without objects. */
TARN_API int Str_List_Init(Str_List **list, int size, int mode);
/** Str_Obj_List_Reset without objects. */
TARN_API int Str_List_Reset(Str_List *list, int mode);
/** Str_Obj_List_Free. */
TARN_API void Str_List_Free(Str_List *list);
/** Str_Obj_List_Find without an object. */
TARN_API int Str_List_Find(Str_List *list, const char *text);
/** Str_Obj_List_Add without an object. */
TARN_API int Str_List_Add(Str_List **list, const char *text);
/** Str_Obj_List_Remove without an object. */
TARN_API int Str_List_Remove(Str_List *list, const char *text);
/** Str_Obj_List_Push without an object. */
TARN_API int Str_List_Push(Str_List **list, const char *text);
/** Str_Obj_List_Pop without an object. */
TARN_API int Str_List_Pop(Str_List *list, const char **text);
/** Str_Obj_List_Peek without an object. */
TARN_API int Str_List_Peek(Str_List *list, const char **text);

/* ------------------------------------------------------------------------------------------------------------------
 * Text, numbers, time
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Formats the local date of a time.
 *
 *     1 2026/11/21   2 2026.11.21   3 2026-11-21   4 11/21/2026   5 11.21.2026
 *     6 11-21-2026   7 21/11/2026   8 21.11.2026   9 21-11-2026
 *
 * @param buffer       receives the text; give at least 11 bytes, whatever the size says: a date that does not fit is
 *                     built by hand and copied over at most the greater of size and 11 bytes
 * @param size         bytes in the buffer
 * @param date_format  1 to 9; any other code means 1
 * @return 0; -EINVAL (no buffer, a size below 1, a time that has no local date: buffer untouched)
 */
TARN_API int Change_Date_To_String_By_Format_Ex(time_t time, char *buffer, int size, int date_format);

/**
 * Formats the local time of day, for example "17:08:09", or "05:08:09 pm" in the 12-hour system.
 *
 * When the text does not fit it is built by hand with "AM" and "PM" in capitals and the hours 0 to 11 (noon reads
 * "00:00 PM"); callers depend on both forms.
 *
 * @param buffer       receives the text; give at least 12 bytes, whatever the size says
 * @param size         bytes in the buffer
 * @param mode         1: hours and minutes; any other: with seconds
 * @param hour_system  12, any other means 24
 * @return 0; -EINVAL as for the date
 */
TARN_API int Change_Time_To_String_By_Format_Ex(time_t time, char *buffer, int size, int mode, int hour_system);

/**
 * Reads a decimal number: an optional "-", then digits up to the first other character. No blanks are skipped and there
 * is no overflow check (the value wraps).
 *
 * @return number of digits read, the sign not counted (0 with the value 0 when there is none); -EINVAL
 */
TARN_API int Decimal_String_To_Integer(const char *text, int64_t *value);

/**
 * Writes a number in decimal.
 *
 * @param buffer  at least 32 bytes, whatever the size says
 * @param size    must point to 1 or more; only read
 * @return 0, or -EINVAL
 */
TARN_API int Integer_To_Decimal_String(char *buffer, int *size, int64_t value);

/** Swaps two numbers; does nothing when either pointer is null. */
TARN_API void Swap_Integer(int *a, int *b);

/**
 * Copies a text to the heap.
 *
 * @param copy    receives the copy (free() it), or null on failure
 * @param length  receives the length without terminator; may be null
 * @return 0, -EINVAL, -ENOMEM
 */
TARN_API int Clone_String(const char *text, char **copy, int *length);

/**
 * Answers 1 when the first `length` characters of "TRUE" equal those of the text, without regard to case, else 0. A
 * length of 0 answers 1; a null text or a negative length answers 0.
 */
TARN_API int Str_To_Bool(const char *text, int length);

/**
 * Scales a size in bytes to a unit of "byte", "KB", "MB", "GB" or "TB". Exactly 1024 stays in the lower unit.
 *
 * @param value      receives the scaled value, computed in float
 * @param unit       receives the unit's text
 * @param unit_size  bytes in unit
 * @return 0, -EINVAL, -EOVERFLOW when the unit's text does not fit (the value is set)
 */
TARN_API int Size_Unit_Conversion(uint64_t size, float *value, char *unit, int unit_size);

/**
 * Splits a duration, for example 7322 seconds into "2 hours 2 minutes 2 seconds".
 *
 * @param parts      receives four numbers: seconds, minutes, hours, days; may be null
 * @param text       receives the text; may be null when parts is not
 * @param text_size  bytes in text
 * @return 0, -EINVAL when both outputs are null, -EOVERFLOW when the text does not fit (the parts are set)
 */
TARN_API int Time_Unit_Conversion(unsigned int seconds, int *parts, char *text, int text_size);

/** Sleeps for the whole time, signals notwithstanding. */
TARN_API void Sleep_MSec(unsigned int milliseconds);

/** Milliseconds since the epoch by the wall clock. */
TARN_API uint64_t Rough_Tick(void);

/** Milliseconds since an earlier tick; wraps to a huge number when the clock was set back behind it. */
TARN_API uint64_t Rough_Tick_Diff(uint64_t earlier);

/** The same as Rough_Tick_Diff. */
TARN_API uint64_t Tick_Diff(uint64_t earlier);

/** Removes a file, by the appliance kernel's own call where there is one. Returns 0, or -1 with errno set. */
TARN_API int Druvo_Really_Unlink(const char *path);

/**
 * Removes "folder/name" (the folder alone when the name is empty and the flags are 0) with unlink, or with rmdir when
 * the flags hold AT_REMOVEDIR.
 *
 * @param dir_fd  not used: the path is relative to the working directory
 * @return 0; -1 with errno set (ENAMETOOLONG for 4096 bytes or more); -EINVAL for a null folder or name
 */
TARN_API int Druvo_Unlinkat(int dir_fd, const char *folder, const char *name, int flags);

/* ------------------------------------------------------------------------------------------------------------------
 * Processes
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Asks whether a process exists, by sending it signal 0.
 *
 * @return 1 yes (a zombie too); 0 no, or a pid below 1; -errno otherwise (-EPERM for a process of another user)
 */
TARN_API int Is_Process_Existed(int pid);

/**
 * Reads a process's parent from /proc. A process can make its own answer up, and one whose name holds a blank reads as
 * -ESRCH.
 *
 * @param parent  receives the parent's pid (0: none, or one outside this container), -1 on failure
 * @return 0, -EINVAL (also for a negative pid), -ESRCH
 */
TARN_API int Get_Parent_Pid(int pid, int *parent);

/**
 * Lists the processes of a name. Not thread-safe.
 *
 * @param name   a path that begins with "/" is compared with the beginning of the command line; any other name with the
 *               whole short name, which the kernel cuts at 15 characters and this function at its first "/"
 * @param pids   receives an array in the order of /proc (free() it); null on failure
 * @param count  receives the number of pids
 * @return 0, -EINVAL (also for an empty name), -ENOMEM, -ENODATA when there is none, -errno
 */
TARN_API int Get_All_Pids(const char *name, int **pids, int *count);

/**
 * Finds the topmost ancestor, below process 1, of the first process of a name. Not thread-safe.
 *
 * @param pid  receives it, -1 on failure; 0 when the climb ends outside this container: never a pid to be signalled
 * @return 0, or the failure of Get_All_Pids
 */
TARN_API int Get_Ancestry_Pid(const char *name, int *pid);

/**
 * Runs a command in the shell and reads the beginning of what it prints, with one read. Its exit status is not looked
 * at. Whoever builds the command quotes what goes into it.
 *
 * @param buffer  receives the text without its last newline; size + 1 bytes
 * @param size    bytes to read at most, 1 or more; receives the text's length
 * @return 0, -EINVAL, -errno when the command cannot be started
 */
TARN_API int Get_Program_Output(const char *command, char *buffer, int *size);

/* ------------------------------------------------------------------------------------------------------------------
 * Credentials
 *
 * Not thread-safe: crypt and getspnam keep their answers in one place.
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Hashes a text with MD5-crypt under a salt of its own first characters: for texts that are compared, not for secrets.
 *
 * @param hash  receives 22 characters and a terminator
 * @return 0, -EINVAL (also when crypt refuses the salt: a blank, ":", ";", "*", "!", "\" or a character that is no
 *         printable ASCII among the first 8)
 */
TARN_API int Encrypt_String(const char *text, char *hash);

/**
 * Checks a user's password against the shadow database, which needs root. A locked or empty entry fits no password.
 *
 * @return 0 right, -EINVAL, -ENOANO when there is no such user (or the database cannot be read), -EBADSLT wrong
 */
TARN_API int Authentication_Check(const char *user, const char *password);

/* ------------------------------------------------------------------------------------------------------------------
 * Configuration nodes
 *
 * A configuration file in memory: a chain of sections, each with a chain of pairs, in the file's order. Keys and names
 * are compared byte for byte; where one stands twice, every function takes the first. Whoever holds a chain's first
 * node owns the chain.
 *
 * The node functions take names and values as they come. One that would break the text format (a newline anywhere, a
 * "]" in a section name) is refused with -EINVAL by the functions that write files.
 * --------------------------------------------------------------------------------------------------------------- */

/** A key and its value, one allocation. A caller's own node may have no value (null): it then counts as absent. */
typedef struct Pair_Node {
  struct Pair_Node *next;   /**< next pair of the section, or null */
  char *value;              /**< the value's text, right behind the key */
  __extension__ char key[]; /**< the key's text */
} Pair_Node;

/** A section: its name and its pairs. The empty name stands for the pairs before a file's first section line. */
typedef struct Sect_Node {
  struct Sect_Node *next;    /**< next section, or null */
  Pair_Node *pairs;          /**< first pair, or null */
  __extension__ char name[]; /**< the section's name; a node of the library has room for 127 bytes at least */
} Sect_Node;

/** Makes a pair with copies of both texts. Returns 0, -EINVAL, -ENOMEM (out is null then). */
TARN_API int Create_Pair_Node(Pair_Node **out, const char *key, const char *value);

/** Makes a pair whose value is a decimal number. Returns 0, -EINVAL, -ENOMEM (out is null then). */
TARN_API int Create_Integer_Pair_Node(Pair_Node **out, const char *key, int64_t value);

/** Makes a section without pairs. Returns 0, -EINVAL, -ENOMEM (out is null then). */
TARN_API int Create_Sect_Node(Sect_Node **out, const char *name);

/** Frees a pair and every pair behind it; null is ignored. */
TARN_API void Free_Pair_Node(Pair_Node *first);

/** Frees a section and every section behind it, with their pairs; null is ignored. */
TARN_API void Free_Sect_Node(Sect_Node *first);

/**
 * Finds a key's value in a chain of pairs.
 *
 * @param value  receives a pointer into the node, valid while the node lives
 * @return 0, -ENODATA (no such key), -EINVAL (an argument is null, an empty chain included)
 */
TARN_API int Get_Pair_String_Buffer(const Pair_Node *pairs, const char *key, const char **value);

/**
 * Copies a key's value.
 *
 * @param size  in: bytes in the buffer; out: the value's length plus one, whenever the key is found
 * @return 0, -EOVERFLOW (nothing copied), -ENODATA, -EINVAL
 */
TARN_API int Get_Pair_String_Value(const Pair_Node *pairs, const char *key, char *buffer, int *size);

/**
 * Reads a key's value as a decimal number, by the rules of strtoll: text that is no number is 0. Returns 0, -ENODATA or
 * -EINVAL.
 */
TARN_API int Get_Pair_Int64_Value(const Pair_Node *pairs, const char *key, int64_t *value);

/** As Get_Pair_Int64_Value; -EOVERFLOW outside -127..127, the value stored cut to its width all the same. */
TARN_API int Get_Pair_Int8_Value(const Pair_Node *pairs, const char *key, int8_t *value);

/** As Get_Pair_Int64_Value; -EOVERFLOW outside -32767..32767, the value stored cut to its width all the same. */
TARN_API int Get_Pair_Int16_Value(const Pair_Node *pairs, const char *key, int16_t *value);

/** As Get_Pair_Int64_Value; -EOVERFLOW outside -2147483647..2147483647, the value stored cut all the same. */
TARN_API int Get_Pair_Int32_Value(const Pair_Node *pairs, const char *key, int32_t *value);

/**
 * Sets, adds (at the end) or, with a null value, removes a key. The value may be a text of the node itself.
 *
 * @param chain  where the first pair's address is held; it may change
 * @return 0, -EINVAL, -ENOMEM (the chain as it was)
 */
TARN_API int Set_Pair_String_Value(Pair_Node **chain, const char *key, const char *value);

/** Sets a key to a decimal number; otherwise as Set_Pair_String_Value. */
TARN_API int Set_Pair_Integer_Value(Pair_Node **chain, const char *key, int64_t value);

/**
 * Finds a key's value in a chain of sections.
 *
 * @param value  receives a pointer into the node, valid while the node lives
 * @return 0, -ENOANO (no such section), -ENODATA (no such key in it), -EINVAL
 */
TARN_API int Get_Conf_String_Pointer(const Sect_Node *sections, const char *section, const char *key,
                                     const char **value);

/** Copies a key's value; size and results as Get_Pair_String_Value, and -ENOANO. */
TARN_API int Get_Conf_String_Value(const Sect_Node *sections, const char *section, const char *key, char *buffer,
                                   int *size);

/** Reads a number; as Get_Pair_Int64_Value, and -ENOANO. */
TARN_API int Get_Conf_Int64_Value(const Sect_Node *sections, const char *section, const char *key, int64_t *value);

/** Reads a number; as Get_Pair_Int8_Value, and -ENOANO. */
TARN_API int Get_Conf_Int8_Value(const Sect_Node *sections, const char *section, const char *key, int8_t *value);

/** Reads a number; as Get_Pair_Int16_Value, and -ENOANO. */
TARN_API int Get_Conf_Int16_Value(const Sect_Node *sections, const char *section, const char *key, int16_t *value);

/** Reads a number; as Get_Pair_Int32_Value, and -ENOANO. */
TARN_API int Get_Conf_Int32_Value(const Sect_Node *sections, const char *section, const char *key, int32_t *value);

/**
 * Sets, adds or, with a null value, removes a key of a section. A missing section is added at the end of the chain: do
 * not add the empty name this way, since a file can hold its pairs only at the top.
 *
 * @param sections  the first section; there must be one
 * @return 0, -EINVAL, -ENOMEM (the chain as it was)
 */
TARN_API int Set_Conf_String_Value(Sect_Node *sections, const char *section, const char *key, const char *value);

/** Sets a key of a section to a decimal number; otherwise as Set_Conf_String_Value. */
TARN_API int Set_Conf_Integer_Value(Sect_Node *sections, const char *section, const char *key, int64_t value);

/* ------------------------------------------------------------------------------------------------------------------
 * Configuration text
 *
 * Lines end in a newline. A "#" or ";" in the first column makes a comment; "[name]" opens a section (no blanks are
 * trimmed inside, text behind the "]" is ignored); everything else is "key = value", split at the first "=", blanks and
 * tabs around key and value removed. There are no quotes, escapes or continued lines. A bad line is logged and skipped.
 *
 * What is written loses comments, indentation and spacing. Two things do not survive being written and read back: a
 * section line "[]" that is not at the top or has no keys, and an indented key that begins with "#", ";" or "[".
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Loads a regular file whole; a missing final newline is added.
 *
 * @param text  receives the text with a terminator (free() it); null on failure
 * @return bytes in the text; -EINVAL; -ENOMEDIUM (not a regular file); -ENOMEM; -EIO; -errno. A read that fails with an
 *         errno answers with that errno as a POSITIVE number and no text: test the text, too.
 */
TARN_API int Cache_Conf_File(const char *path, char **text);

/**
 * Parses a loaded text up to its first NUL; text behind the last newline is ignored.
 *
 * @param text      changed by the parsing: it cannot be parsed twice
 * @param sections  receives the chain (Free_Sect_Node); null when there is no section
 * @return number of sections; -EINVAL; -ENOMEM. When memory ends at a section, what was parsed so far is the result.
 */
TARN_API int Parse_Conf_Cache(char *text, Sect_Node **sections);

/** Parses an open stream to its end; as Parse_Conf_Cache, but lines over 4095 bytes count as several lines. */
TARN_API int Parse_Conf_Stream(FILE *stream, Sect_Node **sections);

/** Writes "key = value" lines; pairs without a value are passed over. Returns 0 (stream errors are the stream's),
 * -EINVAL. */
TARN_API int Write_Pair_Node(FILE *stream, const Pair_Node *first);

/** Writes sections, an empty line behind each. Returns 0 (stream errors are left in the stream), -EINVAL. */
TARN_API int Write_Sect_Node(FILE *stream, const Sect_Node *first);

/* ------------------------------------------------------------------------------------------------------------------
 * Configuration files
 *
 * Files are replaced, never written in place: the new content is on the disk before it takes the old file's name, with
 * the old permission bits. A failure leaves the old file, and no temporary one.
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Reads a file into sections. Takes no lock.
 *
 * @param sections  receives the chain (Free_Sect_Node), or null
 * @return number of sections; -ENOENT (not logged); the failures of Cache_Conf_File and Parse_Conf_Cache
 */
TARN_API int Read_Conf_File(const char *path, Sect_Node **sections);

/** Writes sections into a file where it stands (an empty chain empties it); removes it when that fails. No lock. */
TARN_API int Write_Conf_File(const char *path, const Sect_Node *sections);

/**
 * Replaces a file by the sections (an empty chain makes an empty file). A link is replaced by a plain file with the
 * permission bits of the file that it pointed to. Takes no lock; two threads of a process must not replace the same
 * path at once without it.
 *
 * @return 0; -EINVAL (also for names and values that would break the format); -ENAMETOOLONG; -errno
 */
TARN_API int Update_Conf_File(const char *path, const Sect_Node *sections);

/** Reads one section (Free_Sect_Node). Takes no lock. Returns 0, -ENOANO (no such section), or as Read_Conf_File. */
TARN_API int Get_Conf_File_Section(const char *path, const char *name, Sect_Node **section);

/**
 * Replaces, adds (at the end) or, with a null section, removes one section. Takes the lock.
 *
 * @param section  stays the caller's; its next is null afterwards. Its name should be the name given.
 * @return 0; -ENOLCK; -ENOANO or -ENOENT (nothing to remove in the file, or no file); -EINVAL; -ENOMEM; -errno
 */
TARN_API int Set_Conf_File_Section(const char *path, const char *name, Sect_Node *section);

/**
 * Applies a section's pairs to a section of the file; a pair without value removes its key. Takes the lock.
 *
 * @return 0; -ENOLCK; -ENOENT (no file); -ENOANO (no such section); -EINVAL; -ENOMEM; -errno
 */
TARN_API int Update_Conf_File_Section(const char *path, const char *name, const Sect_Node *section);

/**
 * Sets keys of one section; file and section are made when missing. Takes the lock.
 *
 * @return -EINVAL for a null argument, else 0 whatever happened: callers learn of failures from the log only
 */
TARN_API int Set_Conf_File_Pair_Values(const char *path, const char *section, const Pair_Node *pairs);

/* ------------------------------------------------------------------------------------------------------------------
 * Single values in the file's text
 *
 * One key read or changed; every other line stays as it is, comments and spacing included. A null or empty section
 * means the lines before the first section line.
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Reads a key's value. Takes no lock.
 *
 * @param size  in: bytes in the buffer; out: the value's length WITHOUT the terminator, on success and on -EOVERFLOW
 * @return 0, -EOVERFLOW (length not below size), -ENOANO (no such section), -ENODATA (no such key), -ENOENT, -EINVAL,
 *         other failures of Cache_Conf_File (always negative here)
 */
TARN_API int Get_Conf_File_String_Value(const char *path, const char *section, const char *key, char *buffer,
                                        int *size);

/** Reads a number by the rules of strtoll; -EOVERFLOW for a value of 32 characters or more. */
TARN_API int Get_Conf_File_Int64_Value(const char *path, const char *section, const char *key, int64_t *value);

/** As Get_Conf_File_Int64_Value; -EOVERFLOW outside -127..127, the value stored cut to its width all the same. */
TARN_API int Get_Conf_File_Int8_Value(const char *path, const char *section, const char *key, int8_t *value);

/** As Get_Conf_File_Int64_Value; -EOVERFLOW outside -32767..32767, the value stored cut all the same. */
TARN_API int Get_Conf_File_Int16_Value(const char *path, const char *section, const char *key, int16_t *value);

/** As Get_Conf_File_Int64_Value; -EOVERFLOW outside -2147483647..2147483647, the value stored cut all the same. */
TARN_API int Get_Conf_File_Int32_Value(const char *path, const char *section, const char *key, int32_t *value);

/**
 * Sets, adds or, with a null value, removes a key. Takes the lock. A new key comes last in its section, a new section
 * last in the file. A missing file is made; without a section name it begins with a line "[]", so that the key is then
 * found under no section name (callers depend on the line).
 *
 * @return 0; -ENOLCK; -ENOENT, -ENOANO, -ENODATA (nothing to remove: no file, section or key; the file untouched);
 *         -EINVAL (also for a newline in any text, or a "]" in the section); -1 when writing failed; -errno
 */
TARN_API int Set_Conf_File_String_Value(const char *path, const char *section, const char *key, const char *value);

/** Sets a key to a decimal number; unlike the text form it requires a section (null is -EINVAL). Takes the lock. */
TARN_API int Set_Conf_File_Integer_Value(const char *path, const char *section, const char *key, int64_t value);

/* ------------------------------------------------------------------------------------------------------------------
 * Path checks
 *
 * Thin wrappers over stat, readlink and utimensat with the library's results. None of them reports to the log. A
 * directory descriptor is one of an open folder, or AT_FDCWD (-100); any other negative number is -EINVAL. The _At
 * checks look at a final symbolic link itself; Is_Folder and Get_File_Size look at what it points to.
 * --------------------------------------------------------------------------------------------------------------- */

/** Points name at the text behind the path's last "/" (at the path itself when it has none). Returns 0 or -EINVAL. */
TARN_API int Get_Filename(const char *path, const char **name);

/**
 * Reads the path of an open descriptor. A removed file's path ends in " (deleted)".
 *
 * @param buffer  receives the path WITHOUT a terminator, cut at size bytes: it is no text until the caller makes it one
 * @param size    bytes in the buffer
 * @return length of the path; -EINVAL (no buffer, a negative descriptor or size, a closed descriptor); -errno
 */
TARN_API int Get_FD_Path(int fd, char *buffer, int size);

/**
 * Tells the path of an open descriptor, as far as 4095 characters.
 *
 * @return text in one buffer of the process, valid until the next call; null on failure. Not thread-safe; a line that
 *         calls it twice shows the later path twice.
 */
TARN_API const char *Fullpath(int fd);

/**
 * Sets access and modification time.
 *
 * @param times  two: access, modification
 * @param flags  0 or AT_SYMLINK_NOFOLLOW
 * @return 0, -EINVAL, or -errno of utimensat
 */
TARN_API int Set_File_Time_At(int dir_fd, const char *path, const struct timespec *times, int flags);

/** Sets both times of a file to the same moment; the nanoseconds come first. Results as Set_File_Time_At. */
TARN_API int Set_File_Modified_Time_At(int dir_fd, const char *path, unsigned int nanoseconds, unsigned int seconds,
                                       int flags);

/** Answers 1 for a folder (links followed), 0 for anything else, -EINVAL, or -errno: compare with 1. */
TARN_API int Is_Folder(const char *path);

/**
 * Asks whether a path is a folder; a symbolic link to one is not.
 *
 * @param flag  receives 1 or 0; untouched on failure
 * @return 0, -EINVAL, -errno
 */
TARN_API int Check_Folder_At(int dir_fd, const char *path, unsigned int *flag);

/** Check_Folder_At from the working directory. */
TARN_API int Check_Folder(const char *path, unsigned int *flag);

/** Answers 1 when the name exists, whatever its type (a dangling link too), 0 when not, -EINVAL, or -errno. */
TARN_API int Check_File_At(int dir_fd, const char *path);

/** Check_File_At from the working directory. */
TARN_API int Check_File(const char *path);

/** Tells a file's size in bytes (links followed). Returns 0, -EINVAL or -errno. */
TARN_API int Get_File_Size(const char *path, uint64_t *size);

/* ------------------------------------------------------------------------------------------------------------------
 * Lock files and shared files
 *
 * One lock file for a protected file, "/var/lock/_NAME.lck" for the base name NAME: files of the same base name share a
 * lock, wherever they lie. A lock is taken by creating its file, and given back by removing it; it excludes processes
 * and threads alike and is not reentrant. A lock whose owner is gone, one taken more than 10 minutes ago, and one that
 * stays without proper content for more than 2 seconds is removed by whoever waits for it.
 *
 *     if (Get_File_Lock("/etc/config/example.conf", 10000) == 1) {
 *       ...
 *       Release_File_Lock("/etc/config/example.conf");
 *     }
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Takes the lock of a path.
 *
 * The age of a lock counts from the start of the call that took it, so a call that waited long takes a lock that ends
 * early.
 *
 * @param timeout_ms  milliseconds to wait; negative waits without limit
 * @return 1 when the caller holds the lock; 0 otherwise: null path, a base name over 240 bytes, time-out, failed write
 */
TARN_API int Get_File_Lock(const char *path, int timeout_ms);

/** Removes the lock of a path, whoever holds it. Returns 1; 0 for a null path. */
TARN_API int Release_File_Lock(const char *path);

/**
 * Waits until the foreign lock of a path, "/var/lock/NAME.lck" without the underscore, does not exist; removes it when
 * it is stale. The library never creates one.
 *
 * @param timeout_ms  milliseconds to wait; negative waits without limit
 * @return always 0
 */
TARN_API int Check_File_Lock(const char *path, int timeout_ms);

/**
 * Takes the lock, then opens the file with fopen.
 *
 * @param mode    a mode of fopen
 * @param stream  receives the stream, to be given back with Close_Shared_File; null on -ETIME and -errno
 * @return 0; -EINVAL; -ETIME when the lock was not to be had; -errno of fopen (the lock is given back)
 */
TARN_API int Open_Shared_File(const char *path, const char *mode, FILE **stream);

/**
 * Gives the lock back, then closes the stream (in this order: buffered bytes reach the file after the lock is gone).
 *
 * @return 0, -EINVAL, or -errno of fclose
 */
TARN_API int Close_Shared_File(const char *path, FILE *stream);

/* ------------------------------------------------------------------------------------------------------------------
 * Bulk transfer
 *
 * Lengths and offsets are in bytes, time-outs in milliseconds. An abort flag is the caller's: another thread may set it
 * to any value but 0, which ends the transfer within a step and is its result. Counters are added to, never reset.
 * Offsets are where to read and write, and are moved; null means the descriptor's own position.
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Moves bytes between two descriptors within the kernel; one of them is a pipe. Waits as long as some bytes move within
 * each time-out. A blocking descriptor sleeps in the kernel, where neither time-out nor flag is looked at.
 *
 * @param flags       of splice(2)
 * @param timeout_ms  of inactivity; negative: none
 * @param abort_flag  not null
 * @return 0, the abort flag, -EINVAL, -ETIME, -errno (-EINTR included)
 */
TARN_API int Splice_Ext(int in_fd, int64_t *in_offset, int out_fd, int64_t *out_offset, int64_t length, int flags,
                        int timeout_ms, unsigned int *abort_flag);

/**
 * Moves a file's bytes to or from a pipe in steps of 131072 bytes.
 *
 * @param abort_flag  may be null
 * @param counter     grows by whole steps; may be null
 * @return 0, the abort flag, -EINVAL (a negative descriptor, offset or length), or as Splice_Ext
 */
TARN_API int Splice_File_Data(int in_fd, int64_t *in_offset, int out_fd, int64_t *out_offset, int64_t length,
                              int timeout_ms, unsigned int *abort_flag, uint64_t *counter);

/**
 * Copies bytes through a buffer of 32768 bytes. A source that ends early ends the copy with 0: only whole steps are
 * copied then, see the counter. Offsets are moved by what was copied, also after a failure.
 *
 * @return 0, the abort flag, -EINVAL, -ENOMEM, -errno
 */
TARN_API int Copy_File_Data(int in_fd, int64_t *in_offset, int out_fd, int64_t *out_offset, int64_t length,
                            unsigned int *abort_flag, uint64_t *counter);

/** The same for a source that is still growing: waits at its end until the length has come or the flag is set. */
TARN_API int Copy_File_Data_RTRR(int in_fd, int64_t *in_offset, int out_fd, int64_t *out_offset, int64_t length,
                                 unsigned int *abort_flag, uint64_t *counter);

/**
 * Reads the beginning of a file with one read, and drops one newline at its end.
 *
 * @param buffer  receives the text, ended by a NUL only when it is shorter than the size
 * @param size    bytes in the buffer; receives the number of bytes
 * @return 0, -EINVAL, -errno
 */
TARN_API int Simple_Read_File(const char *path, char *buffer, int *size);

/** Reads part of a file with one read. size: bytes wanted, 1 or more; receives the number read. 0, -EINVAL, -errno. */
TARN_API int Read_File_To_Buffer(const char *path, void *buffer, int64_t *size, int64_t offset);

/**
 * Writes into a file, which is made (mode 0777 less the umask) when it is missing and never cut.
 *
 * @param size  bytes to write, 1 or more; receives the number written, also after a failure
 * @return 0, -EINVAL, -errno
 */
TARN_API int Write_File_From_Buffer(const char *path, const void *buffer, int64_t *size, int64_t offset);

/* ------------------------------------------------------------------------------------------------------------------
 * Folder trees
 *
 * The functions with _At work from open folders' descriptors, or from the working directory with AT_FDCWD (-100); those
 * without work from the working directory. The walks go from folder to folder by descriptors and follow no link but the
 * root's of a copy or survey, so a folder that is swapped for a link on the way leads nowhere.
 * --------------------------------------------------------------------------------------------------------------- */

/** What a survey adds up; it adds to what is there. */
typedef struct Tree_Stat {
  int file_count;       /**< regular files and symbolic links */
  int folder_count;     /**< folders, the root included */
  int64_t total_size;   /**< bytes of files and links */
  int64_t total_blocks; /**< blocks of 512 bytes of everything counted */
} Tree_Stat;

/**
 * Copies one file with permission bits (0777 of them), owner and modification time. A failed or aborted copy removes
 * the destination's name, also when the source could not even be looked at; a bad argument, and a destination that is
 * the source itself, remove nothing.
 *
 * @param abort_flag  not null
 * @param counter     grows by the bytes copied; may be null
 * @return 0, the abort flag, -EINVAL, -errno
 */
TARN_API int Copy_File_At(int source_dir_fd, const char *source, int destination_dir_fd, const char *destination,
                          unsigned int *abort_flag, uint64_t *counter);

/** Copy_File_At from the working directory. */
TARN_API int Copy_File(const char *source, const char *destination, unsigned int *abort_flag, uint64_t *counter);

/** Copies a symbolic link, with owner and modification time. Returns 0, -EINVAL, -errno. */
TARN_API int Copy_Symlink_At(int source_dir_fd, const char *source, int destination_dir_fd, const char *destination);

/** Copy_Symlink_At from the working directory. */
TARN_API int Copy_Symlink(const char *source, const char *destination);

/** Makes a folder like another, with mode, owner and modification time, without its content. 0, -EINVAL, -errno. */
TARN_API int Copy_Folder_At(int source_dir_fd, const char *source, int destination_dir_fd, const char *destination);

/** Copy_Folder_At from the working directory. */
TARN_API int Copy_Folder(const char *source, const char *destination);

/** Removes a name that is no folder's. Returns 0, -EINVAL, -errno. */
TARN_API int Remove_File_At(int dir_fd, const char *name);

/** Remove_File_At from the working directory. */
TARN_API int Remove_File(const char *name);

/**
 * Copies a tree's folders, files and links; devices, pipes and sockets are left out, and folders that cannot be read
 * stay empty. Files that are there are overwritten, folders and links that are there end the copy with -EEXIST. The
 * destination's root may be there, and may lie in the source, which is then copied without it. Copied subfolders bear
 * the time of the copy, the root that of the source.
 *
 * @param abort_flag  may be null
 * @return 0, also when the flag was set before or between files; the flag's value when it was set within a file;
 *         -EINVAL; -ENOTDIR; -ENOMEM; -errno
 */
TARN_API int Copy_Folder_Tree_At(int source_dir_fd, const char *source, int destination_dir_fd, const char *destination,
                                 unsigned int *abort_flag);

/** Copy_Folder_Tree_At from the working directory. */
TARN_API int Copy_Folder_Tree(const char *source, const char *destination, unsigned int *abort_flag);

/**
 * Adds up a tree.
 *
 * @param statistics  is added to
 * @param abort_flag  may be null
 * @return 0, also when aborted; -EINVAL, -ENOTDIR, -ENOMEM, or -errno of the root; a positive errno when something in
 *         the tree could not be looked at
 */
TARN_API int State_Folder_Tree_At(int dir_fd, const char *path, Tree_Stat *statistics, unsigned int *abort_flag);

/** State_Folder_Tree_At from the working directory. */
TARN_API int State_Folder_Tree(const char *path, Tree_Stat *statistics, unsigned int *abort_flag);

/**
 * Removes a tree, or a name that is no folder's (a link to one included). What cannot be removed is logged and left.
 *
 * @param abort_flag  may be null
 * @return 0, the abort flag, -EINVAL, -ENOMEM, -errno of the root (-ENOTEMPTY when something was left)
 */
TARN_API int Remove_Folder_Tree_At(int dir_fd, const char *path, unsigned int *abort_flag);

/** Remove_Folder_Tree_At from the working directory. */
TARN_API int Remove_Folder_Tree(const char *path, unsigned int *abort_flag);

/* ------------------------------------------------------------------------------------------------------------------
 * Temporary files
 *
 * Names for files that are renamed when they are done: the folder of a template path, the marker "$$@#!$$" and a number
 * from 0 to 999999, the first that is free. The template's own base name is not used. A buffer for a name needs the
 * folder's part and room for the marker, six digits and a terminator.
 * --------------------------------------------------------------------------------------------------------------- */

/** Answers 0 when a path's base name begins with the marker, 1 when not, -EINVAL. */
TARN_API int Check_Temp_Filename(const char *path);

/**
 * Finds a name that is free at the moment. Nothing is made, so another process may take it.
 *
 * @param dir_fd  an open folder that the template is relative to, or AT_FDCWD
 * @param name    receives the name
 * @param size    bytes in name
 * @return 0; -EINVAL; -EOVERFLOW when the name does not fit; -ERANGE when none is free
 */
TARN_API int Generate_Temp_Filename(int dir_fd, const char *template_path, char *name, int size);

/**
 * Makes and opens a file of a free name, with three digits at least.
 *
 * @param flags  of open(2); O_CREAT and O_EXCL are added. Pass O_CLOEXEC.
 * @param mode   permission bits, 0777 of them, less the umask
 * @param size   bytes in name
 * @param name   receives the name; may be null
 * @param fd     receives the descriptor, -1 on failure
 * @return 0, -EINVAL, -EOVERFLOW, -ERANGE, -errno of the open; no file is left after a failure
 */
TARN_API int Open_Unique_Temp_File_At(int dir_fd, const char *template_path, int flags, int mode, int size, char *name,
                                      int *fd);

/**
 * The same from the working directory, with six digits. When no number is free it removes number 999999, whoever made
 * it, before it returns -ERANGE: the next call finds a name.
 */
TARN_API int Open_Unique_Temp_File(const char *template_path, int flags, int mode, int size, char *name, int *fd);

/* ------------------------------------------------------------------------------------------------------------------
 * Addresses
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Resolves a name and writes its first address as text. The scope of a link-local address ("%eth0") is dropped. May
 * block for the resolver's time-out.
 *
 * @param address  receives the text; at least 46 bytes
 * @param family   receives AF_INET or AF_INET6 (or the unsupported family)
 * @return 0; -EINVAL; -EHOSTUNREACH or -errno when the name does not resolve (both outputs untouched); -EFAULT for
 *         another family (the text is empty)
 */
TARN_API int Domain_To_IP_Addr(const char *name, char *address, unsigned int *family);

/**
 * Asks whether a name is this machine.
 *
 * The name's address need only be the beginning of an interface's ("10.0.0.1" also matches "10.0.0.12"), and an IPv6
 * address is compared with the first interface's only; callers depend on both.
 *
 * @return 1 yes; 0 no, also when the name does not resolve or the interfaces cannot be read; -EINVAL for a null or
 *         empty name
 */
TARN_API int Is_IP_Localhost(const char *name);

/**
 * Compares two IPv6 addresses under a prefix: its whole bytes, then (prefix_length & 3) bits of the next one, so 60
 * compares as 56 does and 62 as 58.
 *
 * @param a, b           16 bytes each, network order
 * @param prefix_length  1 to 128
 * @return 0 the same; 113 (EHOSTUNREACH, positive) different; -EINVAL
 */
TARN_API int IPv6_Check_Subnet(const unsigned char *a, const unsigned char *b, int prefix_length);

/**
 * Finds the index of the interface that reaches an IPv6 address, from the first 1023 bytes of /proc/net/if_inet6: the
 * one whose subnet holds the address, else the last one listed. Loopback is passed over.
 *
 * @param address   16 bytes, network order
 * @param scope_id  receives the index, 0xFFFFFFFF when there is none
 * @return 0, -EINVAL, -ENODEV
 */
TARN_API int IPv6_Get_Scope_Id(const unsigned char *address, unsigned int *scope_id);

/* ------------------------------------------------------------------------------------------------------------------
 * Sockets
 *
 * Every socket is close-on-exec and belongs to the caller, who closes it. Time-outs are in milliseconds.
 *
 *     int fd;
 *     int status = TCP_Socket_Connect(NULL, "nas2.example", 62695, 5000, &fd);
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Connects to the first address that a host resolves to. TCP_NODELAY is on; the time-out stays on the socket for
 * sending (connecting included) and receiving. A connection that is not made in time is -EINPROGRESS. An IPv6
 * link-local host without a scope ("%eth0") gets the one IPv6_Get_Scope_Id finds.
 *
 * @param local_address  IPv4 address to connect from, or null; fails with -EINVAL for an IPv6 host
 * @param host           name or address
 * @param port           1 to 65535
 * @param timeout_ms     0 or less: 120000
 * @param fd             receives the socket, -1 on failure
 * @return 0; -EINVAL; -EHOSTUNREACH or -errno when the host does not resolve; -errno
 */
TARN_API int TCP_Socket_Connect(const char *local_address, const char *host, int port, int timeout_ms, int *fd);

/**
 * Listens on every address that a host resolves to (IPv6 sockets take IPv6 only). An address that cannot be bound is
 * passed over as long as another one can.
 *
 * @param host      name or address; null: all addresses
 * @param port      1 to 65535
 * @param backlog   1 to 128
 * @param fds       receives the sockets and -1 behind the last: room for capacity + 1 entries
 * @param capacity  the number of sockets that may be made
 * @return 0; -EINVAL; -ENOMEM for more addresses than capacity; -EHOSTUNREACH or -errno. Nothing is left open, and
 *         fds[0] is -1, after a failure
 */
TARN_API int TCP_Socket_Listen(const char *host, int port, int backlog, int *fds, int capacity);

/** Makes a descriptor non-blocking. Returns 0 or -errno. */
TARN_API int Domain_Sock_Set_Nonblocking(int fd);

/**
 * Listens on a local-domain stream socket that every user may connect to (mode 0666). Whatever file is at the path is
 * removed first.
 *
 * @param path         1 to 107 characters
 * @param fd           receives the socket, -1 on failure
 * @param nonblocking  0: blocking; above 0: non-blocking
 * @return 0; -EINVAL (also an empty path); -ENAMETOOLONG, nothing removed; -errno
 */
TARN_API int Domain_Socket_Listen(const char *path, int *fd, int nonblocking);

/**
 * Connects to a local-domain stream socket.
 *
 * @param fd          receives the socket; untouched on failure
 * @param timeout_ms  stays on the socket for sending and receiving; 0: none. A time-out that the kernel refuses (a
 *                    negative one that is no multiple of 1000: -EDOM) leaves the socket open; callers know it so.
 * @return 0, -EINVAL, -ENAMETOOLONG, -errno
 */
TARN_API int Domain_Socket_Connect(const char *path, int *fd, int timeout_ms);

/**
 * Waits until a socket has something to receive, its end included.
 *
 * @param timeout_ms  0 asks once; a negative one is -EINVAL
 * @return 1 ready, 0 not in time, -EBADF, -EINTR, -errno. Any descriptor number will do, also 1024 and above.
 */
TARN_API int Is_Socket_Ready_To_Recv(int fd, int timeout_ms);

/** Waits until a socket takes something to send. Results as Is_Socket_Ready_To_Recv. */
TARN_API int Is_Socket_Ready_To_Send(int fd, int timeout_ms);

/** Is_Socket_Ready_To_Recv for any descriptor. */
TARN_API int Is_FD_Ready_To_Read(int fd, int timeout_ms);

/**
 * Waits until one of several descriptors is readable, hung up or in error (a closed one is).
 *
 * @param fds         1 to 16 descriptors; negative ones are passed over
 * @param timeout_ms  not negative
 * @param ready_fd    receives the first ready one
 * @param index       receives its place in fds; may be null
 * @return 1 one is ready, 0 none in time, -EINVAL, -errno
 */
TARN_API int Is_Any_Socket_Ready(const int *fds, int count, int timeout_ms, int *ready_fd, int *index);

/* ------------------------------------------------------------------------------------------------------------------
 * Exact transfer
 *
 * SIGPIPE is the caller's: pass MSG_NOSIGNAL to Exactly_Send, and ignore the signal where sendfile, splice or a TLS
 * session writes to a peer that may leave. The library changes no signal's disposition. Path and offsets of the log
 * lines come from Fullpath, so the functions on files are not thread-safe in what they report.
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Receives exactly length bytes from a socket.
 *
 * A closed peer is polled without pause until the time-out. Silence of a peer that is there is not looked at: only a
 * receive time-out of the socket (see TCP_Socket_Connect) ends that, with -EAGAIN.
 *
 * @param timeout_ms  milliseconds until a closed peer is -ETIME; negative: never
 * @return length; 0 for a length below 1; -EINVAL; -ETIME (errno is ETIME too); -errno
 */
TARN_API int Exactly_Recv(int fd, void *buffer, int length, int timeout_ms);

/**
 * Sends all of a buffer.
 *
 * @param length  up to INT_MAX, else -EINVAL
 * @param flags   of send(2), as they are; MSG_NOSIGNAL turns a peer that left into -EPIPE instead of the signal
 * @return length, -EINVAL, -errno
 */
TARN_API int Exactly_Send(int fd, const void *buffer, size_t length, int flags);

/**
 * Sends part of a file to a socket or a file within the kernel (sendfile).
 *
 * @param length  bytes
 * @param offset  where to read, moved by what was sent; null: the file's own position
 * @param sent    receives the number of bytes sent, also after a failure; may be null
 * @return 0, also when the file ends early (see sent); -EINVAL for a negative descriptor or length; -errno
 */
TARN_API int File_Send_Bulk(int source_fd, int destination_fd, int64_t length, int64_t *offset, int64_t *sent);

/**
 * Writes all of a buffer to a descriptor.
 *
 * @param written  receives the number of bytes written, also after a failure; may be null
 * @return 0; -EINVAL for a null buffer, a negative descriptor or length; -errno
 */
TARN_API int File_Write_Bulk(int fd, const void *buffer, int64_t length, int64_t *written);

/**
 * Receives a file of known length from a socket into a file within the kernel (splice), 8192 bytes at a time. Waits for
 * a silent peer without limit, unless the socket has a receive time-out and is blocking (then it is asked again).
 *
 * @param destination_fd  not opened with O_APPEND
 * @param offset          where to write, moved by what was written; null: the file's own position
 * @param received        receives the number of bytes written, also after a failure; may be null
 * @return 0; -EINVAL for a negative descriptor or length; -EPIPE when the peer's stream ended early; -errno
 */
TARN_API int Recv_File(int socket_fd, int destination_fd, int64_t *offset, int64_t length, int64_t *received);

/* ------------------------------------------------------------------------------------------------------------------
 * TLS sessions
 *
 * A session whose ctx is null IS A PLAIN SOCKET: every function below then sends and receives in the clear. Whoever
 * ignores a failed handshake and goes on with the record does so. Peers' certificates are not verified by the
 * handshake; look at SSL_get_verify_result and the peer's name before the first byte is trusted.
 *
 * One context is made for each session and destroyed with it. Contexts must be made one at a time. OpenSSL writes with
 * write(2), so a program that talks to peers that may leave ignores SIGPIPE.
 *
 *     Tls_Session session;
 *     if (SSL_Socket_Connect("nas2", 62695, 5000, "me.pem", "", "ca.pem", &session) == 0) {
 *       Exactly_SSL_Send(&session, "hello", 5, 0);
 *       SSL_Socket_Destroy(&session, 0);
 *     }
 * --------------------------------------------------------------------------------------------------------------- */

struct bio_st;
struct ssl_st;
struct ssl_ctx_st;

/** A connected socket and, when ctx is not null, the TLS session on it. */
typedef struct Tls_Session {
  int fd;                 /**< the socket, -1: none */
  struct bio_st *bio;     /**< belongs to ssl */
  struct ssl_st *ssl;     /**< null: none */
  struct ssl_ctx_st *ctx; /**< null: a plain socket */
} Tls_Session;

/**
 * Makes a context of any protocol version that OpenSSL offers.
 *
 * @param certificate  PEM file of the certificate chain and its private key (not encrypted, or with the password)
 * @param password     of the key; 1023 characters at most, a longer one counts as none. Used during the call only.
 * @param ca_list      PEM file of the authorities
 * @param ctx          receives the context (CTX_Destroy), null on failure
 * @return 0; -EINVAL; -errno when the chain cannot be read; -ENOENT when key or authorities cannot; -ENOMEM
 */
TARN_API int CTX_Initialize(const char *certificate, const char *password, const char *ca_list,
                            struct ssl_ctx_st **ctx);

/** Frees a context; null is ignored. */
TARN_API void CTX_Destroy(struct ssl_ctx_st *ctx);

/**
 * Makes a TLS session on the connected socket session->fd, as its client.
 *
 * @param session  its fd is set; filled on success, untouched on failure (the socket stays open)
 * @return 0; -EINVAL; the failure of CTX_Initialize; -errno or -EPROTO when the handshake fails
 */
TARN_API int SSL_Connect_Socket(const char *certificate, const char *password, const char *ca_list,
                                Tls_Session *session);

/** The same as the session's server. */
TARN_API int SSL_Accept_Socket(const char *certificate, const char *password, const char *ca_list,
                               Tls_Session *session);

/**
 * Connects to a host (see TCP_Socket_Connect) and makes a TLS session on the connection.
 *
 * @param session  filled on success; {-1, null, null, null} on failure
 * @return 0; -EINVAL; the failures of TCP_Socket_Connect, CTX_Initialize and the handshake
 */
TARN_API int SSL_Socket_Connect(const char *host, int port, int timeout_ms, const char *certificate,
                                const char *password, const char *ca_list, Tls_Session *session);

/**
 * Ends a session: says goodbye to the peer unless no_shutdown is not 0, frees session and context, closes the socket,
 * and leaves {-1, null, null, null}. Null is ignored.
 */
TARN_API void SSL_Socket_Destroy(Tls_Session *session, int no_shutdown);

/** recv(2) on a plain record; else SSL_peek when flags hold MSG_PEEK, or SSL_read. Results as theirs; -EINVAL. */
TARN_API int SSL_Recv(Tls_Session *session, void *buffer, int length, int flags);

/** send(2) on a plain record; else SSL_write. Results as theirs; -EINVAL. */
TARN_API int SSL_Send(Tls_Session *session, const void *buffer, int length, int flags);

/**
 * Looks at exactly length bytes without taking them. Asks without pause until they are there: for short messages only.
 * A TLS message over two records, or above 16384 bytes, is never there as a whole.
 *
 * @param timeout_ms  negative: none
 * @return length; 0 for a length below 1; -EINVAL; -ETIME (errno is ETIME too); -errno, -EAGAIN included; -EPROTO
 */
TARN_API int Exactly_SSL_Peek(Tls_Session *session, void *buffer, int length, int timeout_ms);

/**
 * Receives exactly length bytes.
 *
 * Every time-out of the socket before the deadline (EAGAIN) lowers the count of received bytes by one, and the peer's
 * next bytes begin that much earlier; programs on the other side depend on it. Bytes that would lie before the buffer
 * are taken and dropped.
 *
 * @param timeout_ms  negative: none
 * @return length; 0 for a length below 1; -EINVAL; -ETIME (errno is ETIME too); -errno; -EPROTO when the session broke
 *         without an errno
 */
TARN_API int Exactly_SSL_Recv(Tls_Session *session, void *buffer, int length, int timeout_ms);

/** The same; received holds the count so far, also after a failure (it may be negative). */
TARN_API int Exactly_SSL_Recv_Ex(Tls_Session *session, void *buffer, int length, int timeout_ms, int *received);

/**
 * Sends all of a buffer.
 *
 * @param length  up to INT_MAX, else -EINVAL
 * @param flags   of send(2) for a plain record; not used with TLS
 * @return length; -EINVAL; -ETIME when the socket's send time-out ended it; -EPIPE, -EPROTO; -errno
 */
TARN_API int Exactly_SSL_Send(Tls_Session *session, const void *buffer, size_t length, int flags);

/* ------------------------------------------------------------------------------------------------------------------
 * Mounts, shares, volumes
 *
 * An appliance's shared folders are symbolic links in "/share/" to folders on its volumes. The functions that hand out
 * a mount entry, and those that stand on them, share the system's one entry: one thread at a time.
 * --------------------------------------------------------------------------------------------------------------- */

/** One mounted file system, in one allocation with its texts. */
typedef struct Mount_Info {
  struct Mount_Info *next;      /**< next entry, or null */
  int passno;                   /**< sixth field of the table's line */
  int freq;                     /**< fifth field */
  char *device;                 /**< first field: what is mounted */
  char *mount_point;            /**< second field */
  char *fs_type;                /**< third field */
  __extension__ char options[]; /**< fourth field */
} Mount_Info;

#define TARN_SHARE_HIDDEN 0x10u      /**< flag of a share that is not to be shown */
#define TARN_SHARE_EXTERNAL 0x1100u  /**< flags of a mounted external disk */
#define TARN_SHARE_READ_ONLY 0x1201u /**< flags of an optical image */

/** One shared folder, in one allocation with its name. */
typedef struct Share_Info {
  struct Share_Info *next;   /**< next share, or null */
  int mtime;                 /**< modification time of the folder, seconds, 32 bits */
  int mtime_nsec;            /**< its nanoseconds */
  unsigned int mode;         /**< type and permission bits; without write bits on an optical image */
  unsigned int flags;        /**< TARN_SHARE_HIDDEN and so on */
  unsigned int uid;          /**< owner */
  unsigned int gid;          /**< group */
  int fs_type;               /**< type number of the file system (statfs), 32 bits */
  int block_size;            /**< block size of the file system, bytes */
  int64_t free_bytes;        /**< free bytes of the file system */
  __extension__ char name[]; /**< name of the link in "/share/" */
} Share_Info;

/** A volume. */
typedef struct Volume_Info {
  uint64_t avail_bytes;   /**< bytes available to users */
  uint64_t total_bytes;   /**< bytes of the file system, or of the device: see the queries */
  unsigned int partition; /**< partition number, 0: none */
  char device[24];        /**< for example "/dev/sda1" */
  char shortcut[44];      /**< "/share/NAME", else the mount point */
  char uuid[40];          /**< UUID of the file system */
  char type[12];          /**< type of the file system */
  char label[16];         /**< label of the file system */
  char model[32];         /**< model of the device */
  char vendor[36];        /**< vendor of the device */
} Volume_Info;

/** Names in "/share/" that are no shares; only the first counts. */
extern TARN_API const char *g_rypszReservedShare[];

/**
 * Puts the mounted file systems at the front of a list, the last of the table first.
 *
 * @param list  is added to (Free_Mount_Info)
 * @return 0, -EINVAL, -errno of the table, -ENOMEM (what was read is in the list)
 */
TARN_API int Scan_Mount_Info(Mount_Info **list);

/** Frees a list; null is ignored. */
TARN_API void Free_Mount_Info(Mount_Info *list);

/**
 * Lists the shared folders, sorted by name.
 *
 * @param list   receives the list (Release_Share_List), null on failure
 * @param count  receives the number of shares; may be null
 * @return 0, -EINVAL, -errno of "/share/", -ENOMEM
 */
TARN_API int Scan_Share_List(Share_Info **list, int *count);

/** Frees a list and sets its holder to null. */
TARN_API void Release_Share_List(Share_Info **list);

/**
 * Finds the first mount of a device.
 *
 * @param entry  receives the system's own entry, good until the next read of a mount table; null when there is none
 * @return 0, -EINVAL, -errno of the table, -ENOTDIR
 */
TARN_API int Query_Mount_Entry_By_Device(const char *device, struct mntent **entry);

/** Finds the first mount at a mount point. As Query_Mount_Entry_By_Device. */
TARN_API int Query_Mount_Entry_By_Path(const char *mount_point, struct mntent **entry);

/** Finds the link in "/share" that points to a mount point below it. shortcut: 44 bytes. 0, -EINVAL, -ENOENT. */
TARN_API int Query_Mount_Shortcut(const char *mount_point, char *shortcut);

/**
 * Describes a mounted volume by its device ("/dev/...") or by a share folder that is its mount point ("/share/...").
 * total_bytes is the file system's for a device, and the device's for a share folder.
 *
 * @param info  is zeroed and filled, in part after a failure
 * @return 0; -EINVAL (also another path); -ENODEV; -ENOTDIR when it is not mounted; -errno
 */
TARN_API int Query_Volume_Info_BY_Path(const char *path, Volume_Info *info);

/** Describes a mounted volume by its UUID of up to 39 characters. As for a device. */
TARN_API int Query_Volume_Info_BY_Id(const char *uuid, Volume_Info *info);

/* ------------------------------------------------------------------------------------------------------------------
 * Block devices
 * --------------------------------------------------------------------------------------------------------------- */

/** One device that the block-id tool knows, in one allocation with its texts. */
typedef struct Block_Device {
  struct Block_Device *next;  /**< next device, or null */
  char *device;               /**< its path */
  char *uuid;                 /**< its UUID; empty: none */
  char *type;                 /**< its type; empty: none */
  __extension__ char type2[]; /**< a second type without its first character; empty: none */
} Block_Device;

/** Puts the block devices at the front of a list, the last one first (free() each). 0, -EINVAL, -ENOMEM. */
TARN_API int Scan_Block_Device_Info(Block_Device **list);

/**
 * Finds a device by its path of up to 22 characters.
 *
 * @param uuid, label, type  40, 16 and 12 bytes; a value that is missing or does not fit is empty
 * @return 0, -EINVAL, -ENODEV (all empty)
 */
TARN_API int Query_Block_Info_By_Path(const char *path, char *uuid, char *label, char *type);

/** Finds a device by its UUID of up to 39 characters. device: 24 bytes. As Query_Block_Info_By_Path. */
TARN_API int Query_Block_Info_By_Id(const char *uuid, char *device, char *label, char *type);

/**
 * Reads a device's facts from /sys/block.
 *
 * @param size            receives the bytes of the device
 * @param partition       receives its number; 0: none, or the only one of its disk
 * @param vendor, model   33 and 32 bytes
 * @return 0, -EINVAL, -errno when there is no vendor (the others are filled)
 */
TARN_API int Query_Block_Device_Info(const char *path, uint64_t *size, unsigned int *partition, char *vendor,
                                     char *model);

/* ------------------------------------------------------------------------------------------------------------------
 * Network interfaces
 * --------------------------------------------------------------------------------------------------------------- */

/** One IPv6 address of an interface. */
typedef struct Net_Ipv6_Addr {
  struct Net_Ipv6_Addr *next; /**< next address, or null */
  unsigned short prefix;      /**< prefix length, 0 to 128 */
  char address[46];           /**< address as text, without scope */
} Net_Ipv6_Addr;

/** One network interface. */
typedef struct Net_Interface {
  struct Net_Interface *next; /**< next interface, or null */
  unsigned int flags;         /**< IFF_UP (1) and so on */
  unsigned short index;       /**< place in the kernel's list, from 0 (not its interface index) */
  unsigned short prefix;      /**< IPv4 prefix length; 0: no IPv4 address */
  char mac[18];               /**< hardware address, "00:1B:21:3C:4D:5E" */
  char name[16];              /**< for example "eth0" */
  char ipv4[16];              /**< IPv4 address as text; empty: none */
  Net_Ipv6_Addr *ipv6;        /**< the IPv6 addresses, or null */
} Net_Interface;

/**
 * Lists the interfaces that have an IPv4 address (the kernel's SIOCGIFCONF list), at most 18, with their addresses. An
 * interface with several IPv4 addresses under one name is listed once for each, every time with the last one.
 *
 * @param list   receives the list (Free_Network_Interface)
 * @param count  receives the number of records
 * @return 0, -EINVAL, -errno when the addresses or the list cannot be read. Trouble with one interface is logged; one
 *         without a readable hardware address ends the list there.
 */
TARN_API int Scan_Network_Interface(Net_Interface **list, int *count);

/** Frees a list and the addresses in it; null is ignored. */
TARN_API void Free_Network_Interface(Net_Interface *list);

/* ------------------------------------------------------------------------------------------------------------------
 * Member records
 *
 * One record for each member of the cluster (the master and its slaves), one section for each record in a service file,
 * named by the member. A field other than next and fields counts only when its bit is set in fields: readers set the
 * bit of every key found, writers touch only keys whose bits are set.
 *
 *     Tarn_Serv_Conf change;
 *     Tarn_Cluster_Serv_Conf_Preset(&change);
 *     change.Status = 1;
 *     change.fields = TARN_SERV_STATUS;
 *     Tarn_Cluster_Service_Set(path, "QN2a1b3c", &change);
 * --------------------------------------------------------------------------------------------------------------- */

#define TARN_SERV_NAME 0x1u
#define TARN_SERV_TYPE 0x2u
#define TARN_SERV_ID 0x4u
#define TARN_SERV_PID 0x8u
#define TARN_SERV_SID 0x10u
#define TARN_SERV_USR_CNT 0x20u
#define TARN_SERV_STATUS 0x40u
#define TARN_SERV_ADDRESS 0x80u
#define TARN_SERV_HOST_NAME 0x100u
#define TARN_SERV_MODEL 0x200u
#define TARN_SERV_FIRMWARE 0x400u
#define TARN_SERV_WEB_PORT 0x800u
#define TARN_SERV_QUOTA 0x1000u
#define TARN_SERV_SSL_WEB_PORT 0x2000u
#define TARN_SERV_LEAVE_TIME 0x4000u
#define TARN_SERV_LAST_BACKUP 0x8000u
#define TARN_SERV_LAST_RESTORE 0x10000u
#define TARN_SERV_BACKUP_RESULT 0x20000u
#define TARN_SERV_RESTORE_RESULT 0x40000u
#define TARN_SERV_BACKUP_PROGRESS 0x80000u
#define TARN_SERV_RESTORE_PROGRESS 0x100000u
#define TARN_SERV_RESTORE_PID 0x200000u
#define TARN_SERV_LAST_RESTORE_FILE 0x400000u
#define TARN_SERV_ALL 0x7FFFFFu /**< all of the above */

/** A member of the cluster. Each key of its section has the field's name; Name is the section's name. */
typedef struct Tarn_Serv_Conf {
  struct Tarn_Serv_Conf *next; /**< next record of a list, in file order, or null */
  unsigned int fields;         /**< mask of TARN_SERV_ bits: which fields below are set */
  int Type;                    /**< member type (0x2) */
  int ID;                      /**< member number (0x4) */
  int Status;                  /**< member status; not 0: running (0x40) */
  int WebPort;                 /**< TCP port of the web interface (0x800) */
  int SslWebPort;              /**< TCP port of the secure web interface (0x2000) */
  int PID;                     /**< a process id on the member (0x8) */
  int RestorePID;              /**< process id of a running restore (0x200000) */
  int UsrCnt;                  /**< number of users (0x20) */
  int64_t Quota;               /**< quota, in the caller's unit (0x1000) */
  int BackupProgress;          /**< progress of the running backup (0x80000) */
  int RestoreProgress;         /**< progress of the running restore (0x100000) */
  int BackupResult;            /**< result of the last backup (0x20000) */
  int RestoreResult;           /**< result of the last restore (0x40000) */
  int64_t LastBackup;          /**< time of the last backup (0x8000) */
  int64_t LastRestore;         /**< time of the last restore (0x10000) */
  int64_t LeaveTime;           /**< time at which the member left (0x4000) */
  char Address[64];            /**< network address (0x80) */
  char Name[9];                /**< section name; NOT terminated when it has 9 characters or more (0x1) */
  char SID[9];                 /**< SID text (0x10) */
  char HostName[15];           /**< host name (0x100) */
  char Model[32];              /**< model name (0x200) */
  char Firmware[32];           /**< firmware version; a list read lets a long one run on into the next field (0x400) */
  char LastRestoreFile[64];    /**< file of the last restore (0x400000) */
} Tarn_Serv_Conf;

/** Frees a list of records; null is ignored. */
TARN_API void Release_Serv_List_Conf(Tarn_Serv_Conf *list);

/** Zeroes a record; null is ignored. */
TARN_API void Tarn_Cluster_Serv_Conf_Preset(Tarn_Serv_Conf *rec);

/**
 * Makes a list of records from a chain of sections. A section's name goes into Name and sets its bit.
 *
 * @param out  receives the list (Release_Serv_List_Conf); on -ENOMEM the records made so far
 * @return 0; -EINVAL (also when the first section has no keys); -ENOMEM
 */
TARN_API int Tarn_Cluster_All_Serv_From_Sect_Node(const Sect_Node *sections, Tarn_Serv_Conf **out);

/**
 * Makes a chain of sections, one for each record.
 *
 * @param out  receives the chain (Free_Sect_Node); on failure the sections made so far
 * @return 0; -EINVAL (also for a record with an empty Name or a text that would break the file's format); -ENOMEM
 */
TARN_API int Tarn_Cluster_All_Serv_To_Sect_Node(const Tarn_Serv_Conf *list, Sect_Node **out);

/**
 * Sets the record's fields in an existing section; other keys stay. Bit 0x1 renames the section.
 *
 * @param section  a section made by the library (a rename needs its room of 127 bytes)
 * @return 0; -EINVAL (also for an empty new name or a text that would break the file's format); -ENOMEM
 */
TARN_API int Tarn_Cluster_Serv_To_Sect_Node(const Tarn_Serv_Conf *rec, Sect_Node *section);

/** Makes one record (free()) from one section; the bit of Name is not set. Returns 0, -EINVAL, -ENOMEM. */
TARN_API int Tarn_Service_From_Sect_Node(const Sect_Node *section, Tarn_Serv_Conf **out);

/**
 * Reads a service file. Takes no lock.
 *
 * @param out  receives the list (Release_Serv_List_Conf); untouched when the file has no sections
 * @return 0; -ENOENT; -EINVAL; -ENOMEM; other failures of Read_Conf_File
 */
TARN_API int Tarn_Cluster_Serv_Conf_Read(const char *path, Tarn_Serv_Conf **out);

/** Replaces a service file by the list. Takes the lock. Returns 0, -EINVAL, -ENOLCK, -ENOMEM, -errno. */
TARN_API int Tarn_Cluster_Serv_Conf_Write(const char *path, const Tarn_Serv_Conf *list);

/** The same for a caller that holds the lock. */
TARN_API int Tarn_Cluster_Serv_Conf_Write_NoLock(const char *path, const Tarn_Serv_Conf *list);

/**
 * Reads one member's record (free()). Takes no lock. The bit of Name is not set.
 *
 * @return 0; -ENOANO (no such member); -ENOENT (no file); -EINVAL; -ENOMEM; other failures of Read_Conf_File
 */
TARN_API int Tarn_Cluster_Service_Get(const char *path, const char *name, Tarn_Serv_Conf **out);

/**
 * Updates or adds a member or, with a null record, deletes it. Takes the lock. A record without any known bit does
 * nothing. A member that is added is named by the record's Name: keep it equal to the name given, and set a key, since
 * a file whose first section has no keys cannot be read as a list.
 *
 * @return 0; -ENOLCK; -ENOANO (nothing to delete); -EINVAL (also for an empty Name or a text that would break the
 *         file's format); -ENOMEM; -errno
 */
TARN_API int Tarn_Cluster_Service_Set(const char *path, const char *name, const Tarn_Serv_Conf *rec);

/** The same for a caller that holds the lock. */
TARN_API int Tarn_Cluster_Service_Set_NoLock(const char *path, const char *name, const Tarn_Serv_Conf *rec);

/* ------------------------------------------------------------------------------------------------------------------
 * Share records
 *
 * The shared folders of a member, in a file with one section for each, named by the share. Every function on files
 * takes the lock, those that read included.
 * --------------------------------------------------------------------------------------------------------------- */

#define TARN_SHARE_NAME 0x1u          /**< bit of Name: an update renames the section */
#define TARN_SHARE_READ_LIST 0x2u     /**< bit of read_list */
#define TARN_SHARE_WRITE_LIST 0x4u    /**< bit of write_list */
#define TARN_SHARE_INVALID_USERS 0x8u /**< bit of invalid_users */
#define TARN_SHARE_PATH 0x10u         /**< bit of path */
#define TARN_SHARE_ALL 0x1Fu          /**< every bit of fields */

/**
 * One shared folder. The three lists are heap texts of the record's own. A value of 4096 characters or more cannot be
 * read and counts as absent: reading and writing a whole file drops it, changing one share does not.
 */
typedef struct Tarn_Share_Conf {
  struct Tarn_Share_Conf *next; /**< next record in file order, or null */
  unsigned int fields;          /**< which fields are set: TARN_SHARE_... bits */
  char Name[65];                /**< section name; readers do not set its bit, and cut it at 64 characters */
  char path[4096];              /**< key "path": the folder */
  char *read_list;              /**< key "read list": users and groups that may read, or null */
  char *write_list;             /**< key "write list": users and groups that may write, or null */
  char *invalid_users;          /**< key "invalid users": users and groups without access, or null */
} Tarn_Share_Conf;

/** Frees a list of records with their texts, whatever their masks say; null is ignored. */
TARN_API void Release_Share_List_Conf(Tarn_Share_Conf *list);

/** Zeroes a record; null is ignored. */
TARN_API void Tarn_Cluster_Share_List_Preset(Tarn_Share_Conf *rec);

/**
 * Makes a list of records from a list of sections.
 *
 * @param out  receives the list (Release_Share_List_Conf); after -ENOMEM the records made so far
 * @return 0, -EINVAL (also when the first section has no keys), -ENOMEM
 */
TARN_API int Tarn_Cluster_All_Share_From_Sect_Node(const Sect_Node *sections, Tarn_Share_Conf **out);

/**
 * Makes a list of sections from a list of records, with the keys whose bits are set.
 *
 * @param out  receives the list (Free_Sect_Node); after a failure the sections made so far
 * @return 0, -EINVAL (also for a bit whose text is null, and a name or text that would not stay in its line), -ENOMEM
 */
TARN_API int Tarn_Cluster_All_Share_To_Sect_Node(const Tarn_Share_Conf *list, Sect_Node **out);

/** Sets the keys whose bits are set in a section; a bit whose text is null removes the key. 0, -EINVAL, -ENOMEM. */
TARN_API int Tarn_Cluster_Share_To_Sect_Node(const Tarn_Share_Conf *rec, Sect_Node *section);

/** Makes one record from one section (Release_Share_List_Conf). 0, -EINVAL, -ENOMEM. */
TARN_API int Tarn_Share_From_Sect_Node(const Sect_Node *section, Tarn_Share_Conf **out);

/** Reads a file. Takes the lock. A file without sections leaves out untouched. 0, -EINVAL, -ENOLCK, -errno. */
TARN_API int Tarn_Cluster_Share_Conf_Read(const char *path, Tarn_Share_Conf **out);

/** Replaces a file by a list of records. Takes the lock. 0, -EINVAL, -ENOLCK, -ENOMEM, -errno. */
TARN_API int Tarn_Cluster_Share_Conf_Write(const char *path, const Tarn_Share_Conf *list);

/** Reads one share (Release_Share_List_Conf). Takes the lock. 0, -EINVAL, -ENOLCK, -ENOANO, -errno. */
TARN_API int Tarn_Cluster_Share_Get(const char *path, const char *name, Tarn_Share_Conf **out);

/**
 * Changes, adds or (rec null) deletes one share. Takes the lock. A record without any known bit does nothing.
 *
 * @param name  the share to change; null is none: a record is then added under its own Name
 * @return 0; -EINVAL; -ENOLCK; -ENOANO when there is none to delete; -ENOMEM; -errno
 */
TARN_API int Tarn_Cluster_Share_Set(const char *path, const char *name, const Tarn_Share_Conf *rec);

/* ------------------------------------------------------------------------------------------------------------------
 * Backup settings
 *
 * One record in one section, "global", of a file of the caller's. Both file functions take the lock.
 * --------------------------------------------------------------------------------------------------------------- */

#define TARN_BACKUP_SCHEDULE 0x1u       /**< bit of Schedule */
#define TARN_BACKUP_STATUS 0x2u         /**< bit of Status */
#define TARN_BACKUP_LAST_BACKUP 0x4u    /**< bit of LastBackup */
#define TARN_BACKUP_LAST_RESTORE 0x8u   /**< bit of LastRestore */
#define TARN_BACKUP_SCHEDULE_TIME 0x20u /**< bit of ScheduleTime */
#define TARN_BACKUP_PID 0x40u           /**< bit of PID */
#define TARN_BACKUP_ADDRESS 0x80u       /**< bit of Address */
#define TARN_BACKUP_PASSWORD 0x100u     /**< bit of Password */
#define TARN_BACKUP_PATH 0x200u         /**< bit of BackupPath */
#define TARN_BACKUP_FILE 0x400u         /**< bit of BackupFile */
#define TARN_BACKUP_RESTORE_PATH 0x800u /**< bit of RestorePath */
#define TARN_BACKUP_ALL 0xFEFu          /**< every bit of fields; 0x10 is none */

/**
 * The settings of the scheduled backup. Every text is read with a limit of 4096 bytes: a longer value than its field
 * runs on into the fields behind it, which are read later. Whoever shows a text bounds it by its field.
 */
typedef struct Tarn_Backup_Conf {
  unsigned int fields;    /**< which fields are set: TARN_BACKUP_... bits */
  int Schedule;           /**< kind of schedule */
  int Status;             /**< state of the backup */
  int PID;                /**< process of the running backup; -1: none */
  int64_t LastBackup;     /**< seconds since the epoch */
  int64_t LastRestore;    /**< seconds since the epoch */
  char ScheduleTime[64];  /**< time of the schedule, as its programs write it */
  char Address[64];       /**< target */
  char Password[65];      /**< password for the target */
  char BackupPath[4096];  /**< folder */
  char BackupFile[255];   /**< name of the file */
  char RestorePath[4096]; /**< source of a restore */
} Tarn_Backup_Conf;

/** Zeroes a record and sets PID to -1; null is ignored. */
TARN_API void Tarn_Backup_Conf_Preset(Tarn_Backup_Conf *rec);

/** Presets a record and reads the keys of a section. Returns 0, or -EINVAL (also for a section without keys). */
TARN_API int Tarn_Backup_Conf_From_Sect_Node(const Sect_Node *section, Tarn_Backup_Conf *rec);

/**
 * Adds the keys whose bits are set at the end of the first section; keys that are there are not replaced.
 *
 * @param sections  holder of a list with a section in it
 * @return 0; -EINVAL (also for a text that would not stay in its line); -ENOMEM
 */
TARN_API int Tarn_Backup_Conf_To_Sect_Node(const Tarn_Backup_Conf *rec, Sect_Node **sections);

/**
 * Reads the first section of a file, whatever its name. Takes the lock. A file without sections presets the record.
 *
 * @return 0; -EINVAL; -ENOLCK; -ENOENT and other -errno (the record untouched)
 */
TARN_API int Tarn_Backup_Conf_Read(const char *path, Tarn_Backup_Conf *rec);

/**
 * Replaces a file by one section with the keys whose bits are set; keys without are gone. Takes the lock. A record
 * without any known bit does nothing. Returns 0, -EINVAL, -ENOLCK, -ENOMEM, -errno.
 */
TARN_API int Tarn_Backup_Conf_Write(const char *path, const Tarn_Backup_Conf *rec);

/* ------------------------------------------------------------------------------------------------------------------
 * Background tasks
 *
 * One section for each task, named by its id; a member's backup is MEMBER_b, its restore MEMBER_r. Every function on
 * files takes the lock, those that read included.
 * --------------------------------------------------------------------------------------------------------------- */

#define TARN_TASK_PROGRESS 0x1u  /**< bit of progress */
#define TARN_TASK_STATUS 0x2u    /**< bit of status */
#define TARN_TASK_SLAVE_ID 0x4u  /**< bit of slave_id */
#define TARN_TASK_TYPE_NAME 0x8u /**< bit of type_name */
#define TARN_TASK_ID 0x10u       /**< bit of task_id */
#define TARN_TASK_NAME 0x20u     /**< bit of task_name */

#define TARN_TASK_FINISHED 7 /**< status: finished */
#define TARN_TASK_FAILED 8   /**< status: failed */

/** One background task. */
typedef struct Backgrnd_Task_Conf {
  struct Backgrnd_Task_Conf *next; /**< next record in file order, or null */
  unsigned int fields;             /**< which fields are set: TARN_TASK_... bits */
  double progress;                 /**< key "progress", as the task counts it */
  int status;                      /**< key "status" */
  char slave_id[9];                /**< key "slave_id": the member that it is about */
  char type_name[128];             /**< key "type_name" */
  char task_id[128];               /**< key "task_id", and the section's name */
  char task_name[128];             /**< key "task_name", for people */
} Backgrnd_Task_Conf;

/** Frees a list of records; null is ignored. */
TARN_API void Release_Backgrnd_Task_Conf(Backgrnd_Task_Conf *list);

/** Zeroes a record; null is ignored. */
TARN_API void Backgrnd_Task_Conf_Preset(Backgrnd_Task_Conf *rec);

/**
 * Makes a list of records from a list of sections. A section's name becomes the task_id unless the key says another,
 * and sets the bit of progress: every named task is written back with a progress.
 *
 * @param out  receives the list (Release_Backgrnd_Task_Conf); after -ENOMEM the records made so far
 * @return 0, -EINVAL (also when the first section has no keys), -ENOMEM
 */
TARN_API int Backgrnd_Task_All_Task_From_Sect_Node(const Sect_Node *sections, Backgrnd_Task_Conf **out);

/**
 * Makes a list of sections from a list of records. The progress of the FIRST record is written for every record;
 * callers depend on it. Change one task with Backgrnd_Task_Set.
 *
 * @param out  receives the list (Free_Sect_Node); after a failure the sections made so far
 * @return 0, -EINVAL, -ENOMEM
 */
TARN_API int Backgrnd_Task_All_Task_To_Sect_Node(const Backgrnd_Task_Conf *list, Sect_Node **out);

/** Sets the keys whose bits are set in a section, which keeps its name. Returns 0, -EINVAL, -ENOMEM. */
TARN_API int Backgrnd_Task_Task_To_Sect_Node(const Backgrnd_Task_Conf *rec, Sect_Node *section);

/** Makes one record (free()) from one section's keys; its name is not copied. Returns 0, -EINVAL, -ENOMEM. */
TARN_API int Backgrnd_Task_From_Sect_Node(const Sect_Node *section, Backgrnd_Task_Conf **out);

/** Reads a file. Takes the lock. A file without sections leaves out untouched. 0, -EINVAL, -ENOLCK, -errno. */
TARN_API int Backgrnd_Task_Conf_Read(const char *path, Backgrnd_Task_Conf **out);

/** Replaces a file by a list of records, see Backgrnd_Task_All_Task_To_Sect_Node. Takes the lock. */
TARN_API int Backgrnd_Task_Conf_Write(const char *path, const Backgrnd_Task_Conf *list);

/** Reads one task (free()). Takes the lock. 0, -EINVAL, -ENOLCK, -ENOANO, -errno. */
TARN_API int Backgrnd_Task_Get(const char *path, const char *name, Backgrnd_Task_Conf **out);

/** Changes, adds (under the record's task_id) or, with rec null, deletes one task. Takes the lock. */
TARN_API int Backgrnd_Task_Set(const char *path, const char *name, const Backgrnd_Task_Conf *rec);

/**
 * Sets the progress of a member's task in /tmp/druvosrv/tarn_backup.conf, when the task has one. Takes the lock twice,
 * for reading and for writing.
 *
 * @param name       the member, at most 127 characters
 * @param is_backup  0: its restore
 * @return 0, -EINVAL, -ENOANO, or as Backgrnd_Task_Get and _Set
 */
TARN_API int Set_Backgrnd_Task_Progress(const char *name, int is_backup, double progress);

/** Sets a task's final status, when it has one: failed for a negative result, finished for 0; above 0 none. */
TARN_API int Update_Backgrnd_Task_Status(const char *name, int is_backup, int result);

/**
 * Asks a member's web service to make or change a background task, by /sbin/curl without a shell; takes up to about 20
 * seconds. The whole command has at most 511 characters.
 *
 * @param host    name or address, without ";" and "`"
 * @param sid     session of the web service
 * @param extra   further query text, or null
 * @param status  receives the service's answer; untouched when there is none; may be null
 * @return always -1, also after success: look at status; -ENOENT when no process can be made
 */
TARN_API int backup_restore_set_remote_bg_task(const char *host, const char *sid, int port, int backup, int create_bg,
                                               int progress, const char *extra, int *status);

/* ------------------------------------------------------------------------------------------------------------------
 * Command transport
 *
 * A command is two JSON texts: the command object ("op_code", who it is for, and for op code 1 the handler's name in
 * "fname") and the argument object. The platform's cluster interface library carries them to the other side and brings
 * the reply back. Handlers are the exported functions whose names end in _Cb: the member's cluster service calls them
 * with the argument's text and sends back what they return, a heap string (free()) or null.
 *
 * The reply of a sender is set to null first, and is the caller's to free.
 * --------------------------------------------------------------------------------------------------------------- */

extern TARN_API int g_bAbort;           /**< the library's own abort flag, 0 */
extern TARN_API int *g_pbAbort;         /**< the abort flag in use; not 0 there stops every wait at its next check */
extern TARN_API int g_bSlaveOnMaster;   /**< the library's own slave-on-master flag, 0 */
extern TARN_API int *g_pbSlaveOnMaster; /**< the slave-on-master flag in use; not 0: this slave runs on the master */

/** Makes g_pbAbort point at the caller's flag, which may be set from another thread or a signal handler. */
TARN_API void Set_Abort(int *flag);

/** Makes g_pbSlaveOnMaster point at the caller's flag. */
TARN_API void Set_Slave_On_Master(int *flag);

/**
 * Sends a file to a member; waits up to one hour.
 *
 * @param mode              0: master to slave; 1: slave to master; 2: slave on the master's own appliance
 * @param id                the other member's id; the master's is "0"
 * @param source_path       the file here
 * @param destination_path  the file there
 * @param progress          name of a file that is kept at the percentage done; may be null
 * @param reply             receives the reply's text
 * @return 0; -EINVAL; -ENOMEM; the cluster interface's own code
 */
TARN_API int Tarn_Cluster_Send_File(int mode, const char *id, const char *source_path, const char *destination_path,
                                    const char *progress, char **reply);

/** Fetches a file from a member: source_path is there, destination_path here; otherwise as Tarn_Cluster_Send_File. */
TARN_API int Tarn_Cluster_Recv_File(int mode, const char *id, const char *source_path, const char *destination_path,
                                    const char *progress, char **reply);

/** Reads "cluster_cmd_status" of a reply. Returns 0, -EINVAL (also when it is missing), -ENOMEM (not JSON). */
TARN_API int Parse_Cluster_Cmd_Status(const char *reply, int *status);

/**
 * Finds a member's "result_path" in the arrays of a reply; the last match wins, and path is untouched without one.
 *
 * @param mode  0: members by "slave_id"; any other: by "master_id"
 * @param path  receives the path without backslashes (free() it, also after a failure: a match may have come first)
 * @return 0, -EINVAL, -ENOMEM (not JSON, too), -ENOENT (an element without id, or a match without path)
 */
TARN_API int Parse_Result_Path(const char *reply, int mode, const char *id, char **path);

/**
 * Waits, looking once a second, until a path exists or looking it up fails with anything but "no such file".
 *
 * @param timeout_s  seconds; 0 or less waits without limit
 * @return the abort flag's value when the path is there (0) or the flag is set on entry; -ETIME; -ENOENT when the flag
 *         is set during the wait; -EINVAL
 */
TARN_API int Polling_Result(const char *path, int timeout_s);

/** Waits for a result file and reads its first four bytes as a number; a shorter file is a failure (-EIO). */
TARN_API int Polling_Int_Result(const char *path, int *value);

/**
 * Adds an entry to the appliance's event log by running /sbin/log_tool.
 *
 * @param type    0, 1 or 2
 * @param user    the user that the entry is about
 * @param format  the message, below 1024 bytes when formatted
 * @return the tool's exit code; -EINVAL; -EOVERFLOW; -ENOMEM
 */
TARN_API int System_Log_Append(int type, const char *user, const char *format, ...) TARN_PRINTF(3, 4);

/* ------------------------------------------------------------------------------------------------------------------
 * Membership
 *
 * Senders only: the cluster's service carries these commands out.
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Adds an appliance to the cluster; on the master.
 *
 * @param address   of the appliance
 * @param port      of its service; 0 or less: 62695
 * @param user      of the appliance, who may administer it; null: "admin"
 * @param password  null sends none. It is not kept or logged by the library.
 * @param reply     receives the reply (free() it), or null
 * @return 0; -EINVAL; -ENOMEM; the cluster interface's own code
 */
TARN_API int Tarn_Cluster_Add_Slave(const char *address, int port, const char *user, const char *password,
                                    char **reply);

/**
 * Removes a slave from the cluster; on the master.
 *
 * @param slave_id  a slave of /mnt/tarncluster/config/tarn_service_s.conf
 * @param reply     receives the reply (free() it), or null
 * @return 0; -EINVAL; -ENOANO when there is no such slave (nothing is sent); the failure of reading the file; -ENOMEM;
 *         the cluster interface's own code
 */
TARN_API int Tarn_Cluster_Remove_Slave(const char *slave_id, char **reply);

/** Tells the master that this slave's network changed; on a slave. Results as Tarn_Cluster_Add_Slave. */
TARN_API int Tarn_Cluster_Update_Network_Info(const char *master_id, char **reply);

/* ------------------------------------------------------------------------------------------------------------------
 * Share lists
 *
 * Every member holds each member's share list in /mnt/tarncluster/config/share_list, in a file named by the member's
 * id. A share takes part in the cluster when its section of /etc/config/smb.conf has the key "tarn" with the value yes.
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Sends this slave's share list to the master, who passes it on to the other slaves.
 *
 * @param reply  receives the master's reply (free() it), or null
 * @return 0; -EINVAL; the failure of reading the own id or smb.conf (a missing smb.conf is an empty list); -ENOMEM; the
 *         cluster interface's own code
 */
TARN_API int Tarn_Cluster_Send_Share_List(const char *master_id, char **reply);

/**
 * Handler of a share list, on the master and on slaves. Stores it (an empty list empties the file), and on the master
 * passes it on to the running slaves. A share that lacks one of its five keys makes the whole list fail with -2.
 *
 * @return the reply with "return" (free() it): 0, or the last failure; null when the argument is no JSON
 */
TARN_API char *Tarn_Cluster_Send_Share_List_Cb(const char *argument);

/* ------------------------------------------------------------------------------------------------------------------
 * Slave information
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Sends this slave's description (host name, model, firmware, ports, quota, address) to the master.
 *
 * @param reply  receives the master's reply (free() it), or null
 * @return 0, also when the slave's own record holds nothing; -EINVAL; -ENOANO when the slave has no record; the failure
 *         of reading its files; -ENOMEM; the cluster interface's own code
 */
TARN_API int Tarn_Cluster_Send_Slave_Info(const char *master_id, char **reply);

/**
 * Handler of a slave's description, on the master. Updates the member's record in both files of members; the member is
 * deleted from them when "MSKey" is the text "NULL". A member that is not listed is never added. The quota is kept in
 * 32 bits.
 *
 * @return the reply with "return" (free() it); null when the argument is no JSON
 */
TARN_API char *Tarn_Cluster_Send_Slave_Info_Cb(const char *argument);

/* ------------------------------------------------------------------------------------------------------------------
 * Bind address
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Changes the address by which a member is reached; on the master. The address is one of the member's own interfaces',
 * written as inet_ntop does. A slave may call it with its own id, which does nothing.
 *
 * @param member_id  a slave, who stores the change itself; or the master's own id, which is stored here and told to the
 *                   running slaves
 * @param reply      receives the slave's reply, or {"result_list": [...]} (free() it); null when nothing was sent
 * @return 0; -EINVAL (also an address that the master does not have); -EBADRQC when this is no member or a slave with
 *         another id; the failure of reading or writing a file; -ENOMEM; the last failure of the cluster interface
 */
TARN_API int Tarn_Cluster_Update_Bind_Addr(const char *member_id, const char *address, char **reply);

/** Handler of a changed address, on slaves. Returns the reply with "return" (free() it), or null. */
TARN_API char *Tarn_Cluster_Update_Bind_Addr_Cb(const char *argument);

/* ------------------------------------------------------------------------------------------------------------------
 * Discovery
 * --------------------------------------------------------------------------------------------------------------- */

/** One appliance that announces the cluster service on the local network. Its texts are whatever it announced. */
typedef struct Tarn_Browse_Serv {
  struct Tarn_Browse_Serv *next; /**< next record, or null */
  int port;                      /**< of the service, for Tarn_Cluster_Add_Slave */
  int webport;                   /**< web port */
  int sslwebport;                /**< secure web port */
  int master;                    /**< not 0: it is a master */
  char address[64];              /**< address as text */
  char hostname[16];             /**< host name without its domain */
} Tarn_Browse_Serv;

/**
 * Lists the other appliances that announce themselves as "_tarncluster._tcp", by /usr/sbin/avahi-browse. Announcements
 * that lack a part, or have a port of 0, are left out.
 *
 * @param list  receives the list (Free_Browse_Serv), or null
 * @return the number of records; -EINVAL; -errno when the browser cannot be started; -ENOMEM, or the failure of reading
 *         this machine's own addresses: the records found are in the list all the same
 */
TARN_API int Tarn_Cluster_Browse_Slave(Tarn_Browse_Serv **list);

/** Frees a list; null is ignored. */
TARN_API void Free_Browse_Serv(Tarn_Browse_Serv *list);

/* ------------------------------------------------------------------------------------------------------------------
 * Cluster backup
 *
 * A slave packs its configuration in a process of its own, tells the master of its progress, and sends a result file.
 * Packing is the first half of the backup, so what is stored is half of what is reported.
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Asks a slave to back itself up; on the master.
 *
 * @param backup_path  the file to make, on the slave
 * @param reply        receives the reply (free() it), or null
 * @return 0; -EINVAL; -ENOMEM; the cluster interface's own code
 */
TARN_API int Tarn_Cluster_Backup(const char *slave_id, const char *backup_path, char **reply);

/**
 * Handler of a backup, on the slave. Starts the worker process and answers at once, with 0 also when it could not be
 * started. Returns the reply (free() it), or null.
 */
TARN_API char *Tarn_Cluster_Backup_Cb(const char *argument);

/** Tells the master how much is packed (0 to 100); on a slave. Results as Tarn_Cluster_Backup, and of the own id. */
TARN_API int Tarn_Cluster_Backup_Set_Pack_Prg(const char *master_id, int progress, char **reply);

/** Handler of that, on the master: stores half of it with the member and with its task. Returns the reply, or null. */
TARN_API char *Tarn_Cluster_Backup_Set_Pack_Prg_Cb(const char *argument);

/* ------------------------------------------------------------------------------------------------------------------
 * Test command
 * --------------------------------------------------------------------------------------------------------------- */

/**
 * Sends a text to a member, which echoes it.
 *
 * @param mode   as for Tarn_Cluster_Send_File
 * @param id     the other member's id
 * @param reply  receives {"return": 0, "received": text}
 * @return 0; -EINVAL; the failure of reading the own id; -ENOMEM; the cluster interface's own code
 */
TARN_API int Tarn_Cluster_Test(int mode, const char *id, const char *text, char **reply);

/** Handler of the test command. Returns the reply, or null for an argument without "Test". */
TARN_API char *Tarn_Cluster_Test_Cb(const char *argument);

/* ------------------------------------------------------------------------------------------------------------------
 * The platform
 *
 * Provided to the library, not by it: the loader binds the library's calls to the program's own functions of these
 * names where it defines them, else to the platform's libraries.
 * --------------------------------------------------------------------------------------------------------------- */

/** Sends a command from the master to the slave named by "slave_id". Returns 0 and a heap reply, or an error code. */
int Cluster_Master_Cmd(const char *command, const char *argument, char **reply);

/** Sends a command from a slave to the master. */
int Cluster_Slave_Cmd(const char *command, const char *argument, char **reply);

/** As Cluster_Master_Cmd, bounded by a time-out in milliseconds. */
int Cluster_Master_Cmd_Ex(const char *command, const char *argument, int timeout_ms, char **reply);

/** As Cluster_Slave_Cmd, bounded by a time-out in milliseconds. */
int Cluster_Slave_Cmd_Ex(const char *command, const char *argument, int timeout_ms, char **reply);

/** Changes the membership on the master (op codes 2 and 3). */
int Cluster_Master_Ctrl_Cmd(const char *command, const char *argument, char **reply);

/** Runs a program with the arguments that follow, ended by a null pointer; returns its wait status. */
int pelk_exec(int zero1, int zero2, int zero3, const char *program, ...);

/** Writes the appliance's model name; returns 0 when there is one. */
int Get_Display_Model_Name(char *buffer, int size);

/** Posts a notice on the appliance. */
int SendNoticeToLogEngine(int n1, int n2, int n3, const char *s4, int n5, const char *s6, int n7, int n8, int n9,
                          const char *s10, const char *s11, const char *s12, const char *s13, int n14, int n15,
                          const char *message);

#ifdef __cplusplus
#ifdef __clang__
#pragma clang diagnostic pop
#endif
}
#endif

#endif
