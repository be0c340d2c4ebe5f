// The relay that puts the host's headers on answers a handler writes itself.
#include "appliance/framework/answer_relay.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace larkpost::cgi {
namespace {

const std::string kHost = kHostHeaders;

// What RelayAnswer makes of `written`, fed through a pipe from another
// thread (a large body does not fit into a pipe at once).
std::string Relay(const std::string& written) {
  int in[2], out[2];
  EXPECT_EQ(pipe(in), 0);
  EXPECT_EQ(pipe(out), 0);
  std::thread writer([&] {
    for (size_t at = 0; at < written.size();) {
      const ssize_t n = write(in[1], written.data() + at, written.size() - at);
      if (n <= 0) break;
      at += static_cast<size_t>(n);
    }
    close(in[1]);
  });
  std::string answer;
  std::thread reader([&] {
    char buffer[65536];
    for (ssize_t n; (n = ::read(out[0], buffer, sizeof(buffer))) > 0;) answer.append(buffer, n);
  });
  EXPECT_EQ(RelayAnswer(in[0], out[1]), static_cast<int64_t>(written.size()));
  close(out[1]);
  writer.join();
  reader.join();
  close(in[0]);
  close(out[0]);
  return answer;
}

TEST(AnswerRelayTest, TheHostsHeadersOnWhateverTheHandlerWrote) {
  const struct {
    const char* name;
    std::string written;
    std::string relayed;
  } cases[] = {
      {"the 404 page", "Status: 404 Not Found\r\n\r\n",
       "Status: 404 Not Found\r\nContent-Type: application/octet-stream\r\n" + kHost + "\r\n"},
      {"lines ended by LF alone", "Content-Type: text/plain\n\nbody\n\nmore",
       "Content-Type: text/plain\r\n" + kHost + "\r\nbody\n\nmore"},
      {"the handler's own policy is dropped",
       "Content-Type: text/html\r\nContent-Security-Policy: script-src *\r\n"
       "cache-control: max-age=9999\r\nX-Content-Type-Options: sniff\r\n"
       "Referrer-Policy: unsafe-url\r\n\r\nhi",
       "Content-Type: text/html\r\n" + kHost + "\r\nhi"},
      {"no header block: all of it is the body", "<html><script>x()</script>",
       "Content-Type: application/octet-stream\r\n" + kHost + "\r\n<html><script>x()</script>"},
      {"a first line that is no header", "<svg onload=x()>: y\r\n\r\nz",
       "Content-Type: application/octet-stream\r\n" + kHost + "\r\n<svg onload=x()>: y\r\n\r\nz"},
      {"a head that never ends is a body too", std::string(100000, 'a'),
       "Content-Type: application/octet-stream\r\n" + kHost + "\r\n" + std::string(100000, 'a')},
      {"nothing at all", "", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(Relay(c.written), c.relayed) << c.name;
}

}  // namespace
}  // namespace larkpost::cgi
