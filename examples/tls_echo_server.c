/* Sends back what comes, over TLS, to one client after the other:
 *
 *     tls_echo_server PORT CERTIFICATE AUTHORITIES [SESSIONS]
 *
 * CERTIFICATE is a PEM file with a certificate and its key, AUTHORITIES one with those of the clients. Ends after so
 * many sessions, else never. Speaks with tls_echo_client, and with "openssl s_client -connect HOST:PORT". */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "tarncluster_util.h"

enum { max_listeners = 2 }; /* one for each address family */

/* A client that stops in the middle must not keep the others waiting for ever. */
static void limit_silence(int fd) {
  const struct timeval time = {30, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

static void echo(Tls_Session *session) {
  char buffer[4096];
  int count;
  while ((count = SSL_Recv(session, buffer, sizeof buffer, 0)) > 0) {
    if (Exactly_SSL_Send(session, buffer, (size_t)count, 0) != count) return;
  }
}

static void serve(int fd, const char *certificate, const char *authorities) {
  Tls_Session session = {fd, NULL, NULL, NULL};
  limit_silence(fd);
  /* A record without a session is a plain socket: without a handshake nothing may be sent. */
  const int status = SSL_Accept_Socket(certificate, "", authorities, &session);
  if (status == 0) {
    echo(&session);
  } else {
    fprintf(stderr, "no session: %d\n", status);
  }
  SSL_Socket_Destroy(&session, 0);
}

static int wait_for_client(const int *listeners, int count) {
  int ready = -1;
  while (Is_Any_Socket_Ready(listeners, count, 60000, &ready, NULL) != 1) {
  }
  return accept(ready, NULL, NULL);
}

int main(int argc, char **argv) {
  if (argc < 4) {
    fprintf(stderr, "usage: %s PORT CERTIFICATE AUTHORITIES [SESSIONS]\n", argv[0]);
    return 2;
  }
  signal(SIGPIPE, SIG_IGN); /* a client that leaves is no reason to end */
  int listeners[max_listeners + 1], count = 0;
  const int status = TCP_Socket_Listen(NULL, atoi(argv[1]), 16, listeners, max_listeners);
  if (status != 0) {
    fprintf(stderr, "cannot listen on port %s: %d\n", argv[1], status);
    return 1;
  }
  while (listeners[count] != -1) ++count;
  puts("listening");
  fflush(stdout);

  const long sessions = argc > 4 ? atol(argv[4]) : -1;
  for (long done = 0; done != sessions; ++done) {
    const int fd = wait_for_client(listeners, count);
    if (fd >= 0) serve(fd, argv[2], argv[3]);
  }
  while (count > 0) close(listeners[--count]);
  return 0;
}
