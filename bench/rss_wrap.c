/* rss_wrap LOG LABEL PROGRAM ARGV0 [ARG...]
 *
 * Runs PROGRAM with the argument vector ARGV0 ARG... (standard streams and
 * environment passed through, so it can stand in for a CGI program), waits
 * for it, appends "LABEL <peak resident set in KiB>" to LOG and exits as the
 * program did. The peak is the kernel's for that process; it includes the
 * programs that process ran and waited for, which is why the benchmark wraps
 * those too and reports them apart. */
#define _GNU_SOURCE
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv) {
  if (argc < 5) {
    fputs("usage: rss_wrap LOG LABEL PROGRAM ARGV0 [ARG...]\n", stderr);
    return 2;
  }
  pid_t pid = fork();
  if (pid < 0) {
    perror("rss_wrap: fork");
    return 1;
  }
  if (pid == 0) {
    execv(argv[3], argv + 4);
    fprintf(stderr, "rss_wrap: cannot run %s: %s\n", argv[3], strerror(errno));
    _exit(127);
  }
  /* A web server ends a CGI program with SIGTERM once the answer is
   * complete; the figure is written all the same. The program's answer is
   * complete when it ends: these copies of its streams must not hold it open. */
  signal(SIGTERM, SIG_IGN);
  close(STDIN_FILENO);
  close(STDOUT_FILENO);
  int status = 0;
  struct rusage usage;
  while (wait4(pid, &status, 0, &usage) < 0) {
    if (errno != EINTR) {
      perror("rss_wrap: wait4");
      return 1;
    }
  }
  FILE* log = fopen(argv[1], "a");
  if (log != NULL) {
    fprintf(log, "%s %ld\n", argv[2], usage.ru_maxrss);
    fclose(log);
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : 1;
}
