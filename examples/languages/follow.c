/* Prints a server's notifications, and connects again a second after each loss.
 *
 *     follow NAME
 */
#include "tovik.h"

#include <stdio.h>

int main(int argc, char **argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: follow NAME\n");
    return 2;
  }
  for (;; sleep(1)) {
    struct tovik client;
    int done = tovik_connect(&client, argv[1], -1);
    if (done == 0) {
      done = tovik_subscribe(&client, 10000);
    }
    while (done >= 0 && (done = tovik_receive(&client, -1)) > 0) {
      printf("%s\n", client.record);
      fflush(stdout);
    }
    tovik_close(&client);
    fprintf(stderr, "follow: %s\n", strerror(-done));
    if (done == -EINVAL) { /* the name is too long, and stays so */
      return 2;
    }
  }
}
