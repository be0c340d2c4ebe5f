// The handler base classes: what every request's handler object holds (the
// request, the response, the calling user and the user's core session) and
// the shared outputs.
#pragma once

#include <cstdint>
#include <string>

#include "platform/mailcore/controller.h"
#include "platform/zevo/webapi.h"

namespace ornic::larkpost::webapi {

// Bits of `additional_`, set from the request's "additional" words.
enum Additional : int32_t {
  ADDITIONAL_BLOCKQUOTE = 1,            // "blockquote"
  ADDITIONAL_BODY_PREVIEW = 2,          // "body_preview"
  ADDITIONAL_UNREAD_COUNT = 4,          // "unread_count"
  ADDITIONAL_DRAFT_TOTAL_COUNT = 8,     // "draft_total_count"
  ADDITIONAL_BLOCK_EXTERNAL_IMAGE = 16  // "block_external_image"
};

// The program name as the system knows it: the text of `cmdline_path` up to
// the first blank or its end, cut at the first NUL, without its directory.
// "" when the file cannot be read.
std::string ReadProgramName(const char* cmdline_path);

// Closes the system log and opens it again under `ident`. The log keeps the
// pointer it is given, so the text is kept in storage that outlives every
// handler object.
void ReopenSystemLog(const std::string& ident);

class BaseAPI {
 public:
  BaseAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response);
  virtual ~BaseAPI();
  BaseAPI(const BaseAPI&) = delete;
  BaseAPI& operator=(const BaseAPI&) = delete;

  // Creates `name` below the user's application directory and returns its
  // path.
  virtual std::string PrepareUserLarkpostDir(const std::string& name) = 0;

  // Sets the bits of `additional_` for the words of the optional request
  // array "additional"; unknown words are ignored.
  void ParseAdditional();

  // The whole CGI answer of a streaming method that found nothing to send.
  void Output404NotFound();

 protected:
  ZEVO::APIRequest* request_;
  ZEVO::APIResponse* response_;
  uint32_t uid_;
  std::string session_id_;
  int32_t additional_;
  std::string process_name_;
  std::string log_name_;
};

// A handler for a user whom the framework has established.
class NormalAPI : public BaseAPI {
 public:
  NormalAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response);
  ~NormalAPI() override;

  std::string PrepareUserLarkpostDir(const std::string& name) override;

 protected:
  control::Controller controller_;
  std::string log_ident_;
};

// A handler that may reach the plug-in without an established user and then
// authenticates the request's session id itself.
class CustomAuthAPI : public BaseAPI {
 public:
  CustomAuthAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response);
  ~CustomAuthAPI() override;

  std::string PrepareUserLarkpostDir(const std::string& name) override;

  // The login uid when the framework knew it, else the owner of the
  // request's session. Throws ornic::Error(105) when neither is known.
  uint32_t GetAuthUID();

 protected:
  control::Controller controller_;
  std::string log_ident_;
};

}  // namespace ornic::larkpost::webapi
