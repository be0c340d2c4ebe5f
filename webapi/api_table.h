// The method table that tells the framework what the plug-in serves, and the
// entry functions it names. Only these (and the check table) are exported.
#pragma once

#include <cstddef>

#include "platform/zevo/webapi.h"
#include "webapi/export.h"

// The rows in their fixed order; the table has no terminating row (the
// framework takes its length from the symbol's size).
inline constexpr size_t kAPITableSize = 1;
LARKPOST_EXPORT extern const ZEVO::APITableEntry gTable[kAPITableSize];
LARKPOST_EXPORT const ZEVO::APITableEntry* GetAPITable();

LARKPOST_EXPORT void InfoGetInfo_v1(ZEVO::APIRequest* request, ZEVO::APIResponse* response);
