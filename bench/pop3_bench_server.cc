// pop3_bench_server COUNT SIZE: the test POP3 server on loopback with COUNT
// messages of about SIZE bytes each (login "user" / "secret"); prints its
// port and serves until its standard input closes.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/pop3_server.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: pop3_bench_server COUNT SIZE\n", stderr);
    return 2;
  }
  const int count = std::atoi(argv[1]);
  const size_t size = static_cast<size_t>(std::atol(argv[2]));
  larkpost::testing::Pop3Server server;
  std::string body;
  while (body.size() < size) {
    body += "The quarterly figures are in; the numbers look better than last time.\n";
  }
  for (int i = 1; i <= count; ++i) {
    const std::string n = std::to_string(i);
    server.Add("bench-" + n,
               "From: Carol <carol@example.net>\nTo: bench@example.org\nSubject: Report " + n +
                   "\nMessage-ID: <" + n + "@bench.example.net>\n\n" + body);
  }
  std::printf("%u\n", server.port());
  std::fflush(stdout);
  char buffer[256];
  while (read(STDIN_FILENO, buffer, sizeof buffer) > 0) {
  }
  return 0;
}
