#include "webapi/api_table.h"

#include "webapi/entry.h"
#include "webapi/info.h"

using ornic::larkpost::webapi::InfoAPI;
using ornic::larkpost::webapi::RunEntry;

void InfoGetInfo_v1(ZEVO::APIRequest* request, ZEVO::APIResponse* response) {
  RunEntry<InfoAPI, &InfoAPI::GetInfo_v1>(request, response);
}

const ZEVO::APITableEntry gTable[kAPITableSize] = {
    {"ZEVO.Larkpost.Info", 1, "getinfo", InfoGetInfo_v1},
};

const ZEVO::APITableEntry* GetAPITable() { return gTable; }
