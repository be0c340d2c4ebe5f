// The store's schema, built by numbered migrations (db_setup.cc). Private to
// the core: DBSetupHandler is the way in for everyone else.
#pragma once

#include "appliance/mailcore/controller_impl.h"

namespace ornic::larkpost::store {

// Applies the migrations that `db` has not had yet, in order, each in a
// transaction of its own; with `version` > 0 only those up to that schema.
// False (logged) when the store is newer than this program. Throws
// ::larkpost::appliance::sqlite::Error when a step fails; that step leaves
// nothing behind.
bool MigrateSchema(Database& db, int version = 0);

// The number of the newest migration: the schema of an up-to-date store.
int NewestSchemaVersion();

}  // namespace ornic::larkpost::store
