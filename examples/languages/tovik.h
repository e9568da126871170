/* A client of Tovik servers for C99 and later, in this file alone. It allocates nothing. Include it
 * first: it asks for the POSIX of 2008. docs/wire.md has what goes over the wire.
 *
 *     struct tovik client;
 *     int status = tovik_connect(&client, "adder", 1000);
 *     if (status == 0) {
 *       status = tovik_call(&client, "{\"add\":5}", 1000);
 *     }
 *     tovik_close(&client);
 *
 * Limits are in milliseconds; -1 waits for ever. A function that fails returns a negative errno.
 * -EINVAL and -EMSGSIZE are for what is not sent at all; everything else closes the connection, as
 * an answer that comes late would be taken for the next one's. One thread at a time.
 */
#ifndef TOVIK_H
#define TOVIK_H

#ifndef _POSIX_C_SOURCE
#define _POSIX_C_SOURCE 200809L
#endif

#include <errno.h>
#include <poll.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

enum { TOVIK_LONGEST_NAME = 106, TOVIK_LONGEST_RECORD = 4094 };

struct tovik {
  int fd; /* -1 while there is no connection */
  int subscribed;
  char record[TOVIK_LONGEST_RECORD + 2]; /* the last one received; ends with a NUL */
};

/* Closes the connection. Harmless on a closed one. Read the last reply before: if any is unread,
 * the records that the server has not read are lost. */
static inline void tovik_close(struct tovik* client) {
  if (client->fd >= 0) {
    close(client->fd);
  }
  client->fd = -1;
}

static inline int tovik_fail(struct tovik* client, int error) {
  tovik_close(client);
  return -error;
}

static inline long long tovik_now(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

static inline long long tovik_deadline(int limit) {
  return limit < 0 ? -1 : tovik_now() + limit;
}

/* What is left, for the next limit or for poll. */
static inline int tovik_left(long long deadline) {
  const long long left = deadline < 0 ? -1 : deadline - tovik_now();
  return deadline >= 0 && left < 0 ? 0 : (int)left;
}

static inline int tovik_wait(const struct tovik* client, short events, long long deadline) {
  struct pollfd waiting = {client->fd, events, 0};
  for (;;) {
    const int ready = poll(&waiting, 1, tovik_left(deadline));
    if (ready > 0) {
      return 0;
    }
    if (ready == 0) {
      return ETIMEDOUT;
    }
    if (errno != EINTR) {
      return errno;
    }
  }
}

/* Connects; 0 once it has. The address is a NUL, the name, and zeros to the end. */
static inline int tovik_connect(struct tovik* client, const char* name, int limit) {
  const long long deadline = tovik_deadline(limit);
  struct sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  client->fd = -1;
  client->subscribed = 0;
  client->record[0] = '\0';
  if (strlen(name) > TOVIK_LONGEST_NAME) {
    return -EINVAL;
  }
  memcpy(address.sun_path + 1, name, strlen(name));
  client->fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (client->fd < 0) {
    return -errno;
  }
  while (connect(client->fd, (const struct sockaddr*)&address, sizeof address) < 0) {
    if (errno != EAGAIN) {
      return tovik_fail(client, errno);
    }
    if (tovik_left(deadline) == 0) { /* the server's backlog is full */
      return tovik_fail(client, ETIMEDOUT);
    }
    poll(NULL, 0, 5); /* nothing reports when there is room */
  }
  return 0;
}

/* Sends a message, the compact text of a JSON object, and waits for no reply; 0 once it is sent. */
static inline int tovik_send(struct tovik* client, const char* message, int limit) {
  const long long deadline = tovik_deadline(limit);
  const size_t length = strlen(message);
  int error = 0;
  if (length == 0) { /* an empty record would read as the end */
    return -EINVAL;
  }
  if (length > TOVIK_LONGEST_RECORD) {
    return -EMSGSIZE;
  }
  while (send(client->fd, message, length, MSG_NOSIGNAL) < 0) {
    error = errno;
    if (error == EAGAIN) {
      error = tovik_wait(client, POLLOUT, deadline);
    }
    if (error != 0 && error != EINTR) {
      return tovik_fail(client, error);
    }
  }
  return 0;
}

/* Waits for the next message, which `client->record` has then; its length. */
static inline int tovik_receive(struct tovik* client, int limit) {
  const long long deadline = tovik_deadline(limit);
  for (;;) {
    const ssize_t length = recv(client->fd, client->record, sizeof client->record - 1, 0);
    int error = length < 0 ? errno : 0;
    if (length > TOVIK_LONGEST_RECORD) {
      return tovik_fail(client, EPROTO);
    }
    if (length > 0) {
      client->record[length] = '\0';
      return (int)length;
    }
    if (length == 0) { /* the server has closed the connection */
      return tovik_fail(client, ECONNRESET);
    }
    if (error == EAGAIN) {
      error = tovik_wait(client, POLLIN, deadline);
    }
    /* A server that closed with records unread resets first; what it has sent follows. */
    if (error != 0 && error != EINTR && error != ECONNRESET) {
      return tovik_fail(client, error);
    }
  }
}

/* The end of a value, or of a name, that begins here. */
static inline const char* tovik_skip(const char* at) {
  int depth = 0;
  int quoted = 0;
  for (; *at != '\0'; ++at) {
    if (quoted && *at == '\\' && at[1] != '\0') {
      ++at;
    } else if (quoted) {
      quoted = *at != '"';
    } else if (depth == 0 && strchr(",:]}", *at) != NULL) {
      return at;
    } else {
      quoted = *at == '"';
      depth += (*at == '{' || *at == '[') - (*at == '}' || *at == ']');
    }
  }
  return at;
}

static inline const char* tovik_skip_space(const char* at) {
  return at + strspn(at, " \t\r\n");
}

/* Where the value of a message's first member of that name begins; NULL if there is none. The
 * server is trusted to have sent JSON, and to spell the names it shares with its clients without
 * escapes. */
static inline const char* tovik_member(const char* message, const char* name) {
  const size_t length = strlen(name);
  const char* at = tovik_skip_space(message);
  while (*at == '{' || *at == ',') {
    const char* const key = tovik_skip_space(at + 1);
    const char* const colon = tovik_skip(key);
    const char* const value = *colon == ':' ? tovik_skip_space(colon + 1) : NULL;
    if (value == NULL) {
      return NULL;
    }
    if (*key == '"' && strncmp(key + 1, name, length) == 0 && key[1 + length] == '"') {
      return value;
    }
    at = tovik_skip(value);
  }
  return NULL;
}

/* The status in a reply, 0 to 2147483647; -1 if the message is no reply. */
static inline int tovik_status(const char* message) {
  const char* const type = tovik_member(message, "type");
  const char* digit = tovik_member(message, "status");
  long long status = 0;
  if (type == NULL || strncmp(type, "\"reply\"", 7) != 0 || digit == NULL || *digit < '0' ||
      *digit > '9') {
    return -1;
  }
  for (; *digit >= '0' && *digit <= '9' && status <= 2147483647; ++digit) {
    status = 10 * status + (*digit - '0');
  }
  digit = tovik_skip_space(digit);
  return (*digit == ',' || *digit == '}') && status <= 2147483647 ? (int)status : -1;
}

/* Sends a message and waits for the reply; its status. The limit is for both. `client->record` has
 * the reply. A client that has subscribed gets none: use another one. */
static inline int tovik_call(struct tovik* client, const char* message, int limit) {
  const long long deadline = tovik_deadline(limit);
  int done = client->subscribed ? -EINVAL : tovik_send(client, message, limit);
  if (done == 0) {
    done = tovik_receive(client, tovik_left(deadline));
  }
  if (done < 0) {
    return done;
  }
  done = tovik_status(client->record);
  return done < 0 ? tovik_fail(client, EPROTO) : done;
}

/* Subscribes to the server's notifications, which `tovik_receive` waits for; 0 once it has. */
static inline int tovik_subscribe(struct tovik* client, int limit) {
  const int done = tovik_call(client, "{\"command\":\"set\",\"notification\":true}", limit);
  client->subscribed = client->subscribed || done == 0;
  return done;
}

#endif
