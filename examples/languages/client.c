/* A client in C with nothing but the system's headers: sends one message, prints the answer.
 *
 *     client NAME '{"command":"interval","seconds":2}'
 */
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int argc, char **argv) {
  if (argc != 3 || strlen(argv[1]) > 106 || strlen(argv[2]) > 4094) {
    fprintf(stderr, "usage: client NAME MESSAGE\n");
    return 2;
  }
  /* A NUL, the name, and zeros to the end: the whole structure is the address. */
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  memcpy(address.sun_path + 1, argv[1], strlen(argv[1]));

  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0 || connect(fd, (const struct sockaddr *)&address, sizeof address) < 0) {
    perror("client: cannot connect");
    return 1;
  }
  char answer[4096];
  ssize_t length = -1;
  if (send(fd, argv[2], strlen(argv[2]), MSG_NOSIGNAL) >= 0) {
    length = recv(fd, answer, sizeof answer, 0);
  }
  close(fd);
  if (length <= 0) { /* 0 is the end of the connection, never a message */
    fprintf(stderr, "client: no answer\n");
    return 1;
  }
  printf("%.*s\n", (int)length, answer);
  return 0;
}
