// The check table: for most methods a checker that the framework runs before
// the entry function. A checker reads the method's parameters and either lets
// the request through (true, response untouched) or writes error 120 with
// {"name", "reason"} once and answers false, and the framework then skips the
// entry function. Methods without a row are not pre-checked.
#pragma once

#include "platform/zevo/webapi.h"
#include "webapi/export.h"

// 50 rows in their fixed order, then one row of zeros that ends the table.
LARKPOST_EXPORT extern const ZEVO::APICheckEntry gCheckTable[];
// The first row, read through the exported symbol.
LARKPOST_EXPORT const ZEVO::APICheckEntry* GetAPICheckTable();
