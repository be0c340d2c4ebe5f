#include "tests/support/pop3_server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <stdexcept>
#include <string>
#include <vector>

namespace larkpost::testing {
namespace {

// A client that sends nothing for this long is dropped, so that a test whose
// client went wrong fails instead of hanging.
constexpr int kIdleMillis = 30000;

std::string Upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::string WithCrlf(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) out += '\r';
    out += text[i];
  }
  if (!out.empty() && out.back() != '\n') out += "\r\n";
  return out;
}

// One client connection, plain or (after Secure) TLS: lines in, bytes out.
// Every wait also watches the server's wake pipe, so that stopping the
// server ends the conversation.
class Connection {
 public:
  Connection(int fd, int wake) : fd_(fd), wake_(wake) {}
  ~Connection() {
    if (ssl_ != nullptr) SSL_free(ssl_);
  }

  bool Secure(SSL_CTX* context) {
    ssl_ = SSL_new(context);
    if (ssl_ == nullptr || SSL_set_fd(ssl_, fd_) != 1) return false;
    for (;;) {
      int result = SSL_accept(ssl_);
      if (result == 1) return true;
      int error = SSL_get_error(ssl_, result);
      if (error != SSL_ERROR_WANT_READ || !WaitReadable()) return false;
    }
  }

  // The next line without its terminator; false when the client went away,
  // stayed silent too long or the server stops.
  bool Read(std::string* line) {
    for (;;) {
      size_t end = buffer_.find('\n');
      if (end != std::string::npos) {
        *line = buffer_.substr(0, end);
        if (!line->empty() && line->back() == '\r') line->pop_back();
        buffer_.erase(0, end + 1);
        return true;
      }
      if ((ssl_ == nullptr || SSL_pending(ssl_) == 0) && !WaitReadable()) return false;
      char chunk[16384];
      int got;
      if (ssl_ != nullptr) {
        got = SSL_read(ssl_, chunk, sizeof chunk);
        if (got <= 0 && SSL_get_error(ssl_, got) == SSL_ERROR_WANT_READ) continue;
      } else {
        got = static_cast<int>(recv(fd_, chunk, sizeof chunk, 0));
        if (got < 0 && errno == EINTR) continue;
      }
      if (got <= 0) return false;
      buffer_.append(chunk, static_cast<size_t>(got));
    }
  }

  bool Write(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
      int sent;
      if (ssl_ != nullptr) {
        sent = SSL_write(ssl_, bytes.data() + done, static_cast<int>(bytes.size() - done));
      } else {
        sent = static_cast<int>(send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL));
        if (sent < 0 && errno == EINTR) continue;
      }
      if (sent <= 0) return false;
      done += static_cast<size_t>(sent);
    }
    return true;
  }

  bool Reply(const std::string& line) { return Write(line + "\r\n"); }

 private:
  bool WaitReadable() {
    pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_, POLLIN, 0}};
    for (;;) {
      int ready = poll(fds, 2, kIdleMillis);
      if (ready < 0 && errno == EINTR) continue;
      return ready > 0 && fds[1].revents == 0;
    }
  }

  int fd_;
  int wake_;
  SSL* ssl_ = nullptr;
  std::string buffer_;
};

}  // namespace

Pop3Server::Pop3Server(Tls tls, const std::string& cert_file, const std::string& key_file)
    : tls_(tls) {
  if (tls_ != Tls::kNone) {
    // OpenSSL writes with write(2): a client that gives up in the middle of
    // the handshake must not take the test process down with SIGPIPE.
    signal(SIGPIPE, SIG_IGN);
    context_ = SSL_CTX_new(TLS_server_method());
    if (context_ == nullptr ||
        SSL_CTX_use_certificate_chain_file(context_, cert_file.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(context_, key_file.c_str(), SSL_FILETYPE_PEM) != 1) {
      if (context_ != nullptr) SSL_CTX_free(context_);
      throw std::runtime_error("pop3 server: cannot load " + cert_file + " and " + key_file);
    }
  }
  if (pipe2(wake_, O_CLOEXEC) != 0) throw std::runtime_error("pop3 server: pipe failed");
  listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0) throw std::runtime_error("pop3 server: socket failed");
  int on = 1;
  setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(listen_fd_, 8) != 0 ||
      getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("pop3 server: cannot listen on 127.0.0.1");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { Serve(); });
}

Pop3Server::~Pop3Server() {
  char stop = 's';
  ssize_t ignored = write(wake_[1], &stop, 1);
  (void)ignored;
  thread_.join();
  close(listen_fd_);
  close(wake_[0]);
  close(wake_[1]);
  if (context_ != nullptr) SSL_CTX_free(context_);
}

void Pop3Server::Add(const std::string& uidl, const std::string& message) {
  std::lock_guard<std::mutex> lock(mutex_);
  maildrop_.push_back({uidl, WithCrlf(message)});
}

void Pop3Server::RefuseLogin() {
  std::lock_guard<std::mutex> lock(mutex_);
  refuse_login_ = true;
}

void Pop3Server::DropAfter(int complete) {
  std::lock_guard<std::mutex> lock(mutex_);
  drop_after_ = complete;
}

std::vector<std::string> Pop3Server::uidls() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> out;
  for (const Stored& stored : maildrop_) out.push_back(stored.uidl);
  return out;
}

std::vector<std::string> Pop3Server::commands() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return commands_;
}

int Pop3Server::sessions() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sessions_;
}

int Pop3Server::tls_sessions() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return tls_sessions_;
}

void Pop3Server::Note(const std::string& command) {
  std::lock_guard<std::mutex> lock(mutex_);
  commands_.push_back(command);
}

void Pop3Server::Serve() {
  for (;;) {
    pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    int ready = poll(fds, 2, -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0 || fds[1].revents != 0) return;
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    Converse(fd);
    close(fd);
  }
}

void Pop3Server::Converse(int fd) {
  Connection line(fd, wake_[0]);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ++sessions_;
  }
  auto secured = [&] {
    std::lock_guard<std::mutex> lock(mutex_);
    ++tls_sessions_;
  };
  bool secure = false;
  if (tls_ == Tls::kImplicit) {
    if (!line.Secure(context_)) return;
    secure = true;
    secured();
  }
  if (!line.Reply("+OK POP3 test server ready")) return;

  // The session's view of the maildrop, fixed at login, and its marks.
  std::vector<Stored> view;
  std::vector<bool> deleted;
  int drop_after = -1;
  int sent_in_full = 0;
  std::string user;
  bool logged_in = false;

  // The message numbered by `argument` (1-based, not deleted), or -1.
  auto message_index = [&](const std::string& argument) -> int {
    if (argument.empty() || argument.find_first_not_of("0123456789") != std::string::npos ||
        argument.size() > 6) {
      return -1;
    }
    int number = std::stoi(argument);
    if (number < 1 || number > static_cast<int>(view.size()) || deleted[number - 1]) return -1;
    return number - 1;
  };

  std::string raw;
  while (line.Read(&raw)) {
    const size_t blank = raw.find(' ');
    const std::string verb = Upper(raw.substr(0, blank));
    const std::string argument = blank == std::string::npos ? "" : raw.substr(blank + 1);
    Note(verb == "PASS" ? "PASS *" : raw);
    bool ok = true;
    if (verb == "QUIT") {
      if (logged_in) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < view.size(); ++i) {
          if (!deleted[i]) continue;
          for (auto it = maildrop_.begin(); it != maildrop_.end(); ++it) {
            if (it->uidl == view[i].uidl) {
              maildrop_.erase(it);
              break;
            }
          }
        }
      }
      line.Reply("+OK bye");
      return;
    } else if (verb == "CAPA") {
      ok = line.Reply("+OK capability list follows") && line.Reply("USER") && line.Reply("UIDL") &&
           (tls_ != Tls::kStartTls || secure || line.Reply("STLS")) && line.Reply(".");
    } else if (!logged_in) {
      if (verb == "STLS" && tls_ == Tls::kStartTls && !secure) {
        if (!line.Reply("+OK begin TLS negotiation") || !line.Secure(context_)) return;
        secure = true;
        secured();
      } else if (verb == "USER") {
        user = argument;
        ok = line.Reply("+OK");
      } else if (verb == "PASS") {
        std::lock_guard<std::mutex> lock(mutex_);
        if (refuse_login_ || user != user_ || argument != password_) {
          ok = line.Reply("-ERR [AUTH] Authentication failed");
        } else {
          logged_in = true;
          view = maildrop_;
          deleted.assign(view.size(), false);
          drop_after = drop_after_;
          ok = line.Reply("+OK logged in");
        }
      } else {
        ok = line.Reply("-ERR not logged in");
      }
    } else if (verb == "STAT") {
      size_t count = 0, octets = 0;
      for (size_t i = 0; i < view.size(); ++i) {
        if (deleted[i]) continue;
        ++count;
        octets += view[i].message.size();
      }
      ok = line.Reply("+OK " + std::to_string(count) + " " + std::to_string(octets));
    } else if (verb == "LIST" || verb == "UIDL") {
      auto item = [&](size_t i) {
        return std::to_string(i + 1) + " " +
               (verb == "LIST" ? std::to_string(view[i].message.size()) : view[i].uidl);
      };
      std::string listing = "+OK\r\n";  // the whole maildrop: no one asks for one message
      for (size_t i = 0; i < view.size(); ++i) {
        if (!deleted[i]) listing += item(i) + "\r\n";
      }
      ok = line.Write(listing + ".\r\n");
    } else if (verb == "RETR") {
      int index = message_index(argument);
      if (index < 0) {
        ok = line.Reply("-ERR no such message");
      } else {
        const std::string& message = view[index].message;
        std::string answer = "+OK " + std::to_string(message.size()) + " octets\r\n";
        size_t start = 0;
        while (start < message.size()) {
          size_t end = message.find('\n', start);
          end = end == std::string::npos ? message.size() : end + 1;
          if (message[start] == '.') answer += '.';
          answer.append(message, start, end - start);
          start = end;
        }
        answer += ".\r\n";
        if (drop_after >= 0 && sent_in_full >= drop_after) {
          line.Write(answer.substr(0, answer.size() / 2));
          return;
        }
        ok = line.Write(answer);
        ++sent_in_full;
      }
    } else if (verb == "DELE") {
      int index = message_index(argument);
      if (index >= 0) deleted[index] = true;
      ok = line.Reply(index < 0 ? "-ERR no such message" : "+OK marked");
    } else {
      ok = line.Reply("-ERR unknown command");
    }
    if (!ok) return;
  }
}

}  // namespace larkpost::testing
