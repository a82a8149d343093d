/* A program that brings its own platform functions is served by those, not by the platform's libraries; and what it
 * sees of the library's global data is what the library sees, although it is not position independent and so holds the
 * data in copies of its own. Ends with 0, or says which check failed. */
#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "check.h"
#include "tarncluster_util.h"

enum { own_code = -4711 };

static char called[64];
static char received[1024];

static int remember(const char *function, const char *command, const char *argument, char **reply) {
  snprintf(called, sizeof called, "%s", function);
  snprintf(received, sizeof received, "%s%s", command, argument);
  *reply = strdup("{\"return\": 0}");
  return own_code;
}

int Cluster_Master_Cmd(const char *command, const char *argument, char **reply) {
  return remember(__func__, command, argument, reply);
}

int Cluster_Slave_Cmd(const char *command, const char *argument, char **reply) {
  return remember(__func__, command, argument, reply);
}

int Cluster_Master_Cmd_Ex(const char *command, const char *argument, int timeout_ms, char **reply) {
  CHECK(timeout_ms > 0);
  return remember(__func__, command, argument, reply);
}

int Cluster_Slave_Cmd_Ex(const char *command, const char *argument, int timeout_ms, char **reply) {
  CHECK(timeout_ms > 0);
  return remember(__func__, command, argument, reply);
}

int pelk_exec(int zero1, int zero2, int zero3, const char *program, ...) {
  va_list arguments;
  const char *argument;
  CHECK(zero1 == 0 && zero2 == 0 && zero3 == 0);
  snprintf(called, sizeof called, "%s", __func__);
  snprintf(received, sizeof received, "%s", program);
  va_start(arguments, program);
  while ((argument = va_arg(arguments, const char *)) != NULL) {
    strncat(received, "|", sizeof received - strlen(received) - 1);
    strncat(received, argument, sizeof received - strlen(received) - 1);
  }
  va_end(arguments);
  return 3 << 8;
}

static void check_commands(void) {
  static const struct {
    int mode;
    const char *plain, *bounded;
  } directions[] = {{0, "Cluster_Master_Cmd", "Cluster_Master_Cmd_Ex"},
                    {1, "Cluster_Slave_Cmd", "Cluster_Slave_Cmd_Ex"},
                    {2, "Cluster_Slave_Cmd", "Cluster_Slave_Cmd_Ex"}};
  size_t i;
  for (i = 0; i < sizeof directions / sizeof directions[0]; ++i) {
    char *reply = NULL;
    CHECK(Tarn_Cluster_Send_File(directions[i].mode, "QN2a1b3c", "/tmp/a", "/tmp/b", NULL, &reply) == own_code);
    CHECK(strcmp(called, directions[i].bounded) == 0);
    CHECK(strstr(received, "QN2a1b3c") != NULL);
    free(reply);
    reply = NULL;
    CHECK(Tarn_Cluster_Test(directions[i].mode, "QN2a1b3c", "echo this", &reply) == own_code);
    CHECK(strcmp(called, directions[i].plain) == 0);
    CHECK(strstr(received, "echo this") != NULL);
    free(reply);
  }
}

static void check_program_runner(void) {
  CHECK(System_Log_Append(1, "admin", "%d files", 7) == 3);
  CHECK(strcmp(called, "pelk_exec") == 0);
  CHECK(strcmp(received, "/sbin/log_tool|-a|7 files|-t|1|-u|admin") == 0);
}

static long file_length(const char *path) {
  FILE *stream = fopen(path, "r");
  long length;
  CHECK(stream != NULL && fseek(stream, 0, SEEK_END) == 0);
  length = ftell(stream);
  fclose(stream);
  return length;
}

static void check_global_log(void) {
  static const char *const path = "/tmp/own_platform.log";
  Simp_Log *log = NULL;
  long silent;
  CHECK(g_ptslLog == NULL && g_idLogLevel == 1);
  CHECK(Simp_Log_Create(path, &log, 24, 1, 1) == 0 && Simp_Log_Open(log, 0) == 0);
  g_ptslLog = log;
  g_idLogLevel = 0;
  CHECK(Tarn_Cluster_Test_Cb("{}") == NULL);
  silent = file_length(path);
  CHECK(silent == 0);
  g_idLogLevel = 1;
  CHECK(Tarn_Cluster_Test_Cb("{}") == NULL);
  CHECK(file_length(path) > silent);
  g_ptslLog = NULL;
  Simp_Log_Release(log);
}

static void check_global_flags(void) {
  int own_flag = 1;
  CHECK(g_pbAbort == &g_bAbort && g_bAbort == 0);
  CHECK(g_pbSlaveOnMaster == &g_bSlaveOnMaster && g_bSlaveOnMaster == 0);
  CHECK(Polling_Result("/etc/config", 1) == 0);
  g_bAbort = 5;
  CHECK(Polling_Result("/no/such/file", 1) == 5);
  g_bAbort = 0;
  Set_Abort(&own_flag);
  CHECK(g_pbAbort == &own_flag);
  CHECK(Polling_Result("/no/such/file", 1) == 1);
  Set_Slave_On_Master(&own_flag);
  CHECK(g_pbSlaveOnMaster == &own_flag);
}

int main(void) {
  CHECK(Set_Conf_File_String_Value("/mnt/tarncluster/config/tarn_cluster_s.conf", "global", "MSKey", "QN2a1b3c") == 0);
  check_commands();
  check_program_runner();
  check_global_log();
  check_global_flags();
  return 0;
}
