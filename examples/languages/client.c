/* A client in C: sends one message, prints the answer.
 *
 *     client NAME '{"command":"interval","seconds":2}' [MILLISECONDS]
 */
#include "tovik.h"

#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv) {
  if (argc != 3 && argc != 4) {
    fprintf(stderr, "usage: client NAME MESSAGE [MILLISECONDS]\n");
    return 2;
  }
  const int limit = argc == 4 ? atoi(argv[3]) : 10000;
  struct tovik client;
  int status = tovik_connect(&client, argv[1], limit);
  if (status == 0) {
    status = tovik_call(&client, argv[2], limit);
  }
  tovik_close(&client);
  if (status < 0) {
    fprintf(stderr, "client: no answer: %s\n", strerror(-status));
    return 1;
  }
  printf("%s\n", client.record);
  return 0;
}
