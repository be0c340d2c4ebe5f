// Log lines of the plug-in: the system log at facility local1, level error
// (priority 139), each line "<unit>:<line> <message>". A source unit defines
// `kLogUnit` (its own name: "thread", "message", ...) before using WEBAPI_LOG,
// and writes the format with its leading "%s:%d ".
#pragma once

#include <syslog.h>

#define WEBAPI_LOG(format, ...) \
  syslog(LOG_LOCAL1 | LOG_ERR, format, kLogUnit, __LINE__, ##__VA_ARGS__)
