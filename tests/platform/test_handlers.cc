// Handlers that misbehave, loaded by the cluster services of the tests beside the library's own.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {

// Answers with the argument as it came.
char *Plain_Echo_Cb(const char *argument) {
  return strdup(argument);
}

char *Crash_Cb(const char *) {
  signal(SIGSEGV, SIG_DFL);
  raise(SIGSEGV);
  return nullptr;
}

char *Exit_Cb(const char *) {
  _exit(0);
}

// Ends without an answer, but leaves a process behind that has the handler's descriptors; its id goes to the file that
// the argument names.
char *Exit_With_Worker_Cb(const char *path) {
  const pid_t child = fork();
  if (child == 0) {
    for (;;) pause();
  }
  FILE *file = fopen(path, "we");
  fprintf(file, "%d\n", child);
  fclose(file);
  _exit(0);
}

char *Nothing_Cb(const char *) {
  return nullptr;
}

// Writes its own id and that of a child of its into the file that the argument names, and never ends.
char *Hang_Cb(const char *path) {
  const pid_t child = fork();
  if (child != 0) {
    FILE *file = fopen(path, "we");
    fprintf(file, "%d %d\n", getpid(), child);
    fclose(file);
  }
  for (;;) pause();
}

// Leaves a process behind that works on, as a backup does, and creates the file that the argument names a while later.
char *Leave_Worker_Cb(const char *path) {
  if (fork() == 0) {
    sleep(1);
    close(open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    _exit(0);
  }
  return strdup("left");
}

// Answers with its process's id, and which of this process's commands it is.
char *Process_Cb(const char *) {
  static int commands = 0;
  char text[64];
  snprintf(text, sizeof(text), "%d %d", getpid(), ++commands);
  return strdup(text);
}

// Leaves a process behind whose own parent is gone, and answers with its process's id.
char *Leave_Orphan_Cb(const char *) {
  const pid_t child = fork();
  if (child == 0) {
    if (fork() != 0) _exit(0);
    sleep(30);
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  char text[32];
  snprintf(text, sizeof(text), "%d", getpid());
  return strdup(text);
}

// Answers with as many characters as the argument says.
char *Long_Answer_Cb(const char *argument) {
  const size_t length = strtoul(argument, nullptr, 10);
  char *text = static_cast<char *>(malloc(length + 1));
  memset(text, 'x', length);
  text[length] = '\0';
  return text;
}

// Counts its calls in the file that the argument names, one byte for each.
char *Count_Cb(const char *path) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  const ssize_t written = write(fd, "x", 1);
  close(fd);
  return strdup(written == 1 ? "counted" : "failed");
}

// Not a handler by its name.
char *Plain_Echo(const char *argument) {
  return strdup(argument);
}
}
