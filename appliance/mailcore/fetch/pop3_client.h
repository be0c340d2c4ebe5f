// One POP3 session with libcurl's POP3 client: the UIDL listing, messages
// retrieved by number, deletions marked. Every command goes over the one
// connection that the first one opened, so that message numbers keep their
// meaning; should libcurl have to connect again, the session is over.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ornic::larkpost::fetch {

struct Pop3Server {
  std::string host;  // name or address; an IPv6 address without brackets
  int port = 110;
  // TLS from the first byte (pop3s). Otherwise STLS when the server offers
  // it, plain when it does not. Certificates are verified either way.
  bool implicit_tls = false;
  std::string user_name;
  std::string password;
  std::string ca_file;  // "" : the system's certificate authorities
  // When set and it turns true, the command under way is abandoned.
  const std::atomic<bool>* stop = nullptr;
  // Seconds: to connect; for any one reply; without a byte coming.
  long connect_timeout = 15;
  long reply_timeout = 60;
  long stall_timeout = 60;
};

enum class Failure {
  kNone,
  kConnect,  // cannot reach the server, or TLS failed
  kLogin,    // the server refused the login
  kSession,  // the server went away, stopped answering or refused a command
};

class Pop3Client {
 public:
  explicit Pop3Client(const Pop3Server& server);
  // Ends the session with QUIT: the messages marked with Delete go.
  ~Pop3Client();
  Pop3Client(const Pop3Client&) = delete;
  Pop3Client& operator=(const Pop3Client&) = delete;

  // Each is false on failure, which failure() and error() then describe;
  // after a failure the session is over and every call fails.
  // The maildrop as (message number, UIDL), in the server's order.
  bool ListUidls(std::vector<std::pair<int, std::string>>* listing);
  // The message with its CRLF line ends, dot-stuffing undone.
  bool Retrieve(int number, std::string* message);
  // Marks the message for deletion at QUIT.
  bool Delete(int number);

  Failure failure() const { return failure_; }
  // "host:port: what went wrong[: the server's words]", never a password.
  const std::string& error() const { return error_; }

 private:
  struct Release {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
  };

  bool Perform(const std::string& path, const char* command, bool body, std::string* out);

  Pop3Server server_;
  std::unique_ptr<CURL, Release> curl_;
  std::string base_url_;
  bool connected_ = false;  // the session's one connection stands
  Failure failure_ = Failure::kNone;
  std::string error_;
  std::string refusal_;  // the server's latest "-ERR" line
};

}  // namespace ornic::larkpost::fetch
