// larkpost-cgi: the full CGI host.
//
//   larkpost-cgi entry          serve one entry.cgi request (CGI)
//   larkpost-cgi auth           serve one auth.cgi request (CGI)
//   larkpost-cgi serve SOCKET   the preloaded host behind entry.cgi and
//                               auth.cgi (larkpostctl serve starts it)
//
// entry.cgi and auth.cgi are small programs that hand their request to the
// preloaded host, or run this program with "entry" / "auth" when there is
// none; argv[0] then stays theirs.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "appliance/framework/host.h"
#include "appliance/framework/request_limits.h"
#include "appliance/system/appliance.h"

int main(int argc, char** argv) {
  using larkpost::cgi::RunAuthProgram;
  using larkpost::cgi::RunEntryProgram;
  const std::string mode = argc >= 2 ? argv[1] : "";
  if (argc == 2 && (mode == "entry" || mode == "auth")) {
    // Without the preloaded host, the web server's own connection limit is
    // the only bound on how many run; the time limit is the same.
    larkpost::appliance::Config limits;
    try {
      limits = larkpost::appliance::GetConfig();
    } catch (const std::exception&) {
      // the request reports it
    }
    larkpost::cgi::StartTimeLimit(limits.request_time_limit);
    const int status = mode == "entry" ? RunEntryProgram() : RunAuthProgram();
    larkpost::cgi::StopTimeLimit();
    return status;
  }
  if (argc == 3 && mode == "serve") {
    // The argument strings lie one after the other: the area that
    // /proc/self/cmdline shows.
    char* begin = argv[0];
    char* end = argv[argc - 1] + std::strlen(argv[argc - 1]) + 1;
    return larkpost::cgi::ServePreloaded(argv[2], begin, static_cast<size_t>(end - begin));
  }
  std::fprintf(stderr, "usage: larkpost-cgi entry | auth | serve SOCKET\n");
  return 2;
}
