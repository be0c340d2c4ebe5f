// Account passwords at rest: sealed with libsodium's secret box under a key
// that lives in the data root's etc/secret.key (32 random bytes, mode 0600,
// made by the first process that needs it). Sending and fetch accounts keep
// only sealed texts in the user's store; a password is opened only to be
// handed to its own server.
#pragma once

#include <string>

#include "appliance/mailcore/controller_impl.h"

namespace ornic::larkpost::store {

// <root>/etc/secret.key
std::string SecretKeyPath();

// The sealed form of `plain`: "sb1:" and the base64 of a fresh nonce and the
// ciphertext. "" stays "" (no password). Throws ornic::Error(kErrorStorage)
// when the key cannot be read or made.
std::string SealSecret(const std::string& plain);

// Whether `stored` is a sealed text (else it is a password kept in plain
// text before passwords were sealed).
bool IsSealed(const std::string& stored);

// The password in `stored`: opened when sealed, as it is otherwise. Throws
// ornic::Error(kErrorStorage) when a sealed text does not open under the key
// (a damaged text, or a key that is not the one it was sealed with).
std::string OpenSecret(const std::string& stored);

// Seals every password of `table`.`column` still kept in plain text, in one
// transaction (of its own: call it outside any other). The table needs an
// integer column "id".
void SealPlainSecrets(Database& db, const std::string& table, const std::string& column);

}  // namespace ornic::larkpost::store
