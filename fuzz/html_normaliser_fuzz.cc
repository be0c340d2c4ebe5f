// The HTML normaliser. Invariants: its output normalises to itself
// (checked without inline images, whose download URLs the normaliser keeps
// only when it writes them itself from a "cid:"), and its output, read as a
// browser reads it, holds no element, attribute or URL outside the
// allowlist. Input: one byte of options, then the HTML.
#include <gumbo.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "fuzz/fuzz_util.h"
#include "platform/mailcore/html_parser.h"

namespace html = ornic::larkpost::html;
using larkpost::fuzz::Broken;

namespace {

constexpr std::string_view kDownload =
    "/webapi/entry.cgi?api=zevo.larkpost.attachment&version=1&method=download&id=";

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// A URL as a browser sees past its controls (tabs and line ends go
// anywhere), its blanks at either end, and case.
std::string Folded(std::string_view value) {
  std::string out;
  for (char c : value) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f || (u == ' ' && out.empty())) continue;
    out.push_back(c == '\\' ? '/' : static_cast<char>(std::tolower(u)));
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

// The path of an http(s) URL, percent-decoded until it stays the same.
std::string PathOf(const std::string& url) {
  const size_t host = url.find_first_not_of('/', url.find(':') + 1);
  const size_t path = url.find_first_of("/?#", std::min(host, url.size()));
  if (path == std::string::npos || url[path] != '/') return "";
  std::string text = url.substr(path, url.find_first_of("?#", path) - path);
  for (int round = 0; round < 4; ++round) {
    std::string decoded;
    for (size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '%' && i + 2 < text.size() &&
          std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
          std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
        decoded.push_back(static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)));
        i += 2;
      } else {
        decoded.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(text[i]))));
      }
    }
    if (decoded == text) break;
    text = decoded;
  }
  return text;
}

// An http(s) URL elsewhere: a path that reaches no web API of ours.
bool IsWebUrl(const std::string& url) {
  if (!StartsWith(url, "http://") && !StartsWith(url, "https://")) return false;
  const std::string path = PathOf(url);
  return path.find("webapi") == std::string::npos && path.find(".cgi") == std::string::npos;
}

bool IsOwnDownload(const std::string& url) {
  if (!StartsWith(url, kDownload)) return false;
  const std::string rest = url.substr(kDownload.size());
  const size_t digits = rest.find_first_not_of("0123456789");
  return digits > 0 && digits != std::string::npos && rest.substr(digits) == "&_token=tok";
}

bool IsAllowedLink(const std::string& url) {
  return url.empty() || url[0] == '#' || IsWebUrl(url) || StartsWith(url, "mailto:") ||
         StartsWith(url, "ftp:") || StartsWith(url, "tel:") || StartsWith(url, "sms:");
}

bool IsAllowedImage(const std::string& url, bool own_downloads) {
  return url.empty() || IsWebUrl(url) || StartsWith(url, "data:image/") ||
         (own_downloads && IsOwnDownload(url));
}

void CheckAttribute(const GumboAttribute& attribute, bool own_downloads) {
  const std::string name = attribute.name;
  const std::string url = Folded(attribute.value);
  if (StartsWith(name, "on")) Broken("event handler attribute " + name);
  if (StartsWith(name, "data-") && name != "data-larkpost-src" &&
      name != "data-larkpost-background" && name != "data-larkpost-style" &&
      name != "data-larkpost-quote") {
    Broken("data attribute " + name);
  }
  if (name == "href" || name == "cite" || name == "longdesc") {
    if (!IsAllowedLink(url)) Broken(name + " URL " + attribute.value);
  } else if (name == "src" || name == "background" || name == "data-larkpost-src" ||
             name == "data-larkpost-background") {
    if (!IsAllowedImage(url, own_downloads)) Broken(name + " URL " + attribute.value);
  } else if (name == "style" || name == "data-larkpost-style") {
    // CSS, judged without its blanks.
    std::string css;
    for (char c : url) {
      if (c != ' ') css.push_back(c);
    }
    if (css.find("expression(") != std::string::npos) Broken("style with expression()");
    // Each declaration: no property that binds code, no position that takes
    // an element out of the flow.
    for (size_t start = 0; start < css.size();) {
      const size_t end = std::min(css.find(';', start), css.size());
      const std::string declaration = css.substr(start, end - start);
      start = end + 1;
      const size_t colon = declaration.find(':');
      if (colon == std::string::npos) continue;
      const std::string property = declaration.substr(0, colon);
      if (property == "behavior" || property == "-moz-binding") Broken("style with " + property);
      if (property != "position") continue;
      const std::string value = declaration.substr(colon + 1);
      if (value != "static" && value != "relative") Broken("style with position:" + value);
    }
    for (size_t at = 0; name == "style" && (at = css.find("url(", at)) != std::string::npos;) {
      at += 4;
      std::string inner = css.substr(at, css.find(')', at) - at);
      inner.erase(std::remove(inner.begin(), inner.end(), '"'), inner.end());
      inner.erase(std::remove(inner.begin(), inner.end(), '\''), inner.end());
      if (!IsAllowedImage(inner, own_downloads)) Broken("style url " + inner);
    }
  } else if (name == "srcset" || name == "action" || name == "formaction" || name == "poster" ||
             name == "xlink:href" || name == "usemap" || name == "lowsrc" || name == "dynsrc" ||
             name == "http-equiv" || name == "srcdoc") {
    Broken("attribute " + name);
  }
}

void CheckNode(const GumboNode* node, bool own_downloads) {
  if (node->type != GUMBO_NODE_ELEMENT && node->type != GUMBO_NODE_TEMPLATE) return;
  const GumboElement& element = node->v.element;
  if (element.tag_namespace != GUMBO_NAMESPACE_HTML) Broken("foreign element");
  switch (element.tag) {
    case GUMBO_TAG_UNKNOWN:
    case GUMBO_TAG_SCRIPT:
    case GUMBO_TAG_STYLE:
    case GUMBO_TAG_IFRAME:
    case GUMBO_TAG_FRAME:
    case GUMBO_TAG_FRAMESET:
    case GUMBO_TAG_OBJECT:
    case GUMBO_TAG_EMBED:
    case GUMBO_TAG_APPLET:
    case GUMBO_TAG_FORM:
    case GUMBO_TAG_INPUT:
    case GUMBO_TAG_BUTTON:
    case GUMBO_TAG_SELECT:
    case GUMBO_TAG_TEXTAREA:
    case GUMBO_TAG_BASE:
    case GUMBO_TAG_META:
    case GUMBO_TAG_LINK:
    case GUMBO_TAG_TEMPLATE:
    case GUMBO_TAG_NOSCRIPT:
    case GUMBO_TAG_PARAM:
    case GUMBO_TAG_VIDEO:
    case GUMBO_TAG_AUDIO:
    case GUMBO_TAG_SOURCE:
    case GUMBO_TAG_CANVAS:
    case GUMBO_TAG_TITLE:
    case GUMBO_TAG_XMP:
    case GUMBO_TAG_PLAINTEXT:
      Broken(std::string("element ") + gumbo_normalized_tagname(element.tag));
    default:
      break;
  }
  for (unsigned i = 0; i < element.attributes.length; ++i) {
    CheckAttribute(*static_cast<const GumboAttribute*>(element.attributes.data[i]), own_downloads);
  }
  for (unsigned i = 0; i < element.children.length; ++i) {
    CheckNode(static_cast<const GumboNode*>(element.children.data[i]), own_downloads);
  }
}

void CheckAllowlist(const std::string& body, bool own_downloads) {
  GumboOutput* output = gumbo_parse_with_options(&kGumboDefaultOptions, body.data(), body.size());
  CheckNode(output->root, own_downloads);
  gumbo_destroy_output(&kGumboDefaultOptions, output);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
  const ornic::larkpost::record::InlineImageMap images = {{"img1@x", {"a.png", 3}},
                                                          {"logo", {"logo.gif", 12}}};
  html::HTMLParser parser;
  parser.open_links_in_new_window = data[0] & 1;
  parser.block_external_image = data[0] & 2;
  parser.split_quotes = data[0] & 4;
  parser.Normalize(input, "tok", images);
  CheckAllowlist(parser.GetBody(), true);
  for (const std::string& quote : parser.OriginBlockquote()) CheckAllowlist(quote, true);

  // Idempotence, without the quotes split out (a placeholder is a quote of
  // its own on a second pass) and without inline images.
  html::HTMLParser plain;
  plain.open_links_in_new_window = parser.open_links_in_new_window;
  plain.block_external_image = parser.block_external_image;
  plain.Normalize(input, "tok", {});
  const std::string once = plain.GetBody();
  plain.Normalize(once, "tok", {});
  if (plain.GetBody() != once) {
    Broken("normalising the output changes it:\n" + once + "\n---\n" + plain.GetBody());
  }
  return 0;
}
