// The relay of the delivery benchmarks: the tests' SMTP sink as a program.
// Prints its port, takes every message until its standard input closes,
// then prints how many it took.
#include <stdio.h>
#include <unistd.h>

#include "tests/support/smtp_sink.h"

int main() {
  larkpost::testing::SmtpSink sink;
  printf("%u\n", static_cast<unsigned>(sink.port()));
  fflush(stdout);
  char byte;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
  fprintf(stderr, "%zu\n", sink.messages().size());
  return 0;
}
