/* A server in C: prints each message of this user's clients, and answers it with status 0. It makes
 * no notifications, so the switch for them is a message like any other.
 *
 *     serve NAME
 */
#define _GNU_SOURCE
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

enum { CLIENTS = 100 };

static int is_admitted(int client) {
  struct ucred peer; /* as the kernel noted it when the client connected */
  socklen_t size = sizeof peer;
  return getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == geteuid();
}

/* Answers one record; 0 at the client's end. A client that does not read its answers is left. */
static int serve(int client) {
  static const char reply[] = "{\"type\":\"reply\",\"status\":0}";
  char record[4096];
  const ssize_t length = recv(client, record, sizeof record, 0);
  if (length <= 0) {
    return 0;
  }
  printf("%.*s\n", (int)length, record);
  fflush(stdout);
  return send(client, reply, sizeof reply - 1, MSG_NOSIGNAL | MSG_DONTWAIT) > 0;
}

int main(int argc, char **argv) {
  struct sockaddr_un address = {.sun_family = AF_UNIX}; /* a NUL, the name, zeros to the end */
  struct pollfd fds[1 + CLIENTS] = {{.events = POLLIN}};
  if (argc != 2 || strlen(argv[1]) > 106) {
    fprintf(stderr, "usage: serve NAME\n");
    return 2;
  }
  memcpy(address.sun_path + 1, argv[1], strlen(argv[1]));
  fds[0].fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (bind(fds[0].fd, (const struct sockaddr *)&address, sizeof address) < 0 ||
      listen(fds[0].fd, 5) < 0) {
    perror("serve: cannot listen");
    return 1;
  }
  for (nfds_t count = 1;;) {
    /* While there is no room, more clients wait in the backlog. */
    fds[0].events = count <= CLIENTS ? POLLIN : 0;
    poll(fds, count, -1);
    for (nfds_t at = count - 1; at > 0; --at) {
      if (fds[at].revents != 0 && !serve(fds[at].fd)) {
        close(fds[at].fd);
        fds[at] = fds[--count];
      }
    }
    if (fds[0].revents != 0) {
      const int client = accept4(fds[0].fd, NULL, NULL, SOCK_CLOEXEC);
      if (client >= 0 && is_admitted(client)) {
        fds[count++] = (struct pollfd){.fd = client, .events = POLLIN};
      } else if (client >= 0) {
        close(client);
      }
    }
  }
}
