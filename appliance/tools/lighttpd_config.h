// The web server configuration that `larkpostctl serve` writes: lighttpd in
// front of the two CGI host programs, serving nothing else but the static
// files of the document root.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace larkpost::tools {

struct ListenAddress {
  std::string host;  // "127.0.0.1", "localhost", or "[::1]" (brackets kept)
  int port = 0;
};

// Parses "HOST:PORT" or "[IPV6]:PORT". Throws std::invalid_argument with a
// message for the user.
ListenAddress ParseListen(const std::string& text);

// `text` as a lighttpd string literal. lighttpd knows one escape only, \",
// so a text with a backslash before a quote or at its end, or with a
// control character, cannot be written: std::invalid_argument.
std::string LighttpdString(const std::string& text);

struct ServeSettings {
  ListenAddress listen;
  std::string data_root;                                         // absolute
  std::string program_dir;                                       // where entry.cgi and auth.cgi are
  int64_t max_request_size = 0;                                  // bytes
  int max_connections = 256;                                     // open at once
  std::vector<std::pair<std::string, std::string>> environment;  // for the CGI programs
};

// The configuration text. Throws std::invalid_argument when a path or a
// value cannot be written in lighttpd's syntax.
std::string LighttpdConfig(const ServeSettings& settings);

}  // namespace larkpost::tools
