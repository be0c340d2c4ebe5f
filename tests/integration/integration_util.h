// What the integration tests share: a fresh data root per test, the built
// programs run as real processes (larkpostctl, entry.cgi and auth.cgi as CGI
// programs), a lighttpd served by larkpostctl on loopback, and an HTTP client.
#pragma once

#include <json/value.h>
#include <json/writer.h>  // prints values in failure messages
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace larkpost::itest {

// Where the build put the programs (set by CTest).
std::string BinDir();

struct ProcessResult {
  int exit_code = -1;  // -1 when the process did not exit normally
  std::string out;
  std::string err;
};

// Runs `argv` with exactly `env` (plus the sanitizer options of this
// process), `input` on its standard input, and waits for it.
ProcessResult RunProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env,
                         const std::string& input = "");

// A CGI answer: headers (names lower-cased) and body.
struct CgiAnswer {
  std::map<std::string, std::string> headers;
  std::string body;
  Json::Value json;  // the body parsed, null when it is not JSON
};

// A CGI request to one of our programs.
struct CgiRequest {
  std::string method = "GET";
  std::string query;                                 // QUERY_STRING
  std::string body;                                  // form fields, urlencoded
  std::string cookie;                                // HTTP_COOKIE
  std::map<std::string, std::string> extra_headers;  // env name -> value
};

// A data root of its own, removed at the end; `leaf` names it inside a fresh
// temporary folder (for a path that needs quoting).
class DataRoot {
 public:
  explicit DataRoot(const std::string& leaf = "");
  ~DataRoot();
  DataRoot(const DataRoot&) = delete;
  DataRoot& operator=(const DataRoot&) = delete;

  const std::string& path() const { return path_; }
  // Writes <root>/etc/larkpost.json.
  void WriteConfig(const std::string& json_text) const;
  // larkpostctl's result for `args` (after "--root <root>"), with `input`
  // on its standard input.
  ProcessResult Ctl(const std::vector<std::string>& args, const std::string& input = "") const;
  // Adds a user through larkpostctl and returns its uid.
  uint32_t AddUser(const std::string& name, const std::string& password, bool admin = false) const;
  // Runs `program` ("entry.cgi", "auth.cgi") as a CGI program.
  CgiAnswer Cgi(const std::string& program, const CgiRequest& request) const;
  // Logs in through auth.cgi: {"sid", "token", "is_admin"}; null on failure.
  Json::Value Login(const std::string& account, const std::string& password) const;
  // The lines of a file below the root ("log/sync.log").
  std::vector<std::string> Lines(const std::string& relative) const;

 private:
  std::string base_;  // what is removed at the end
  std::string path_;
};

// A lighttpd started by `larkpostctl serve` on a free loopback port.
class Server {
 public:
  explicit Server(const DataRoot& root);
  ~Server();  // Ctrl-C, as a user would
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::string url(const std::string& path) const;
  // Stops the server with SIGINT and returns its exit code.
  int Stop();

 private:
  pid_t pid_ = -1;
  int port_ = 0;
};

struct HttpAnswer {
  long status = 0;
  std::map<std::string, std::string> headers;  // names lower-cased
  std::string body;
  Json::Value json;
};

// One HTTP request with libcurl. `form` is sent urlencoded as the POST body
// when `post`, else appended to the URL.
HttpAnswer Http(const std::string& url, const std::map<std::string, std::string>& form, bool post,
                const std::map<std::string, std::string>& headers = {});

// A file part of a multipart upload: the form field, the file name the
// client sends, its bytes and their type.
struct UploadFile {
  std::string field = "upload";
  std::string name;
  std::string content;
  std::string type = "application/octet-stream";
};

// The multipart/form-data body of `fields` (as text) and `files`, with a
// fixed boundary (kBoundary), so that a test knows its size to the byte.
inline constexpr char kBoundary[] = "larkpost-test-form-boundary";
std::string MultipartBody(const std::map<std::string, std::string>& fields,
                          const std::vector<UploadFile>& files);
// POSTs MultipartBody(fields, files), the way a browser uploads.
HttpAnswer HttpUpload(const std::string& url, const std::map<std::string, std::string>& fields,
                      const std::vector<UploadFile>& files,
                      const std::map<std::string, std::string>& headers = {});

// The bytes of a file ("" when it cannot be read).
std::string ReadFile(const std::string& path);

// Percent-encodes a form value.
std::string UrlEncode(const std::string& text);

}  // namespace larkpost::itest
