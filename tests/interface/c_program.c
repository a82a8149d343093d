/* A C program of the kind that the library is for: every family that it touches works from C, through the shared
 * library alone. Ends with 0, or says which check failed. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "check.h"
#include "tarncluster_util.h"

static const char *const log_path = "/var/log/c_program/c_program.log";
static const char *const conf_path = "/etc/config/c_program.conf";

static void check_log(void) {
  Simp_Log *log = NULL;
  CHECK(Simp_Log_Create(log_path, &log, 24, 3, 1) == 0);
  CHECK(Simp_Log_Open(log, 0) == 0);
  g_ptslLog = log;
  CHECK(Simp_Log_Write(g_ptslLog, "[error] %s(%d): %s", "main", 7, "something") == 0);
  /* The library itself reports to the handle that the program has put in place. */
  Sect_Node *sections = NULL;
  g_idLogLevel = 3;
  CHECK(Read_Conf_File("/etc/config", &sections) == -ENOMEDIUM);
  g_ptslLog = NULL;
  g_idLogLevel = 1;
  Simp_Log_Release(log);

  char *text = NULL;
  CHECK(Cache_Conf_File(log_path, &text) > 0);
  CHECK(strstr(text, "] [error] main(7): something\n") != NULL);
  CHECK(strstr(text, "[debug] Cache_Conf_File(") != NULL);
  free(text);
}

static void check_conf(void) {
  char value[16];
  int size = sizeof value;
  int32_t number = 0;
  CHECK(Set_Conf_File_String_Value(conf_path, "global", "MSKey", "QN2a1b3c") == 0);
  CHECK(Set_Conf_File_Integer_Value(conf_path, "global", "Port", -42) == 0);
  CHECK(Get_Conf_File_String_Value(conf_path, "global", "MSKey", value, &size) == 0);
  CHECK(strcmp(value, "QN2a1b3c") == 0 && size == 8);
  CHECK(Get_Conf_File_Int32_Value(conf_path, "global", "Port", &number) == 0 && number == -42);

  Sect_Node *sections = NULL;
  const char *text = NULL;
  CHECK(Read_Conf_File(conf_path, &sections) == 1);
  CHECK(strcmp(sections->name, "global") == 0 && strcmp(sections->pairs->key, "MSKey") == 0);
  CHECK(Get_Conf_String_Pointer(sections, "global", "Port", &text) == 0 && strcmp(text, "-42") == 0);
  Free_Sect_Node(sections);
}

static void check_lock(void) {
  CHECK(Get_File_Lock(conf_path, 1000) == 1);
  CHECK(access("/var/lock/_c_program.conf.lck", F_OK) == 0);
  CHECK(Get_File_Lock(conf_path, 0) == 0);
  CHECK(Release_File_Lock(conf_path) == 1);
  CHECK(access("/var/lock/_c_program.conf.lck", F_OK) != 0);
}

static void check_records(void) {
  Tarn_Serv_Conf record;
  Tarn_Serv_Conf *found = NULL;
  Tarn_Cluster_Serv_Conf_Preset(&record);
  strcpy(record.Name, "slave1");
  strcpy(record.Address, "10.0.0.1");
  record.Quota = INT64_C(1) << 40;
  record.fields = TARN_SERV_NAME | TARN_SERV_ADDRESS | TARN_SERV_QUOTA;
  CHECK(Tarn_Cluster_Service_Set(conf_path, "slave1", &record) == 0);
  CHECK(Tarn_Cluster_Service_Get(conf_path, "slave1", &found) == 0);
  CHECK(strcmp(found->Address, "10.0.0.1") == 0 && found->Quota == INT64_C(1) << 40);
  CHECK(found->fields == (TARN_SERV_ADDRESS | TARN_SERV_QUOTA));
  Release_Serv_List_Conf(found);
}

static void check_time_and_processes(void) {
  const uint64_t start = Rough_Tick();
  char date[11];
  CHECK(start / 1000 >= 1700000000u);
  Sleep_MSec(20);
  CHECK(Rough_Tick_Diff(start) >= 15);
  CHECK(Change_Date_To_String_By_Format_Ex(86400, date, sizeof date, 3) == 0 && strncmp(date, "1970-01-0", 9) == 0);
  CHECK(Is_Process_Existed((int)getpid()) == 1);
}

static void check_handler(void) {
  char *reply = Tarn_Cluster_Test_Cb("{\"slave_id\": \"QN2a1b3c\", \"Test\": \"hello\"}");
  CHECK(reply != NULL && strstr(reply, "hello") != NULL);
  free(reply);
}

int main(void) {
  check_log();
  check_conf();
  check_lock();
  check_records();
  check_time_and_processes();
  check_handler();
  return 0;
}
