#include "webapi/format/setting.h"

namespace ornic::larkpost::webapi::format {

Json::Value POP3ToJson(const record::POP3Config& config) {
  Json::Value json(Json::objectValue);
  json["id"] = config.id;
  json["mail"] = config.mail;
  json["server_provider"] = config.server_provider;
  json["host_name"] = config.host_name;
  json["port"] = Json::UInt(config.port);
  json["user_name"] = config.user_name;
  json["enable_ssl"] = config.enable_ssl;
  json["delete_after_fetch"] = config.delete_after_fetch;
  json["mailbox_path"] = config.mailbox_path;
  return json;
}

Json::Value SMTPToJson(const record::SMTPConfig& config) {
  Json::Value json(Json::objectValue);
  json["id"] = config.id;
  json["display_name"] = config.display_name;
  json["mail"] = config.mail;
  json["host_name"] = config.host_name;
  json["port"] = Json::UInt(config.port);
  json["user_name"] = config.user_name;
  json["connection_type"] = config.connection_type;
  json["signature"] = config.signature;
  return json;
}

Json::Value GeneralSettingToJson(const record::GeneralConfig& config) {
  Json::Value json(Json::objectValue);
  json["conversations_per_page"] = config.conversations_per_page;
  json["display_external_image"] = config.display_external_image;
  json["mark_as_read_time"] = config.mark_as_read_time;
  json["enable_signature"] = config.enable_signature;
  json["update_interval_time"] = config.update_interval_time;
  json["split_pane_mode"] = config.split_pane_mode;
  json["preview_layout"] = config.preview_layout;
  json["theme"] = config.theme;
  json["composer_fontname"] = config.composer_fontname;
  json["composer_fontsize"] = config.composer_fontsize;
  json["composer_forecolor"] = config.composer_forecolor;
  json["codepage"] = config.codepage;
  return json;
}

}  // namespace ornic::larkpost::webapi::format
