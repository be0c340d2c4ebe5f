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
std::string Relay(const std::string& written, int64_t* read = nullptr) {
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
  const int64_t got = RelayAnswer(in[0], out[1]);
  close(out[1]);
  writer.join();
  reader.join();
  close(in[0]);
  close(out[0]);
  if (read != nullptr) *read = got;
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
      {"an attachment shown inline",
       "Content-Length: 20\r\nContent-Type: text/html\r\n\r\n<script>x()</script>",
       "Content-Length: 20\r\nContent-Type: text/html\r\n" + kHost + "\r\n<script>x()</script>"},
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
      {"an empty header block", "\r\nbody",
       "Content-Type: application/octet-stream\r\n" + kHost + "\r\nbody"},
      {"nothing at all", "", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(Relay(c.written), c.relayed) << c.name;
}

TEST(AnswerRelayTest, ALargeBodyStreamsThroughUnchanged) {
  std::string body(5 * 1024 * 1024 + 7, '\0');
  for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 131 % 251);
  const std::string head = "Content-Length: " + std::to_string(body.size()) +
                           "\r\nContent-Type: application/force-download\r\n\r\n";
  int64_t read = 0;
  const std::string answer = Relay(head + body, &read);
  EXPECT_EQ(read, static_cast<int64_t>(head.size() + body.size()));
  const std::string expected_head = head.substr(0, head.size() - 2) + kHost + "\r\n";
  ASSERT_EQ(answer.size(), expected_head.size() + body.size());
  EXPECT_EQ(answer.substr(0, expected_head.size()), expected_head);
  EXPECT_TRUE(answer.compare(expected_head.size(), std::string::npos, body) == 0);
  // A head that never ends is a body too, and still arrives whole.
  const std::string endless(100000, 'a');
  EXPECT_EQ(Relay(endless),
            "Content-Type: application/octet-stream\r\n" + kHost + "\r\n" + endless);
}

}  // namespace
}  // namespace larkpost::cgi
