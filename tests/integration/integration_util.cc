#include "tests/integration/integration_util.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "platform/zevo/webapi.h"

namespace larkpost::itest {

namespace {

std::string EnvOr(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : fallback;
}

// Sanitizer settings travel to every program the tests start.
void AddSanitizerOptions(std::map<std::string, std::string>& env) {
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
    if (const char* value = std::getenv(name)) env.emplace(name, value);
  }
  env.emplace("PATH", EnvOr("PATH", "/usr/bin:/bin"));
}

// Starts `argv` with exactly `env` (plus the sanitizer options of this
// process) and `in`, `out` and `err` as its standard descriptors (-1: this
// process's own).
pid_t Spawn(std::vector<std::string> argv, std::map<std::string, std::string> env, int in, int out,
            int err) {
  AddSanitizerOptions(env);
  std::vector<std::string> env_texts;
  for (const auto& [name, value] : env) env_texts.push_back(name + "=" + value);
  const pid_t pid = fork();
  if (pid == 0) {
    const int fds[] = {in, out, err};
    for (int i = 0; i < 3; ++i) {
      if (fds[i] >= 0) dup2(fds[i], i);
    }
    std::vector<char*> c_args, c_env;
    for (std::string& arg : argv) c_args.push_back(arg.data());
    for (std::string& text : env_texts) c_env.push_back(text.data());
    c_args.push_back(nullptr);
    c_env.push_back(nullptr);
    execve(c_args[0], c_args.data(), c_env.data());
    _exit(127);
  }
  return pid;
}

Json::Value ParseJsonOrNull(const std::string& text) {
  Json::Value value;
  if (!ZEVO::WebAPIUtil::FromString(text, value)) return Json::Value();
  return value;
}

int FreePort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    close(fd);
    throw std::runtime_error("no free port");
  }
  socklen_t size = sizeof(address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  close(fd);
  return ntohs(address.sin_port);
}

bool CanConnect(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return ok;
}

std::string ReadAll(std::FILE* file) {
  std::rewind(file);
  std::string text;
  char buffer[65536];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof(buffer), file)) > 0) text.append(buffer, n);
  return text;
}

size_t AppendBody(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

// Adds a "Name: value" line to `headers`, the name lower-cased; other lines
// are left out.
void AddHeader(std::string line, std::map<std::string, std::string>& headers) {
  line.erase(line.find_last_not_of("\r\n") + 1);
  const size_t colon = line.find(':');
  if (colon == std::string::npos) return;
  std::string name = line.substr(0, colon);
  for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const size_t value = line.find_first_not_of(' ', colon + 1);
  headers[name] = value == std::string::npos ? "" : line.substr(value);
}

size_t AppendHeader(char* data, size_t size, size_t count, void* out) {
  AddHeader(std::string(data, size * count),
            *static_cast<std::map<std::string, std::string>*>(out));
  return size * count;
}

// A CGI answer: headers (names lower-cased) and body.
CgiAnswer ParseCgiAnswer(const std::string& raw) {
  CgiAnswer answer;
  const size_t end = raw.find("\r\n\r\n");
  if (end == std::string::npos) {
    answer.body = raw;
    return answer;
  }
  std::istringstream headers(raw.substr(0, end));
  for (std::string line; std::getline(headers, line);) AddHeader(line, answer.headers);
  answer.body = raw.substr(end + 4);
  answer.json = ParseJsonOrNull(answer.body);
  return answer;
}

}  // namespace

std::string BinDir() { return EnvOr("LARKPOST_BIN", "build/bin"); }

ProcessResult RunProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env, const std::string& input) {
  // Files rather than pipes: nothing to interleave, no side can block.
  std::FILE* in = std::tmpfile();
  std::FILE* out = std::tmpfile();
  std::FILE* err = std::tmpfile();
  std::fwrite(input.data(), 1, input.size(), in);
  std::fflush(in);
  std::rewind(in);
  const pid_t pid = Spawn(argv, env, fileno(in), fileno(out), fileno(err));
  int status = 0;
  waitpid(pid, &status, 0);
  ProcessResult result;
  result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.out = ReadAll(out);
  result.err = ReadAll(err);
  for (std::FILE* file : {in, out, err}) std::fclose(file);
  return result;
}

DataRoot::DataRoot(const std::string& leaf) {
  char pattern[] = "/tmp/larkpost-it-XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp");
  base_ = pattern;
  path_ = leaf.empty() ? base_ : base_ + "/" + leaf;
  // Failed logins are answered after a delay; a short one keeps tests fast.
  WriteConfig(R"({"login_failure_delay_ms": 50})");
}

DataRoot::~DataRoot() {
  std::error_code ignored;
  std::filesystem::remove_all(base_, ignored);
}

void DataRoot::WriteConfig(const std::string& json_text) const {
  std::filesystem::create_directories(path_ + "/etc");
  std::ofstream(path_ + "/etc/larkpost.json") << json_text;
}

ProcessResult DataRoot::Ctl(const std::vector<std::string>& args, const std::string& input) const {
  std::vector<std::string> argv = {BinDir() + "/larkpostctl", "--root", path_};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProcess(argv, {}, input);
}

uint32_t DataRoot::AddUser(const std::string& name, const std::string& password, bool admin) const {
  std::vector<std::string> args = {"user", "add", name, "--password", password};
  if (admin) args.push_back("--admin");
  ProcessResult result = Ctl(args);
  if (result.exit_code != 0) throw std::runtime_error("user add failed: " + result.err);
  return static_cast<uint32_t>(std::stoul(result.out));
}

CgiAnswer DataRoot::Cgi(const std::string& program, const CgiRequest& request) const {
  std::map<std::string, std::string> env = {
      {"GATEWAY_INTERFACE", "CGI/1.1"},
      {"SERVER_PROTOCOL", "HTTP/1.1"},
      {"REQUEST_METHOD", request.method},
      {"QUERY_STRING", request.query},
      {"SCRIPT_NAME", "/webapi/" + program},
      {"REMOTE_ADDR", "127.0.0.1"},
      {"LARKPOST_ROOT", path_},
  };
  if (!request.body.empty() || request.method == "POST") {
    env["CONTENT_LENGTH"] = std::to_string(request.body.size());
    env["CONTENT_TYPE"] = "application/x-www-form-urlencoded";
  }
  if (!request.cookie.empty()) env["HTTP_COOKIE"] = request.cookie;
  for (const auto& [name, value] : request.extra_headers) env[name] = value;
  return ParseCgiAnswer(RunProcess({BinDir() + "/" + program}, env, request.body).out);
}

Json::Value DataRoot::Login(const std::string& account, const std::string& password) const {
  CgiRequest request;
  request.method = "POST";
  request.body = "account=" + UrlEncode(account) + "&passwd=" + UrlEncode(password);
  CgiAnswer answer = Cgi("auth.cgi", request);
  if (!answer.json["success"].asBool()) return Json::Value();
  return answer.json["data"];
}

std::vector<std::string> DataRoot::Lines(const std::string& relative) const {
  std::vector<std::string> lines;
  std::ifstream file(path_ + "/" + relative);
  std::string line;
  while (std::getline(file, line)) lines.push_back(line);
  return lines;
}

Server::Server(const DataRoot& root) : port_(FreePort()) {
  const int null = open("/dev/null", O_RDWR);
  pid_ = Spawn({BinDir() + "/larkpostctl", "--root", root.path(), "serve", "--listen",
                "127.0.0.1:" + std::to_string(port_)},
               {}, null, null, -1);
  close(null);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  while (!CanConnect(port_)) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      throw std::runtime_error("larkpostctl serve exited early");
    }
    if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("lighttpd did not start listening");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

Server::~Server() { Stop(); }

int Server::Stop() {
  if (pid_ < 0) return -1;
  kill(pid_, SIGINT);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

std::string Server::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

std::string UrlEncode(const std::string& text) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

namespace {

// Sends what `curl` was set up for, with `headers`, and reads the answer.
HttpAnswer Perform(CURL* curl, const std::string& url,
                   const std::map<std::string, std::string>& headers) {
  HttpAnswer answer;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
  curl_slist* header_list = nullptr;
  for (const auto& [name, value] : headers) {
    header_list = curl_slist_append(header_list, (name + ": " + value).c_str());
  }
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, header_list);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, AppendBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.body);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, AppendHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &answer.headers);
  CURLcode code = curl_easy_perform(curl);
  if (code == CURLE_OK) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
  curl_slist_free_all(header_list);
  curl_easy_cleanup(curl);
  if (code != CURLE_OK) throw std::runtime_error(curl_easy_strerror(code));
  answer.json = ParseJsonOrNull(answer.body);
  return answer;
}

}  // namespace

HttpAnswer Http(const std::string& url, const std::map<std::string, std::string>& form, bool post,
                const std::map<std::string, std::string>& headers) {
  std::string encoded;
  for (const auto& [name, value] : form) {
    if (!encoded.empty()) encoded += '&';
    encoded += UrlEncode(name) + "=" + UrlEncode(value);
  }
  CURL* curl = curl_easy_init();
  if (post) curl_easy_setopt(curl, CURLOPT_POSTFIELDS, encoded.c_str());
  return Perform(curl, post || encoded.empty() ? url : url + "?" + encoded, headers);
}

std::string MultipartBody(const std::map<std::string, std::string>& fields,
                          const std::vector<UploadFile>& files) {
  std::string body;
  for (const auto& [name, value] : fields) {
    body += "--" + std::string(kBoundary) + "\r\nContent-Disposition: form-data; name=\"" + name +
            "\"\r\n\r\n" + value + "\r\n";
  }
  for (const UploadFile& file : files) {
    body += "--" + std::string(kBoundary) + "\r\nContent-Disposition: form-data; name=\"" +
            file.field + "\"; filename=\"" + file.name + "\"\r\nContent-Type: " + file.type +
            "\r\n\r\n" + file.content + "\r\n";
  }
  return body + "--" + kBoundary + "--\r\n";
}

HttpAnswer HttpUpload(const std::string& url, const std::map<std::string, std::string>& fields,
                      const std::vector<UploadFile>& files,
                      const std::map<std::string, std::string>& headers_in) {
  const std::string body = MultipartBody(fields, files);
  std::map<std::string, std::string> headers = headers_in;
  headers["Content-Type"] = std::string("multipart/form-data; boundary=") + kBoundary;
  CURL* curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  return Perform(curl, url, headers);
}

}  // namespace larkpost::itest
