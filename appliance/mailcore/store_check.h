// The integrity check of a user's store: SQLite's own checks, then every
// invariant that the store's triggers and operations keep (counters, thread
// lists, the full-text index, attachment ranges, no orphans), and the
// user's application folders. It only reads: a read snapshot and tables of
// its own in the connection's temporary schema.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace larkpost::appliance::sqlite {
class Database;
}

namespace ornic::larkpost::store {

// What is wrong with the store `db` of user `uid`, one finding a line, in
// wording that does not change (scripts and tests match it); empty when
// everything holds. Files in the user's application folders count once no
// record has referred to them for the upload sweep's grace period. Throws
// ::larkpost::appliance::sqlite::Error when the store cannot be read.
std::vector<std::string> CheckStore(::larkpost::appliance::sqlite::Database& db, uint32_t uid);

// The same for the store of `uid`, opened for the check alone (it must
// exist).
std::vector<std::string> CheckStore(uint32_t uid);

}  // namespace ornic::larkpost::store
