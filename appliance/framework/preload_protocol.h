/* How entry.cgi and auth.cgi reach the preloaded host: a stream socket.
 * The client sends one message carrying its standard input, output and
 * error (SCM_RIGHTS) whose bytes are a PreloadHeader, then
 * environment_size bytes of environment ("NAME=value" strings, each ended by
 * NUL) and name_size bytes of its own program path. Once the request is
 * served, the host answers with the exit status as an int. Plain C: the
 * client is a small C program. */
#ifndef LARKPOST_APPLIANCE_FRAMEWORK_PRELOAD_PROTOCOL_H_
#define LARKPOST_APPLIANCE_FRAMEWORK_PRELOAD_PROTOCOL_H_

#define LARKPOST_PRELOAD_MAGIC "LPH1"
#define LARKPOST_PRELOAD_MAX_ENVIRONMENT (1u << 20)
#define LARKPOST_PRELOAD_MAX_NAME 4096u
/* The environment variable that names the socket; without it, or when
 * nothing listens there, the programs run on their own. */
#define LARKPOST_PRELOAD_SOCKET_VARIABLE "LARKPOST_CGI_SOCKET"

struct PreloadHeader {
  char magic[4]; /* LARKPOST_PRELOAD_MAGIC */
  char program;  /* 'e' entry.cgi, 'a' auth.cgi */
  char reserved[3];
  unsigned int environment_size;
  unsigned int name_size;
};

#endif /* LARKPOST_APPLIANCE_FRAMEWORK_PRELOAD_PROTOCOL_H_ */
