// The same fixed answer from a C++ program that uses the standard library,
// as every C++ CGI program does: it shows what loading the C++ run-time costs
// on its own, apart from anything the host does.
#include <iostream>
#include <string>

int main() {
  const std::string body =
      "{\"data\":{\"database_ready\":true,\"fts_enabled\":true,\"max_upload_size\":10485760,"
      "\"smtp_hostname\":\"\"},\"success\":true}";
  std::cout << "Content-Type: application/json; charset=utf-8\r\nContent-Length: " << body.size()
            << "\r\n\r\n"
            << body;
  return 0;
}
