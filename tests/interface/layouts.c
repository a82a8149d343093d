/* The records' layouts, which programs compiled earlier rely on. Compiled as C and as C++. */
#include <assert.h>

#include "tarncluster_util.h"

#define HAS_LAYOUT(type, field, offset, size)                                  \
  static_assert(offsetof(type, field) == (offset), #type "." #field " moved"); \
  static_assert(sizeof(((type *)0)->field) == (size), #type "." #field " changed its size")
#define HAS_TEXT_AT(type, field, offset) static_assert(offsetof(type, field) == (offset), #type "." #field " moved")

HAS_LAYOUT(Simp_Log, stream, 0, 8);
HAS_LAYOUT(Simp_Log, hour_system, 8, 2);
HAS_LAYOUT(Simp_Log, date_format, 10, 2);
HAS_TEXT_AT(Simp_Log, path, 12);

HAS_LAYOUT(Pair_Node, next, 0, 8);
HAS_LAYOUT(Pair_Node, value, 8, 8);
HAS_TEXT_AT(Pair_Node, key, 16);

HAS_LAYOUT(Sect_Node, next, 0, 8);
HAS_LAYOUT(Sect_Node, pairs, 8, 8);
HAS_TEXT_AT(Sect_Node, name, 16);

HAS_LAYOUT(Tarn_Serv_Conf, next, 0, 8);
HAS_LAYOUT(Tarn_Serv_Conf, fields, 8, 4);
HAS_LAYOUT(Tarn_Serv_Conf, Type, 12, 4);
HAS_LAYOUT(Tarn_Serv_Conf, ID, 16, 4);
HAS_LAYOUT(Tarn_Serv_Conf, Status, 20, 4);
HAS_LAYOUT(Tarn_Serv_Conf, WebPort, 24, 4);
HAS_LAYOUT(Tarn_Serv_Conf, SslWebPort, 28, 4);
HAS_LAYOUT(Tarn_Serv_Conf, PID, 32, 4);
HAS_LAYOUT(Tarn_Serv_Conf, RestorePID, 36, 4);
HAS_LAYOUT(Tarn_Serv_Conf, UsrCnt, 40, 4);
HAS_LAYOUT(Tarn_Serv_Conf, Quota, 48, 8);
HAS_LAYOUT(Tarn_Serv_Conf, BackupProgress, 56, 4);
HAS_LAYOUT(Tarn_Serv_Conf, RestoreProgress, 60, 4);
HAS_LAYOUT(Tarn_Serv_Conf, BackupResult, 64, 4);
HAS_LAYOUT(Tarn_Serv_Conf, RestoreResult, 68, 4);
HAS_LAYOUT(Tarn_Serv_Conf, LastBackup, 72, 8);
HAS_LAYOUT(Tarn_Serv_Conf, LastRestore, 80, 8);
HAS_LAYOUT(Tarn_Serv_Conf, LeaveTime, 88, 8);
HAS_LAYOUT(Tarn_Serv_Conf, Address, 96, 64);
HAS_LAYOUT(Tarn_Serv_Conf, Name, 160, 9);
HAS_LAYOUT(Tarn_Serv_Conf, SID, 169, 9);
HAS_LAYOUT(Tarn_Serv_Conf, HostName, 178, 15);
HAS_LAYOUT(Tarn_Serv_Conf, Model, 193, 32);
HAS_LAYOUT(Tarn_Serv_Conf, Firmware, 225, 32);
HAS_LAYOUT(Tarn_Serv_Conf, LastRestoreFile, 257, 64);
static_assert(sizeof(Tarn_Serv_Conf) == 328, "Tarn_Serv_Conf changed its size");
static_assert(TARN_SERV_ALL == 0x7FFFFFu, "a mask bit was added or lost");
