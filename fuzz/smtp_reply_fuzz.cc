// The SMTP client's reading of a server's replies: Transmit talks to a
// loopback server whose replies are the input, and must end with one of its
// own codes (never hang, never crash on what a server says). Input: one
// byte of options (bit 0: log in, bit 1: STARTTLS if offered), then every
// byte the server sends.
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "appliance/mailcore/send/smtp_client.h"
#include "fuzz/fuzz_util.h"
#include "platform/mailcore/error.h"

namespace smtp_send = ornic::larkpost::send;

namespace {

int listener = -1;
int port = 0;
int message_fd = -1;
const std::string kMessage = "Subject: hi\r\n\r\nHello.\r\n";

void Start() {
  listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      listen(listener, 8) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    abort();
  }
  port = ntohs(address.sin_port);
  FILE* file = tmpfile();
  if (file == nullptr || fwrite(kMessage.data(), 1, kMessage.size(), file) != kMessage.size() ||
      fflush(file) != 0) {
    abort();
  }
  message_fd = fileno(file);
}

// Accepts one client, says `script`, then listens until it leaves.
void Serve(std::string script) {
  const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (connection < 0) return;
  size_t sent = 0;
  while (sent < script.size()) {
    const ssize_t put = send(connection, script.data() + sent, script.size() - sent, MSG_NOSIGNAL);
    if (put <= 0) break;
    sent += static_cast<size_t>(put);
  }
  shutdown(connection, SHUT_WR);
  char sink[4096];
  while (read(connection, sink, sizeof sink) > 0) {
  }
  close(connection);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  if (listener < 0) Start();
  std::thread server(Serve, std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
  smtp_send::SmtpServer smtp;
  smtp.host = "127.0.0.1";
  smtp.port = port;
  smtp.security =
      (data[0] & 2) ? smtp_send::Security::kStartTlsIfOffered : smtp_send::Security::kNone;
  if (data[0] & 1) {
    smtp.user_name = "ann";
    smtp.password = "secret";
  }
  smtp.connect_timeout = 5;
  smtp.reply_timeout = 5;
  smtp.stall_timeout = 5;
  const int32_t code = smtp_send::Transmit(smtp, {"ann@example.org", {"bob@example.org"}},
                                           message_fd, static_cast<int64_t>(kMessage.size()));
  server.join();
  if (code != 0 && code != ornic::kErrorSmtpConnect && code != ornic::kErrorSmtpAuth &&
      code != ornic::kErrorSmtpRejected && code != ornic::kErrorSmtpTimeout) {
    larkpost::fuzz::Broken("Transmit answered " + std::to_string(code));
  }
  return 0;
}
