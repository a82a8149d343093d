/* Sends the lines of its input over TLS and prints what comes back:
 *
 *     tls_echo_client HOST PORT CERTIFICATE AUTHORITIES
 *
 * CERTIFICATE is a PEM file with a certificate and its key, AUTHORITIES one with that of the server. Speaks with
 * tls_echo_server, and with any other server that answers each line with as many bytes. */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tarncluster_util.h"

enum { patience_ms = 30000 };

/* Long lines go in pieces, so that neither side waits for room while the other one waits, too. */
static int exchange_lines(Tls_Session *session) {
  char line[4096];
  while (fgets(line, sizeof line, stdin) != NULL) {
    const int length = (int)strlen(line);
    int status = Exactly_SSL_Send(session, line, (size_t)length, 0);
    if (status == length) status = Exactly_SSL_Recv(session, line, length, patience_ms);
    if (status != length) return status;
    fwrite(line, 1, (size_t)length, stdout);
    fflush(stdout);
  }
  return 0;
}

int main(int argc, char **argv) {
  if (argc != 5) {
    fprintf(stderr, "usage: %s HOST PORT CERTIFICATE AUTHORITIES\n", argv[0]);
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  Tls_Session session;
  int status = SSL_Socket_Connect(argv[1], atoi(argv[2]), patience_ms, argv[3], "", argv[4], &session);
  if (status != 0) {
    fprintf(stderr, "no session with %s: %d\n", argv[1], status);
    return 1;
  }
  /* Here a program that must know whom it talks to looks at SSL_get_verify_result(session.ssl) and at the name in the
   * server's certificate. */
  status = exchange_lines(&session);
  if (status != 0) fprintf(stderr, "the exchange failed: %d\n", status);
  SSL_Socket_Destroy(&session, 0);
  return status == 0 ? 0 : 1;
}
