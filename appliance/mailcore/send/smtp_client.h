// Handing a finished message to an SMTP server with libcurl's SMTP client.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ornic::larkpost::send {

enum class Security {
  kNone,               // never TLS (the appliance's own relay)
  kStartTlsIfOffered,  // STARTTLS when the server offers it, else plain
  kStartTlsRequired,   // STARTTLS, or give up
  kImplicitTls,        // TLS from the first byte (smtps)
};

struct SmtpServer {
  std::string host;  // name or address; an IPv6 address without brackets
  int port = 25;
  Security security = Security::kStartTlsIfOffered;
  std::string user_name;  // "" : no login
  std::string password;
  std::string hello_name = "localhost";  // what EHLO says this host is called
  // Seconds: to connect; for any one reply of the server; without a byte
  // going either way while the message is sent.
  long connect_timeout = 15;
  long reply_timeout = 120;
  long stall_timeout = 60;
};

struct Envelope {
  std::string sender;                   // bare address
  std::vector<std::string> recipients;  // bare addresses
};

// Sends the `size` bytes at the start of file `fd` (a message with CRLF line
// ends; dot-stuffing is done here) to every recipient of `envelope`. Returns
// 0 when the server took the message, else kErrorSmtpConnect (cannot reach
// the server, or TLS failed), kErrorSmtpAuth (login refused),
// kErrorSmtpRejected (sender, a recipient or the message refused) or
// kErrorSmtpTimeout (the server stopped answering), or kErrorStorage when
// the file cannot be read. A refusal is written to the system log with the
// server's own words.
int32_t Transmit(const SmtpServer& server, const Envelope& envelope, int fd, int64_t size);

}  // namespace ornic::larkpost::send
