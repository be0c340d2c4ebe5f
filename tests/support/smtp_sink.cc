#include "tests/support/smtp_sink.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
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

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool StartsWithNoCase(const std::string& text, const std::string& prefix) {
  return Lower(text.substr(0, prefix.size())) == Lower(prefix);
}

// The address between the first "<" and the next ">" ("" for "<>"); the
// whole argument when it has no angle brackets.
std::string PathArgument(const std::string& argument) {
  size_t open = argument.find('<');
  size_t close = open == std::string::npos ? std::string::npos : argument.find('>', open);
  if (close == std::string::npos) {
    size_t blank = argument.find(' ');
    return argument.substr(0, blank);
  }
  return argument.substr(open + 1, close - open - 1);
}

std::string DecodeBase64(const std::string& text) {
  static const std::string kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  unsigned int bits = 0;
  int count = 0;
  for (char c : text) {
    size_t value = kAlphabet.find(c);
    if (value == std::string::npos) continue;  // padding, line ends
    bits = (bits << 6) | static_cast<unsigned int>(value);
    count += 6;
    if (count >= 8) {
      count -= 8;
      out.push_back(static_cast<char>((bits >> count) & 0xFF));
    }
  }
  return out;
}

// One client connection: lines in, replies out. Every wait also watches the
// sink's wake pipe, so that stopping the sink ends the conversation.
class Line {
 public:
  Line(int fd, int wake) : fd_(fd), wake_(wake) {}

  // The next line with its terminator ("\r\n" or "\n"); false when the
  // client went away, stayed silent too long or the sink stops.
  bool Read(std::string* line) {
    for (;;) {
      size_t end = buffer_.find('\n');
      if (end != std::string::npos) {
        *line = buffer_.substr(0, end + 1);
        buffer_.erase(0, end + 1);
        return true;
      }
      if (!WaitReadable()) return false;
      char chunk[65536];
      ssize_t got = recv(fd_, chunk, sizeof chunk, 0);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      buffer_.append(chunk, static_cast<size_t>(got));
    }
  }

  bool Write(const std::string& reply) {
    std::string text = reply + "\r\n";
    size_t done = 0;
    while (done < text.size()) {
      ssize_t sent = send(fd_, text.data() + done, text.size() - done, MSG_NOSIGNAL);
      if (sent < 0 && errno == EINTR) continue;
      if (sent <= 0) return false;
      done += static_cast<size_t>(sent);
    }
    return true;
  }

  // Waits until the client closes the connection or the sink stops,
  // reading and dropping whatever comes.
  void Drain() {
    char chunk[4096];
    while (WaitReadable(-1)) {
      ssize_t got = recv(fd_, chunk, sizeof chunk, 0);
      if (got == 0 || (got < 0 && errno != EINTR)) return;
    }
  }

 private:
  bool WaitReadable(int millis = kIdleMillis) {
    pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_, POLLIN, 0}};
    for (;;) {
      int ready = poll(fds, 2, millis);
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0 || fds[1].revents != 0) return false;
      return true;
    }
  }

  int fd_;
  int wake_;
  std::string buffer_;
};

std::string Trimmed(const std::string& line) {
  size_t end = line.size();
  while (end > 0 && (line[end - 1] == '\n' || line[end - 1] == '\r')) --end;
  return line.substr(0, end);
}

}  // namespace

SmtpSink::SmtpSink() {
  if (pipe2(wake_, O_CLOEXEC) != 0) throw std::runtime_error("smtp sink: pipe failed");
  listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0) throw std::runtime_error("smtp sink: socket failed");
  int on = 1;
  setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(listen_fd_, 8) != 0 ||
      getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    close(listen_fd_);
    close(wake_[0]);
    close(wake_[1]);
    throw std::runtime_error("smtp sink: cannot listen on 127.0.0.1");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { Serve(); });
}

SmtpSink::~SmtpSink() {
  char stop = 's';
  ssize_t ignored = write(wake_[1], &stop, 1);
  (void)ignored;
  thread_.join();
  close(listen_fd_);
  close(wake_[0]);
  close(wake_[1]);
}

void SmtpSink::RefuseRecipient(const std::string& address) {
  std::lock_guard<std::mutex> lock(mutex_);
  behaviour_.refused_recipients.insert(Lower(address));
}

void SmtpSink::RefuseAuth() {
  std::lock_guard<std::mutex> lock(mutex_);
  behaviour_.refuse_auth = true;
}

void SmtpSink::RequireAuth(const std::string& user, const std::string& password) {
  std::lock_guard<std::mutex> lock(mutex_);
  behaviour_.require_auth = true;
  behaviour_.user = user;
  behaviour_.password = password;
}

void SmtpSink::RefuseMessage() {
  std::lock_guard<std::mutex> lock(mutex_);
  behaviour_.refuse_message = true;
}

void SmtpSink::Stall() {
  std::lock_guard<std::mutex> lock(mutex_);
  behaviour_.stall = true;
}

std::vector<SmtpSession> SmtpSink::sessions() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sessions_;
}

std::vector<std::string> SmtpSink::messages() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> taken;
  for (const SmtpSession& session : sessions_) {
    if (session.accepted) taken.push_back(session.data);
  }
  return taken;
}

SmtpSink::Behaviour SmtpSink::behaviour() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return behaviour_;
}

void SmtpSink::Record(size_t index, const SmtpSession& session) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (index >= sessions_.size()) sessions_.resize(index + 1);
  sessions_[index] = session;
}

void SmtpSink::Serve() {
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

void SmtpSink::Converse(int fd) {
  Line line(fd, wake_[0]);
  const Behaviour rules = behaviour();
  size_t index;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    index = sessions_.size();
    sessions_.emplace_back();
  }
  if (rules.stall) {
    line.Drain();
    return;
  }
  SmtpSession session;
  const bool offer_auth = rules.refuse_auth || rules.require_auth;
  if (!line.Write("220 sink.localhost ESMTP test sink")) return;

  // Checks the credentials of an AUTH PLAIN response and answers.
  auto login = [&](const std::string& response) {
    std::string decoded = DecodeBase64(response);
    size_t first = decoded.find('\0');
    size_t second = first == std::string::npos ? first : decoded.find('\0', first + 1);
    if (second == std::string::npos) return line.Write("501 5.5.2 Malformed AUTH PLAIN response");
    if (rules.refuse_auth || decoded.substr(first + 1, second - first - 1) != rules.user ||
        decoded.substr(second + 1) != rules.password) {
      return line.Write("535 5.7.8 Authentication credentials invalid");
    }
    session.authenticated = true;
    return line.Write("235 2.7.0 Authentication successful");
  };

  bool in_transaction = false;  // MAIL was accepted
  std::string raw;
  while (line.Read(&raw)) {
    const std::string command = Trimmed(raw);
    const size_t blank = command.find(' ');
    const std::string verb = Lower(command.substr(0, blank));
    const std::string argument = blank == std::string::npos ? "" : command.substr(blank + 1);
    bool ok = true;
    if (verb == "ehlo") {
      ok = line.Write("250-sink.localhost") && (!offer_auth || line.Write("250-AUTH PLAIN")) &&
           line.Write("250 8BITMIME");
    } else if (verb == "auth") {
      if (!offer_auth) {
        ok = line.Write("502 5.5.1 AUTH not offered");
      } else if (!StartsWithNoCase(argument, "PLAIN")) {
        ok = line.Write("504 5.5.4 Unrecognized authentication type");
      } else if (argument.size() > 6) {
        ok = login(argument.substr(6));
      } else {
        std::string response;
        ok = line.Write("334 ") && line.Read(&response);
        ok = ok && login(Trimmed(response));
      }
    } else if (verb == "mail" && StartsWithNoCase(argument, "FROM:")) {
      if (rules.require_auth && !session.authenticated) {
        ok = line.Write("530 5.7.0 Authentication required");
      } else {
        session.mail_from = PathArgument(argument.substr(5));
        session.rcpt_to.clear();
        in_transaction = true;
        ok = line.Write("250 2.1.0 Ok");
      }
    } else if (verb == "rcpt" && StartsWithNoCase(argument, "TO:")) {
      std::string address = PathArgument(argument.substr(3));
      if (!in_transaction) {
        ok = line.Write("503 5.5.1 Error: need MAIL command");
      } else if (rules.refused_recipients.count(Lower(address)) != 0) {
        ok = line.Write("550 5.1.1 <" + address + ">: Recipient address rejected: User unknown");
      } else {
        session.rcpt_to.push_back(address);
        ok = line.Write("250 2.1.5 Ok");
      }
    } else if (verb == "data") {
      if (session.rcpt_to.empty()) {
        ok = line.Write("554 5.5.1 Error: no valid recipients");
      } else if ((ok = line.Write("354 End data with <CR><LF>.<CR><LF>"))) {
        std::string data, text;
        bool ended = false;
        while (line.Read(&text)) {
          if (Trimmed(text) == ".") {
            ended = true;
            break;
          }
          data += text[0] == '.' ? text.substr(1) : text;
        }
        session.data = data;
        if (!ended) break;
        if (rules.refuse_message) {
          ok = line.Write("554 5.7.1 Message rejected as spam");
        } else {
          session.accepted = true;
          ok = line.Write("250 2.0.0 Ok: queued as SINK1");
        }
      }
    } else if (verb == "quit") {
      Record(index, session);
      line.Write("221 2.0.0 Bye");
      return;
    } else {
      ok = line.Write("502 5.5.2 Error: command not recognized");
    }
    Record(index, session);
    if (!ok) break;
  }
  Record(index, session);
}

}  // namespace larkpost::testing
