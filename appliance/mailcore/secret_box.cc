#include "appliance/mailcore/secret_box.h"

#include <errno.h>
#include <fcntl.h>
#include <sodium.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "appliance/system/appliance.h"
#include "platform/mailcore/error.h"

namespace ornic::larkpost::store {
namespace {

namespace appliance = ::larkpost::appliance;

constexpr char kPrefix[] = "sb1:";
constexpr size_t kPrefixSize = sizeof kPrefix - 1;

using Key = std::vector<unsigned char>;

[[noreturn]] void Fail(int line, const std::string& text) {
  LogError("secret_box", line, text);
  throw Error(kErrorStorage);
}

bool ReadKey(const std::string& path, Key* key) {
  int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return false;
    Fail(__LINE__, path + ": " + strerror(errno));
  }
  key->assign(crypto_secretbox_KEYBYTES, 0);
  ssize_t got = read(fd, key->data(), key->size());
  close(fd);
  if (got != static_cast<ssize_t>(key->size())) Fail(__LINE__, path + " is not a key");
  return true;
}

// A new key is written whole to a file of its own and then linked to its
// name: two processes that make one at once agree on the one that was
// linked first, and no reader ever sees half a key.
Key MakeKey(const std::string& path) {
  Key key(crypto_secretbox_KEYBYTES);
  crypto_secretbox_keygen(key.data());
  appliance::MakeDirs(appliance::EtcDir());
  std::string temp = path + ".XXXXXX";
  int fd = mkstemp(temp.data());
  if (fd < 0) Fail(__LINE__, temp + ": " + strerror(errno));
  bool written = fchmod(fd, 0600) == 0 &&
                 write(fd, key.data(), key.size()) == static_cast<ssize_t>(key.size()) &&
                 fsync(fd) == 0;
  close(fd);
  const bool linked = written && link(temp.c_str(), path.c_str()) == 0;
  const int link_error = errno;
  unlink(temp.c_str());
  if (!written) Fail(__LINE__, temp + ": " + strerror(link_error));
  if (linked) return key;
  if (link_error != EEXIST) Fail(__LINE__, path + ": " + strerror(link_error));
  if (!ReadKey(path, &key)) Fail(__LINE__, path + " vanished");
  return key;
}

// The key of the current data root, read once per root.
const Key& TheKey() {
  static std::mutex mutex;
  static std::pair<std::string, Key> known;
  std::lock_guard<std::mutex> lock(mutex);
  if (sodium_init() < 0) Fail(__LINE__, "libsodium cannot be initialised");
  const std::string path = SecretKeyPath();
  if (known.first != path) {
    Key key;
    if (!ReadKey(path, &key)) key = MakeKey(path);
    known = {path, std::move(key)};
  }
  return known.second;
}

}  // namespace

std::string SecretKeyPath() { return appliance::EtcDir() + "/secret.key"; }

bool IsSealed(const std::string& stored) { return stored.compare(0, kPrefixSize, kPrefix) == 0; }

std::string SealSecret(const std::string& plain) {
  if (plain.empty()) return "";
  const Key& key = TheKey();
  std::vector<unsigned char> box(crypto_secretbox_NONCEBYTES + crypto_secretbox_MACBYTES +
                                 plain.size());
  randombytes_buf(box.data(), crypto_secretbox_NONCEBYTES);
  crypto_secretbox_easy(box.data() + crypto_secretbox_NONCEBYTES,
                        reinterpret_cast<const unsigned char*>(plain.data()), plain.size(),
                        box.data(), key.data());
  const int variant = sodium_base64_VARIANT_ORIGINAL;
  std::string text(sodium_base64_encoded_len(box.size(), variant), '\0');
  sodium_bin2base64(text.data(), text.size(), box.data(), box.size(), variant);
  text.resize(strlen(text.c_str()));
  return kPrefix + text;
}

std::string OpenSecret(const std::string& stored) {
  if (!IsSealed(stored)) return stored;
  const Key& key = TheKey();
  std::vector<unsigned char> box(stored.size());
  size_t size = 0;
  if (sodium_base642bin(box.data(), box.size(), stored.data() + kPrefixSize,
                        stored.size() - kPrefixSize, nullptr, &size, nullptr,
                        sodium_base64_VARIANT_ORIGINAL) != 0 ||
      size < crypto_secretbox_NONCEBYTES + crypto_secretbox_MACBYTES) {
    Fail(__LINE__, "a sealed password is damaged");
  }
  std::string plain(size - crypto_secretbox_NONCEBYTES - crypto_secretbox_MACBYTES, '\0');
  if (crypto_secretbox_open_easy(reinterpret_cast<unsigned char*>(plain.data()),
                                 box.data() + crypto_secretbox_NONCEBYTES,
                                 size - crypto_secretbox_NONCEBYTES, box.data(), key.data()) != 0) {
    Fail(__LINE__, "a sealed password does not open under " + SecretKeyPath());
  }
  return plain;
}

void SealPlainSecrets(Database& db, const std::string& table, const std::string& column) {
  const std::string plain_rows = "SELECT id, " + column + " FROM " + table + " WHERE " + column +
                                 " <> '' AND substr(" + column + ", 1, 4) <> 'sb1:'";
  {
    // Most stores have none: a read, no lock.
    Statement any(db, (plain_rows + " LIMIT 1").c_str());
    if (!any.Step()) return;
  }
  Transaction transaction(db);
  Statement rows(db, plain_rows.c_str());
  std::vector<std::pair<int64_t, std::string>> found;
  while (rows.Step()) found.emplace_back(rows.Int64(0), rows.Text(1));
  Statement update(db, ("UPDATE " + table + " SET " + column + " = ?2 WHERE id = ?1").c_str());
  for (const auto& [id, plain] : found) {
    update.Bind(1, id).Bind(2, SealSecret(plain));
    update.Run();
    update.Reset();
  }
  transaction.Commit();
}

}  // namespace ornic::larkpost::store
