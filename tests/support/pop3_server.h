// A small POP3 server on loopback for tests: one connection at a time, in a
// thread of its own, speaking USER/PASS, STAT, UIDL, LIST, RETR, DELE,
// CAPA, QUIT and STLS (RFC 1939, 2449, 2595). It holds one maildrop;
// messages marked with DELE go when the session ends with QUIT, as a real
// server does, and stay when the connection is cut. How it behaves can be
// changed between sessions: refuse every login, or cut the connection in the
// middle of a message.
#pragma once

#include <openssl/ssl.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace larkpost::testing {

class Pop3Server {
 public:
  enum class Tls {
    kNone,      // plain, STLS not offered
    kStartTls,  // plain, STLS offered (CAPA) and taken
    kImplicit,  // TLS from the first byte (pop3s)
  };

  // Listens on 127.0.0.1 at a port the system picks. With TLS, the
  // certificate and key are the PEM files of tests/fixtures/tls (the
  // certificate names localhost and 127.0.0.1 and is its own issuer).
  // Throws std::runtime_error when it cannot.
  explicit Pop3Server(Tls tls = Tls::kNone, const std::string& cert_file = "",
                      const std::string& key_file = "");
  // Stops serving (a session in progress is cut) and joins the thread.
  ~Pop3Server();
  Pop3Server(const Pop3Server&) = delete;
  Pop3Server& operator=(const Pop3Server&) = delete;

  uint16_t port() const { return port_; }

  // Adds a message (LF or CRLF line ends) to the maildrop under `uidl`.
  void Add(const std::string& uidl, const std::string& message);
  // Every PASS is answered "-ERR [AUTH] Authentication failed".
  void RefuseLogin();
  // In every later session, after `complete` messages were sent in full,
  // the next RETR sends the first half of its message and closes the
  // connection (no QUIT: nothing is deleted). Negative: never.
  void DropAfter(int complete);

  // UIDLs of the maildrop, in order.
  std::vector<std::string> uidls() const;
  // Every command received, in order, the argument of PASS replaced by "*".
  std::vector<std::string> commands() const;
  // How many sessions were accepted, and how many of them switched to TLS
  // (STLS or implicit).
  int sessions() const;
  int tls_sessions() const;

 private:
  struct Stored {
    std::string uidl;
    std::string message;  // CRLF line ends
  };

  void Serve();
  void Converse(int fd);
  void Note(const std::string& command);

  Tls tls_;
  SSL_CTX* context_ = nullptr;
  int listen_fd_ = -1;
  int wake_[2] = {-1, -1};  // a pipe whose read end wakes the thread to stop
  uint16_t port_ = 0;
  mutable std::mutex mutex_;
  // The only login accepted.
  const std::string user_ = "user", password_ = "secret";
  bool refuse_login_ = false;
  int drop_after_ = -1;
  std::vector<Stored> maildrop_;
  std::vector<std::string> commands_;
  int sessions_ = 0, tls_sessions_ = 0;
  std::thread thread_;
};

}  // namespace larkpost::testing
