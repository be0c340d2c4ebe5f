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

  // Normalises `html`, written back from an allowlist of elements,
  // attributes and URL schemes (links: http, https, mailto, ftp, tel, sms,
  // fragments and relative URLs; images also cid: and data:image/): scripts,
  // event-handler attributes, javascript: URLs, frames, forms and objects go; "cid:" references of `inline_images` become
  // the attachment download URL of the host, carrying `token`. The result is
  // always well-formed HTML. The quoted blocks at the top level (blockquote
  // elements that are not inside another one) are copied out, normalised,
  // for OriginBlockquote; the body keeps them, each marked with the
  // attribute data-larkpost-quote="N" (N its index), so that a client can
  // fold them.
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
