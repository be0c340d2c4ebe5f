/* entry.cgi and auth.cgi as the web server runs them: a small static
 * program that hands the request (its standard input, output and error and
 * its environment) to the preloaded host, which serves it in a process forked
 * with the plug-in already loaded. Starting that process is most of what a
 * request costs otherwise. When no preloaded host is configured or reachable,
 * it runs the full host program, larkpost-cgi, in its own place: same answer,
 * only slower.
 *
 * Built twice, with LARKPOST_PROGRAM 'e' (entry.cgi) or 'a' (auth.cgi). */
#define _GNU_SOURCE
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "appliance/framework/preload_protocol.h"

#ifndef LARKPOST_PROGRAM
#error "LARKPOST_PROGRAM must be 'e' or 'a'"
#endif

extern char** environ;

static int WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t written = write(fd, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return -1;
    data += written;
    size -= (size_t)written;
  }
  return 0;
}

/* The environment as NUL-ended strings, one after the other. */
static char* PackEnvironment(size_t* size) {
  size_t total = 0;
  for (char** entry = environ; *entry != NULL; ++entry) total += strlen(*entry) + 1;
  char* block = malloc(total + 1);
  if (block == NULL) return NULL;
  char* out = block;
  for (char** entry = environ; *entry != NULL; ++entry) {
    size_t length = strlen(*entry) + 1;
    memcpy(out, *entry, length);
    out += length;
  }
  *size = total;
  return block;
}

static int Connect(const char* path) {
  struct sockaddr_un address;
  memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  if (strlen(path) >= sizeof(address.sun_path)) return -1;
  strcpy(address.sun_path, path);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (connect(fd, (struct sockaddr*)&address, sizeof(address)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

/* Sends the header with our three standard descriptors. */
static int SendHeader(int fd, const struct PreloadHeader* header) {
  int descriptors[3] = {0, 1, 2};
  union {
    char buffer[CMSG_SPACE(sizeof(descriptors))];
    struct cmsghdr align;
  } control;
  memset(&control, 0, sizeof(control));
  struct iovec data = {(void*)header, sizeof(*header)};
  struct msghdr message;
  memset(&message, 0, sizeof(message));
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.buffer;
  message.msg_controllen = sizeof(control.buffer);
  struct cmsghdr* item = CMSG_FIRSTHDR(&message);
  item->cmsg_level = SOL_SOCKET;
  item->cmsg_type = SCM_RIGHTS;
  item->cmsg_len = CMSG_LEN(sizeof(descriptors));
  memcpy(CMSG_DATA(item), descriptors, sizeof(descriptors));
  ssize_t sent;
  do {
    sent = sendmsg(fd, &message, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent == (ssize_t)sizeof(*header) ? 0 : -1;
}

/* Returns the served request's exit status, or -1 when the preloaded host
 * cannot be reached (nothing of the request was handed over then). */
static int Forward(const char* socket_path, const char* program_path) {
  int fd = Connect(socket_path);
  if (fd < 0) return -1;
  size_t environment_size = 0;
  char* environment = PackEnvironment(&environment_size);
  size_t name_size = strlen(program_path);
  if (environment == NULL || environment_size > LARKPOST_PRELOAD_MAX_ENVIRONMENT ||
      name_size > LARKPOST_PRELOAD_MAX_NAME) {
    free(environment);
    close(fd);
    return -1;
  }
  struct PreloadHeader header;
  memset(&header, 0, sizeof(header));
  memcpy(header.magic, LARKPOST_PRELOAD_MAGIC, sizeof(header.magic));
  header.program = LARKPOST_PROGRAM;
  header.environment_size = (unsigned int)environment_size;
  header.name_size = (unsigned int)name_size;
  if (SendHeader(fd, &header) != 0) {
    free(environment);
    close(fd);
    return -1;
  }
  /* From here on the host holds our descriptors: a failure can no longer
   * fall back to serving the request here. */
  int status = 1;
  if (WriteAll(fd, environment, environment_size) == 0 &&
      WriteAll(fd, program_path, name_size) == 0) {
    /* The answer is the served process's alone: the web server sees its end
     * as soon as that process exits, not when this one does. */
    close(0);
    close(1);
    int answer = 0;
    size_t got = 0;
    while (got < sizeof(answer)) {
      ssize_t n = read(fd, (char*)&answer + got, sizeof(answer) - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += (size_t)n;
    }
    if (got == sizeof(answer)) status = answer;
  }
  free(environment);
  close(fd);
  return status;
}

/* Runs larkpost-cgi from the folder that holds this program, keeping our own
 * name as argv[0] (it names the program in the system log). */
static void RunFullHost(char* self_name) {
  char self[PATH_MAX];
  ssize_t size = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (size <= 0) return;
  self[size] = '\0';
  char* slash = strrchr(self, '/');
  if (slash == NULL || (size_t)(slash - self) + sizeof("/larkpost-cgi") > sizeof(self)) return;
  strcpy(slash, "/larkpost-cgi");
  char* argv[] = {self_name, LARKPOST_PROGRAM == 'e' ? "entry" : "auth", NULL};
  execv(self, argv);
}

int main(int argc, char** argv) {
  (void)argc;
  char* self_name =
      argv[0] != NULL ? argv[0] : (LARKPOST_PROGRAM == 'e' ? "entry.cgi" : "auth.cgi");
  const char* socket_path = getenv(LARKPOST_PRELOAD_SOCKET_VARIABLE);
  if (socket_path != NULL && socket_path[0] != '\0') {
    int status = Forward(socket_path, self_name);
    if (status >= 0) return status;
  }
  RunFullHost(self_name);
  fprintf(stderr, "%s: cannot run larkpost-cgi: %s\n", self_name, strerror(errno));
  /* The host's headers, as on every answer (answer_relay.h). */
  fputs(
      "Status: 500 Internal Server Error\r\nContent-Type: text/plain\r\n"
      "X-Content-Type-Options: nosniff\r\nCache-Control: no-store\r\n"
      "Content-Security-Policy: sandbox; default-src 'none'; style-src 'unsafe-inline'; "
      "img-src data:; frame-ancestors 'self'\r\nReferrer-Policy: no-referrer\r\n"
      "\r\nhost missing\n",
      stdout);
  return 1;
}
