/* The cheapest possible CGI answer, the baseline that entry.cgi's
 * per-request cost is measured against. */
#include <stdio.h>

int main(void) {
  static const char body[] =
      "{\"data\":{\"database_ready\":true,\"fts_enabled\":true,\"max_upload_size\":10485760,"
      "\"smtp_hostname\":\"\"},\"success\":true}";
  printf("Content-Type: application/json; charset=utf-8\r\nContent-Length: %zu\r\n\r\n%s",
         sizeof(body) - 1, body);
  return 0;
}
