// What libcurl's result codes mean for the core's mail clients (SMTP for
// sending, POP3 for fetching): shared so that both name a server that could
// not be reached the same way.
#pragma once

#include <curl/curl.h>

namespace ornic::larkpost::store {

// The server could not be reached, or no trusted TLS session came about:
// nothing was said to it.
inline bool IsUnreachable(CURLcode result) {
  switch (result) {
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_USE_SSL_FAILED:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
      return true;
    default:
      return false;
  }
}

}  // namespace ornic::larkpost::store
