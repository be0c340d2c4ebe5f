// The core's HTML normaliser: makes a message's HTML safe to show in the web
// client (or to edit), rewrites its inline images and finds its quotes.
#pragma once

#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/mailcore/record.h"

namespace ornic::larkpost::html {

class ZEVO_PLATFORM_API HTMLParser {
 public:
  HTMLParser();
  ~HTMLParser();
  HTMLParser(const HTMLParser&) = delete;
  HTMLParser& operator=(const HTMLParser&) = delete;

  // On (the default) when the body is for reading: links open in a new
  // window without access to the opener. Off when a draft is edited.
  bool open_links_in_new_window = true;
  // External images stay out of "src", "background" and style url(...):
  // they move to "data-larkpost-src", "data-larkpost-background" and
  // "data-larkpost-style", for the client to load on request.
  bool block_external_image = false;
  // On when the quoted blocks are shown apart (a message read with its
  // quotes split out): each top-level quote leaves the body, and an empty
  // <blockquote data-larkpost-quote="N"></blockquote> stands where it was,
  // for the client to replace with OriginBlockquote()[N]. Off, the body
  // keeps them whole, each marked with the same attribute.
  bool split_quotes = false;

  // Normalises `html`, written back from an allowlist of elements,
  // attributes and URL schemes (links: http, https, mailto, ftp, tel, sms
  // and fragments; images http, https, cid: and data:image/): scripts,
  // event-handler attributes, javascript: URLs, frames, forms and objects
  // go. No URL of the message can reach the host: relative and
  // scheme-relative URLs, and http(s) URLs whose path holds "webapi" or
  // ".cgi", are dropped; the only host URLs in the result are the
  // attachment downloads (carrying `token`) written for the "cid:"
  // references of `inline_images`. Style keeps no positioning that can take
  // an element out of the message's box. The result is always well-formed
  // HTML. The quoted blocks at the top level (blockquote elements that are
  // not inside another one) are copied out, normalised, for
  // OriginBlockquote, each marked with the attribute data-larkpost-quote="N"
  // (N its index); see split_quotes for what the body keeps of them.
  void Normalize(const std::string& html, const std::string& token,
                 const record::InlineImageMap& inline_images);
  const std::string& GetBody() const;
  // The quoted blocks of the last Normalize, in document order.
  const std::vector<std::string>& OriginBlockquote() const;

 private:
  std::string body_;
  std::vector<std::string> blockquotes_;
};

}  // namespace ornic::larkpost::html
