// The plug-in is built with hidden visibility; only what the framework looks
// up (the two tables, their accessors, the entry functions and the upload
// decoder) is marked for export. The linker's version script
// (webapi/larkpost_webapi.map) holds the same list.
#pragma once

#define LARKPOST_EXPORT __attribute__((visibility("default")))
