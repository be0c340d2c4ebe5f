// The user's stored settings as the settings methods show them. No converter
// ever writes a password (the records carry none), nor "fetch_pass_days".
#pragma once

#include <json/value.h>

#include "platform/mailcore/record.h"

namespace ornic::larkpost::webapi::format {

// {"id", "mail", "server_provider", "host_name", "port" (unsigned),
// "user_name", "enable_ssl", "delete_after_fetch", "mailbox_path"}.
Json::Value POP3ToJson(const record::POP3Config& config);

// {"id", "display_name", "mail", "host_name", "port" (unsigned), "user_name",
// "connection_type", "signature"}.
Json::Value SMTPToJson(const record::SMTPConfig& config);

// The twelve general preferences under their own names; the composer's
// settings and "codepage" are texts, whatever they look like.
Json::Value GeneralSettingToJson(const record::GeneralConfig& config);

}  // namespace ornic::larkpost::webapi::format
