// Libraries of the core that most requests never need (MIME parsing and
// building pull in GMime, GLib and a dozen more; sending pulls in libcurl).
// They are loaded on first use, from the directory that holds the core's own
// library, so that a web request that only reads the store does not pay for
// them at start-up.
#pragma once

namespace ornic::larkpost::store {

// The address of `symbol` (an extern "C" function) in the core library
// `file_name` ("liblarkpost_mime.so"). The library is loaded once per
// process and stays. Throws ornic::Error(kErrorStorage) when it cannot be
// loaded or lacks the symbol; the loader's message goes to the system log.
void* LazySymbol(const char* file_name, const char* symbol);

// Typed form: LazyFunction<int(const char*)>("liblarkpost_send.so", "f").
template <typename Signature>
Signature* LazyFunction(const char* file_name, const char* symbol) {
  return reinterpret_cast<Signature*>(LazySymbol(file_name, symbol));
}

}  // namespace ornic::larkpost::store
