/* Sends back the lines of one client, over a local-domain socket or TCP, or is that client:
 *
 *     socket_echo serve PATH|PORT
 *     socket_echo send PATH|PORT TEXT
 *
 * A PATH begins with "/". */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tarncluster_util.h"

enum { patience_ms = 30000 };

static int listen_at(const char *where, int *fd) {
  if (where[0] == '/') return Domain_Socket_Listen(where, fd, 0);
  int fds[2]; /* room for the socket, and for the -1 behind it */
  const int status = TCP_Socket_Listen("127.0.0.1", atoi(where), 1, fds, 1);
  *fd = fds[0];
  return status;
}

static int connect_to(const char *where, int *fd) {
  if (where[0] == '/') return Domain_Socket_Connect(where, fd, patience_ms);
  return TCP_Socket_Connect(NULL, "127.0.0.1", atoi(where), patience_ms, fd);
}

static int serve(int listener) {
  char buffer[4096];
  ssize_t count;
  const int fd = accept(listener, NULL, NULL);
  if (fd < 0) return -1;
  while (Is_Socket_Ready_To_Recv(fd, patience_ms) == 1 && (count = recv(fd, buffer, sizeof buffer, 0)) > 0) {
    if (Exactly_Send(fd, buffer, (size_t)count, MSG_NOSIGNAL) != count) break;
  }
  close(fd);
  return 0;
}

static int send_and_print(int fd, const char *text) {
  const int length = (int)strlen(text);
  char *answer = calloc(1, (size_t)length + 1);
  if (answer == NULL) return -1;
  int status = Exactly_Send(fd, text, (size_t)length, MSG_NOSIGNAL);
  if (status == length) status = Exactly_Recv(fd, answer, length, patience_ms);
  if (status == length) puts(answer);
  free(answer);
  return status == length ? 0 : status;
}

int main(int argc, char **argv) {
  const int serves = argc == 3 && strcmp(argv[1], "serve") == 0;
  if (!serves && (argc != 4 || strcmp(argv[1], "send") != 0)) {
    fprintf(stderr, "usage: %s serve PATH|PORT\n       %s send PATH|PORT TEXT\n", argv[0], argv[0]);
    return 2;
  }
  int fd = -1;
  int status = serves ? listen_at(argv[2], &fd) : connect_to(argv[2], &fd);
  if (status == 0 && serves) {
    puts("listening");
    fflush(stdout);
    status = serve(fd);
  } else if (status == 0) {
    status = send_and_print(fd, argv[3]);
  }
  if (status != 0) fprintf(stderr, "%s %s: %d\n", argv[1], argv[2], status);
  if (fd >= 0) close(fd);
  return status == 0 ? 0 : 1;
}
