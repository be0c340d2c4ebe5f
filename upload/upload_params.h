// Decoding of the form fields of a multipart upload.
#pragma once

#include "platform/zevo/webapi.h"
#include "webapi/export.h"

namespace ZEVO {

// A multipart form delivers every field as text, so 5, true and [1, 2] arrive
// as strings that the typed readers would refuse. For an upload request this
// replaces the parameter set, once and before any parameter is read, by one in
// which each text field is parsed as JSON; a text that is not JSON is dropped
// (a required field then reads as missing). "file" and "file_tmp", which
// describe the stored upload, and values that are not strings are kept as
// they are. A request that is not an upload is left untouched. Reports
// nothing; exceptions of the framework or the JSON library propagate.
LARKPOST_EXPORT void DecodeUploadParams(APIRequest* request);

}  // namespace ZEVO
