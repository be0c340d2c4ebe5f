#include "appliance/tools/lighttpd_config.h"

#include <cctype>
#include <stdexcept>
#include <string>

namespace larkpost::tools {
namespace {

bool AllOf(const std::string& text, const char* extra) {
  for (char c : text) {
    if (!isalnum(static_cast<unsigned char>(c)) &&
        std::string(extra).find(c) == std::string::npos) {
      return false;
    }
  }
  return !text.empty();
}

}  // namespace

ListenAddress ParseListen(const std::string& text) {
  size_t colon = text.rfind(':');
  if (colon == std::string::npos) {
    throw std::invalid_argument("--listen wants HOST:PORT, not \"" + text + "\"");
  }
  ListenAddress address;
  address.host = text.substr(0, colon);
  std::string port = text.substr(colon + 1);
  bool host_ok;
  if (!address.host.empty() && address.host.front() == '[') {
    host_ok = address.host.size() > 2 && address.host.back() == ']' &&
              AllOf(address.host.substr(1, address.host.size() - 2), ":.") &&
              address.host.find_first_not_of("[]:.0123456789abcdefABCDEF") == std::string::npos;
  } else {
    host_ok = AllOf(address.host, ".-") && address.host.find(':') == std::string::npos;
  }
  if (!host_ok) throw std::invalid_argument("--listen: \"" + address.host + "\" is not a host");
  if (port.empty() || port.size() > 5 ||
      port.find_first_not_of("0123456789") != std::string::npos || std::stoi(port) < 1 ||
      std::stoi(port) > 65535) {
    throw std::invalid_argument("--listen: \"" + port + "\" is not a port (1 to 65535)");
  }
  address.port = std::stoi(port);
  return address;
}

std::string LighttpdString(const std::string& text) {
  std::string quoted = "\"";
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      throw std::invalid_argument("cannot pass a control character to lighttpd: \"" + text + "\"");
    }
    if (c == '\\' && (i + 1 == text.size() || text[i + 1] == '"')) {
      throw std::invalid_argument(
          "lighttpd cannot take a backslash before a quote or at the end: \"" + text + "\"");
    }
    if (c == '"') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

std::string LighttpdConfig(const ServeSettings& settings) {
  const std::string& root = settings.data_root;
  auto path = [](const std::string& p) { return LighttpdString(p); };
  int64_t request_kb = (settings.max_request_size + 1023) / 1024;

  std::string text;
  text += "# Written by larkpostctl serve at every start; edits are lost.\n";
  text += "server.modules = ( \"mod_access\", \"mod_alias\", \"mod_setenv\", \"mod_cgi\" )\n";
  text += "server.bind = " + LighttpdString(settings.listen.host) + "\n";
  text += "server.port = " + std::to_string(settings.listen.port) + "\n";
  text += "server.document-root = " + path(root + "/www") + "\n";
  text += "server.errorlog = " + path(root + "/log/lighttpd.error.log") + "\n";
  text += "server.upload-dirs = ( " + path(root + "/tmp/lighttpd") + " )\n";
  text += "server.max-request-size = " + std::to_string(request_kb) + "\n";
  // Beyond this many open connections the kernel's listen queue holds the
  // rest, at no cost to us; the programs' own bound (503 beyond it) is
  // what keeps the load in check.
  text += "server.max-connections = " + std::to_string(settings.max_connections) + "\n";
  text += "server.tag = \"larkpost\"\n";
  text += "index-file.names = ( \"index.html\" )\n";
  text +=
      "mimetype.assign = ( \".html\" => \"text/html; charset=utf-8\", "
      "\".css\" => \"text/css; charset=utf-8\", \".js\" => \"text/javascript; charset=utf-8\", "
      "\".json\" => \"application/json\", \".png\" => \"image/png\", "
      "\".svg\" => \"image/svg+xml\", \".ico\" => \"image/x-icon\" )\n";
  // Hidden files and editor leftovers in the document root stay private.
  text += "url.access-deny = ( \"~\", \".inc\" )\n";
  text += "$HTTP[\"url\"] =~ \"/\\.\" { url.access-deny = ( \"\" ) }\n";
  // The two programs are reached by their URLs alone; nothing else below
  // /webapi/ exists, and a program file is never sent as a download.
  text += "alias.url = ( \"/webapi/entry.cgi\" => " + path(settings.program_dir + "/entry.cgi") +
          ", \"/webapi/auth.cgi\" => " + path(settings.program_dir + "/auth.cgi") + " )\n";
  text += "$HTTP[\"url\"] =~ \"^/webapi/(entry|auth)\\.cgi(/|$)\" {\n";
  text += "  cgi.assign = ( \".cgi\" => \"\" )\n";
  text += "}\n";
  text += "else $HTTP[\"url\"] =~ \"^/webapi(/|$)\" {\n";
  text += "  url.access-deny = ( \"\" )\n";
  text += "}\n";
  text += "setenv.add-environment = (";
  for (size_t i = 0; i < settings.environment.size(); ++i) {
    text += i == 0 ? " " : ", ";
    text += LighttpdString(settings.environment[i].first) + " => " +
            LighttpdString(settings.environment[i].second);
  }
  text += " )\n";
  // Local additions of the administrator (or a benchmark) come last.
  text += "include " + path(root + "/etc/lighttpd.d/*.conf") + "\n";
  return text;
}

}  // namespace larkpost::tools
