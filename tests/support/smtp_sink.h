// A small SMTP server on loopback for tests: it accepts every connection on
// 127.0.0.1 (one at a time, in a thread of its own), speaks enough ESMTP for
// the client under test (EHLO, AUTH PLAIN, MAIL, RCPT, DATA, QUIT)
// and records what each session carried. It never relays anything. How it
// answers can be changed between sessions: refuse a recipient, refuse every
// login, require a login, refuse the message after DATA, or stall.
#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace larkpost::testing {

// What one connection carried, in the order it came.
struct SmtpSession {
  bool authenticated = false;
  std::string mail_from;             // the MAIL FROM address, without <>
  std::vector<std::string> rcpt_to;  // accepted RCPT TO addresses, without <>
  std::string data;       // the message, dot-stuffing undone, CRLF kept, without the final "."
  bool accepted = false;  // the message was taken (250 after DATA)
};

class SmtpSink {
 public:
  // Listens on 127.0.0.1 at a port the system picks. Throws
  // std::runtime_error when it cannot.
  SmtpSink();
  // Stops serving (a session in progress is cut) and joins the thread.
  ~SmtpSink();
  SmtpSink(const SmtpSink&) = delete;
  SmtpSink& operator=(const SmtpSink&) = delete;

  uint16_t port() const { return port_; }

  // RCPT TO with this address (compared without regard to case) gets
  // "550 5.1.1 <address>: Recipient address rejected: User unknown".
  void RefuseRecipient(const std::string& address);
  // AUTH PLAIN is offered and refused with "535 5.7.8 Authentication
  // credentials invalid" whatever the credentials.
  void RefuseAuth();
  // AUTH PLAIN is offered; MAIL before a login with these credentials gets
  // "530 5.7.0 Authentication required", other credentials 535.
  void RequireAuth(const std::string& user, const std::string& password);
  // The message is refused after its data: "554 5.7.1 Message rejected as spam".
  void RefuseMessage();
  // Connections are accepted but nothing is ever answered, not even the
  // greeting, until the sink stops.
  void Stall();

  // A copy of every session so far, finished or not, in order.
  std::vector<SmtpSession> sessions() const;
  // The messages that were taken, in order.
  std::vector<std::string> messages() const;

 private:
  struct Behaviour {
    std::set<std::string> refused_recipients;  // lower case
    bool refuse_auth = false;
    bool require_auth = false;
    std::string user, password;
    bool refuse_message = false;
    bool stall = false;
  };

  void Serve();
  void Converse(int fd);
  Behaviour behaviour() const;
  // Records `session` as the newest one, or updates it.
  void Record(size_t index, const SmtpSession& session);

  int listen_fd_ = -1;
  int wake_[2] = {-1, -1};  // a pipe whose read end wakes the thread to stop
  uint16_t port_ = 0;
  mutable std::mutex mutex_;
  Behaviour behaviour_;
  std::vector<SmtpSession> sessions_;
  std::thread thread_;
};

}  // namespace larkpost::testing
