// The HTML normaliser. The message's HTML goes through an HTML5 parser
// (gumbo), so that we see the same tree a browser would build from it, and
// the tree is written out again through a whitelist: known elements and
// attributes only, every text and value escaped, every element closed. What
// the client gets is therefore well-formed whatever came in, and parsing it
// again gives the same tree (Normalize is idempotent, but for the inline
// images' download URLs, which only a "cid:" of the message itself gives).
//
// Elements are kept, unwrapped (the element goes, its content stays: unknown
// tags such as the <o:p> of office programs, <form>, <label>) or dropped with
// their content (scripts, styles, frames, plug-ins, form controls, SVG and
// MathML, whose parsing rules differ enough to be a risk of their own).
//
// URLs are judged after removing white space and control characters and
// folding case, as a browser's URL parser would see past them:
// "jav&#x09;ascript:" is javascript. Links may use http, https, mailto, ftp,
// tel and sms, or be fragments; images http, https, "cid:" (rewritten to the
// attachment download) and "data:image/". Anything else is dropped, relative
// URLs first: mail has no address of its own, so they would reach the web
// client's server, with the reader's session.
//
// Attributes of our own that the client relies on: data-larkpost-src and
// data-larkpost-background (an external image held back),
// data-larkpost-style (style declarations that load external images, held
// back) and data-larkpost-quote (the index of a top-level quote). Other
// data-* attributes from the message are dropped; our own are kept when they
// pass the same checks, so that normalised HTML normalises to itself.
#include "platform/mailcore/html_parser.h"

#include <gumbo.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ornic::larkpost::html {
namespace {

constexpr char kDownloadPrefix[] =
    "/webapi/entry.cgi?api=ZEVO.Larkpost.Attachment&version=1&method=download&id=";

// Browsers stop nesting elements at a depth of a few hundred; gumbo does not,
// and its time grows with the square of the depth (a hostile half megabyte
// of "<div>" takes it many seconds). Start tags that would open deeper than
// this are taken out before parsing; their content stays.
constexpr size_t kMaxDepth = 512;

enum class Policy { kKeep, kUnwrap, kDrop };

Policy ElementPolicy(const GumboElement& element) {
  if (element.tag_namespace != GUMBO_NAMESPACE_HTML) return Policy::kDrop;
  switch (element.tag) {
    case GUMBO_TAG_ADDRESS:
    case GUMBO_TAG_ARTICLE:
    case GUMBO_TAG_ASIDE:
    case GUMBO_TAG_FOOTER:
    case GUMBO_TAG_HEADER:
    case GUMBO_TAG_HGROUP:
    case GUMBO_TAG_MAIN:
    case GUMBO_TAG_NAV:
    case GUMBO_TAG_SECTION:
    case GUMBO_TAG_H1:
    case GUMBO_TAG_H2:
    case GUMBO_TAG_H3:
    case GUMBO_TAG_H4:
    case GUMBO_TAG_H5:
    case GUMBO_TAG_H6:
    case GUMBO_TAG_P:
    case GUMBO_TAG_HR:
    case GUMBO_TAG_PRE:
    case GUMBO_TAG_LISTING:
    case GUMBO_TAG_BLOCKQUOTE:
    case GUMBO_TAG_OL:
    case GUMBO_TAG_UL:
    case GUMBO_TAG_LI:
    case GUMBO_TAG_DIR:
    case GUMBO_TAG_DL:
    case GUMBO_TAG_DT:
    case GUMBO_TAG_DD:
    case GUMBO_TAG_FIGURE:
    case GUMBO_TAG_FIGCAPTION:
    case GUMBO_TAG_DIV:
    case GUMBO_TAG_CENTER:
    case GUMBO_TAG_A:
    case GUMBO_TAG_EM:
    case GUMBO_TAG_STRONG:
    case GUMBO_TAG_SMALL:
    case GUMBO_TAG_BIG:
    case GUMBO_TAG_S:
    case GUMBO_TAG_STRIKE:
    case GUMBO_TAG_CITE:
    case GUMBO_TAG_Q:
    case GUMBO_TAG_DFN:
    case GUMBO_TAG_ABBR:
    case GUMBO_TAG_ACRONYM:
    case GUMBO_TAG_DATA:
    case GUMBO_TAG_TIME:
    case GUMBO_TAG_CODE:
    case GUMBO_TAG_VAR:
    case GUMBO_TAG_SAMP:
    case GUMBO_TAG_KBD:
    case GUMBO_TAG_TT:
    case GUMBO_TAG_SUB:
    case GUMBO_TAG_SUP:
    case GUMBO_TAG_I:
    case GUMBO_TAG_B:
    case GUMBO_TAG_U:
    case GUMBO_TAG_MARK:
    case GUMBO_TAG_FONT:
    case GUMBO_TAG_NOBR:
    case GUMBO_TAG_RUBY:
    case GUMBO_TAG_RB:
    case GUMBO_TAG_RT:
    case GUMBO_TAG_RTC:
    case GUMBO_TAG_RP:
    case GUMBO_TAG_BDI:
    case GUMBO_TAG_BDO:
    case GUMBO_TAG_SPAN:
    case GUMBO_TAG_BR:
    case GUMBO_TAG_WBR:
    case GUMBO_TAG_INS:
    case GUMBO_TAG_DEL:
    case GUMBO_TAG_IMG:
    case GUMBO_TAG_TABLE:
    case GUMBO_TAG_CAPTION:
    case GUMBO_TAG_COLGROUP:
    case GUMBO_TAG_COL:
    case GUMBO_TAG_TBODY:
    case GUMBO_TAG_THEAD:
    case GUMBO_TAG_TFOOT:
    case GUMBO_TAG_TR:
    case GUMBO_TAG_TD:
    case GUMBO_TAG_TH:
    case GUMBO_TAG_DETAILS:
    case GUMBO_TAG_SUMMARY:
    case GUMBO_TAG_FIELDSET:
    case GUMBO_TAG_LEGEND:
      return Policy::kKeep;
    case GUMBO_TAG_HEAD:
    case GUMBO_TAG_TITLE:
    case GUMBO_TAG_BASE:
    case GUMBO_TAG_LINK:
    case GUMBO_TAG_META:
    case GUMBO_TAG_STYLE:
    case GUMBO_TAG_SCRIPT:
    case GUMBO_TAG_NOSCRIPT:
    case GUMBO_TAG_TEMPLATE:
    case GUMBO_TAG_IFRAME:
    case GUMBO_TAG_FRAME:
    case GUMBO_TAG_FRAMESET:
    case GUMBO_TAG_NOFRAMES:
    case GUMBO_TAG_EMBED:
    case GUMBO_TAG_NOEMBED:
    case GUMBO_TAG_OBJECT:
    case GUMBO_TAG_APPLET:
    case GUMBO_TAG_PARAM:
    case GUMBO_TAG_VIDEO:
    case GUMBO_TAG_AUDIO:
    case GUMBO_TAG_SOURCE:
    case GUMBO_TAG_TRACK:
    case GUMBO_TAG_BGSOUND:
    case GUMBO_TAG_CANVAS:
    case GUMBO_TAG_AREA:
    case GUMBO_TAG_MATH:
    case GUMBO_TAG_SVG:
    case GUMBO_TAG_INPUT:
    case GUMBO_TAG_BUTTON:
    case GUMBO_TAG_SELECT:
    case GUMBO_TAG_DATALIST:
    case GUMBO_TAG_OPTGROUP:
    case GUMBO_TAG_OPTION:
    case GUMBO_TAG_TEXTAREA:
    case GUMBO_TAG_KEYGEN:
    case GUMBO_TAG_ISINDEX:
    case GUMBO_TAG_MENUITEM:
    case GUMBO_TAG_BASEFONT:
    case GUMBO_TAG_NEXTID:
    case GUMBO_TAG_SPACER:
      return Policy::kDrop;
    default:
      return Policy::kUnwrap;
  }
}

// Elements whose start tag closes an open <p> (in the parser's button
// scope): written inside one, they would not parse back there.
bool ClosesParagraph(GumboTag tag) {
  switch (tag) {
    case GUMBO_TAG_ADDRESS:
    case GUMBO_TAG_ARTICLE:
    case GUMBO_TAG_ASIDE:
    case GUMBO_TAG_BLOCKQUOTE:
    case GUMBO_TAG_CENTER:
    case GUMBO_TAG_DETAILS:
    case GUMBO_TAG_DIR:
    case GUMBO_TAG_DIV:
    case GUMBO_TAG_DL:
    case GUMBO_TAG_DD:
    case GUMBO_TAG_DT:
    case GUMBO_TAG_FIELDSET:
    case GUMBO_TAG_FIGCAPTION:
    case GUMBO_TAG_FIGURE:
    case GUMBO_TAG_FOOTER:
    case GUMBO_TAG_HEADER:
    case GUMBO_TAG_HGROUP:
    case GUMBO_TAG_MAIN:
    case GUMBO_TAG_MENU:
    case GUMBO_TAG_NAV:
    case GUMBO_TAG_OL:
    case GUMBO_TAG_UL:
    case GUMBO_TAG_LI:
    case GUMBO_TAG_P:
    case GUMBO_TAG_SECTION:
    case GUMBO_TAG_SUMMARY:
    case GUMBO_TAG_H1:
    case GUMBO_TAG_H2:
    case GUMBO_TAG_H3:
    case GUMBO_TAG_H4:
    case GUMBO_TAG_H5:
    case GUMBO_TAG_H6:
    case GUMBO_TAG_PRE:
    case GUMBO_TAG_LISTING:
    case GUMBO_TAG_HR:
      return true;
    default:
      return false;
  }
}

// Elements that end the parser's button scope: a <p> outside them is not
// closed by what is written inside them.
bool EndsButtonScope(GumboTag tag) {
  return tag == GUMBO_TAG_TABLE || tag == GUMBO_TAG_TD || tag == GUMBO_TAG_TH ||
         tag == GUMBO_TAG_CAPTION || tag == GUMBO_TAG_BUTTON || tag == GUMBO_TAG_APPLET ||
         tag == GUMBO_TAG_MARQUEE || tag == GUMBO_TAG_OBJECT || tag == GUMBO_TAG_TEMPLATE ||
         tag == GUMBO_TAG_HTML;
}

bool IsVoid(GumboTag tag) {
  return tag == GUMBO_TAG_BR || tag == GUMBO_TAG_HR || tag == GUMBO_TAG_IMG ||
         tag == GUMBO_TAG_WBR || tag == GUMBO_TAG_COL;
}

// Attributes that only change how content looks and cannot load or run
// anything; kept on any element we keep.
bool IsPlainAttribute(std::string_view name) {
  static constexpr std::string_view kNames[] = {
      "abbr",        "align",    "alt",     "axis",   "bgcolor", "border",   "cellpadding",
      "cellspacing", "char",     "charoff", "clear",  "color",   "cols",     "colspan",
      "compact",     "datetime", "dir",     "face",   "frame",   "headers",  "height",
      "hspace",      "lang",     "noshade", "nowrap", "open",    "reversed", "rows",
      "rowspan",     "rules",    "scope",   "size",   "span",    "start",    "summary",
      "title",       "type",     "valign",  "value",  "vspace",  "width",
  };
  return std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames);
}

char Lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

std::string LowerCase(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = Lower(c);
  return out;
}

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }

std::string_view TrimSpace(std::string_view text) {
  while (!text.empty() && IsSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsSpace(text.back())) text.remove_suffix(1);
  return text;
}

// Code points that an HTML parser does not read back as themselves when
// they stand in the source as they are (it reads U+FFFD, or a line feed for
// a carriage return): control characters other than tab, line feed and
// form feed, and the noncharacters. The tree holds them when the message
// wrote them as character references ("&#8;"); they are left out.
bool ReadsBackOtherwise(uint32_t c) {
  return (c < 0x20 && c != '\t' && c != '\n' && c != '\f') || (c >= 0x7f && c <= 0x9f) ||
         (c >= 0xfdd0 && c <= 0xfdef) || (c & 0xfffe) == 0xfffe;
}

void AppendEscaped(std::string_view text, bool attribute, std::string* out) {
  for (size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    const auto lead = static_cast<unsigned char>(c);
    if (lead >= 0xc0) {
      // The parser's text is UTF-8: a whole sequence at a time.
      const size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
      uint32_t code = lead & (0x3f >> (length - 1));
      for (size_t i = 1; i < length && at + i < text.size(); ++i) {
        code = (code << 6) | (static_cast<unsigned char>(text[at + i]) & 0x3f);
      }
      if (!ReadsBackOtherwise(code)) out->append(text.substr(at, length));
      at += length - 1;
      continue;
    }
    if (ReadsBackOtherwise(lead)) continue;
    switch (c) {
      case '&':
        *out += "&amp;";
        break;
      case '<':
        *out += "&lt;";
        break;
      case '>':
        *out += "&gt;";
        break;
      case '"':
        if (attribute) {
          *out += "&quot;";
          break;
        }
        [[fallthrough]];
      default:
        out->push_back(c);
    }
  }
}

std::string UrlEncode(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    const bool unreserved = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                            (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == '~';
    if (unreserved) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    }
  }
  return out;
}

std::string PercentDecode(std::string_view text) {
  const auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    c = Lower(c);
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
  };
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 && hex(text[i + 2]) >= 0) {
      out.push_back(static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2])));
      i += 2;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

enum class UrlKind {
  kFragment,   // "#name": a place in the message itself
  kWeb,        // http or https with a host: loads from the outside world
  kLink,       // mailto, ftp, tel, sms: fine to follow, nothing to load
  kCid,        // a part of the message
  kDataImage,  // an image inside the URL
  kUnsafe,     // anything else: javascript, vbscript, other data, file,
               // and whatever a browser would send to our own server
};

struct Url {
  UrlKind kind = UrlKind::kUnsafe;
  std::string text;  // the value without control characters and outer blanks
};

// Whether the part of an http(s) URL after "scheme:" (lower case,
// backslashes made slashes) has a path that reaches a web API: "webapi" or
// ".cgi" anywhere in it, decoded as often as a server might decode it. The
// appliance answers to any host name the reader may use, so the host does
// not matter; links to other sites' CGI scripts go too.
bool ReachesWebApi(std::string_view rest) {
  size_t from = 0;
  while (from < rest.size() && rest[from] == '/') ++from;
  const size_t path = rest.find_first_of("/?#", from);
  if (path == std::string_view::npos || rest[path] != '/') return false;
  std::string text(rest.substr(path, rest.find_first_of("?#", path) - path));
  for (int round = 0; round < 4; ++round) {
    std::string decoded = LowerCase(PercentDecode(text));
    std::replace(decoded.begin(), decoded.end(), '\\', '/');
    if (decoded == text) break;
    text = std::move(decoded);
  }
  return text.find("webapi") != std::string::npos || text.find(".cgi") != std::string::npos;
}

// A message has no address of its own: a relative URL ("entry.cgi?...",
// "/webapi/...", "?x", "//host/..."), or "http:" without "//" (relative to
// the page for browsers), resolves against the web client's address and
// would call our own API with the reader's session. Such URLs are unsafe;
// only fragments stay, for links. Our own download URLs reach the output
// only through CidUrl, from a "cid:" of this message: written literally by
// the message, they are relative (or reach the API) like any other.
Url ClassifyUrl(std::string_view value) {
  Url url;
  for (char c : value) {
    const auto u = static_cast<unsigned char>(c);
    if (u >= 0x20 && u != 0x7f) url.text.push_back(c);
  }
  url.text = std::string(TrimSpace(url.text));
  // `exact` is what a browser parses (case aside, a backslash acts as a
  // slash); `probe` also skips blanks, so that "java script:" still counts
  // as javascript: judging it as a scheme errs on the safe side.
  std::string exact;
  std::string probe;
  for (char c : url.text) {
    const char folded = c == '\\' ? '/' : Lower(c);
    exact.push_back(folded);
    if (c != ' ') probe.push_back(folded);
  }
  if (StartsWith(exact, "#")) {
    url.kind = UrlKind::kFragment;
    return url;
  }
  size_t colon = 0;
  while (colon < probe.size()) {
    const char c = probe[colon];
    const bool scheme_char =
        (c >= 'a' && c <= 'z') ||
        (colon > 0 && ((c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.'));
    if (!scheme_char) break;
    ++colon;
  }
  if (colon == 0 || colon == probe.size() || probe[colon] != ':') return url;  // relative
  const std::string scheme = probe.substr(0, colon);
  // A blank inside the scheme makes it no scheme for a browser: relative.
  if (!StartsWith(exact, scheme + ":")) return url;
  const std::string_view rest = std::string_view(exact).substr(colon + 1);
  if (scheme == "http" || scheme == "https") {
    if (StartsWith(rest, "//") && !ReachesWebApi(rest)) url.kind = UrlKind::kWeb;
  } else if (scheme == "mailto" || scheme == "ftp" || scheme == "tel" || scheme == "sms") {
    url.kind = UrlKind::kLink;
  } else if (scheme == "cid") {
    url.kind = UrlKind::kCid;
  } else if (scheme == "data" && StartsWith(probe, "data:image/")) {
    url.kind = UrlKind::kDataImage;
  }
  return url;
}

// A CSS name without its vendor prefix ("-webkit-transform": "transform").
std::string_view Unprefixed(std::string_view name) {
  if (name.size() < 2 || name[0] != '-' || name[1] == '-') return name;
  const size_t dash = name.find('-', 1);
  return dash == std::string_view::npos ? name : name.substr(dash + 1);
}

// Whether a declaration leaves its element where the flow of the message
// puts it. Whatever is drawn inside the message's box is clipped by the
// client's container; what moves an element out of the flow or beyond its
// box is not: absolute, fixed and sticky positions, offsets (which also move
// a relative box), stacking order, transforms, motion paths, negative
// margins (any "-" in a margin: calc(0px - 1em) too), animations (they can
// apply the page's own keyframes), and custom properties.
bool StaysInItsBox(std::string_view property, std::string_view compact_value) {
  if (StartsWith(property, "--")) return false;
  const std::string_view name = Unprefixed(property);
  if (name == "position") return compact_value == "static" || compact_value == "relative";
  static constexpr std::string_view kMoving[] = {
      "top", "right", "bottom", "left", "z-index", "translate", "rotate", "scale",
  };
  if (std::find(std::begin(kMoving), std::end(kMoving), name) != std::end(kMoving)) return false;
  static constexpr std::string_view kMovingFamilies[] = {
      "inset", "transform", "perspective", "offset", "animation",
  };
  for (std::string_view family : kMovingFamilies) {
    if (StartsWith(name, family)) return false;
  }
  if (StartsWith(name, "margin")) return compact_value.find('-') == std::string_view::npos;
  return true;
}

// Whether every function in a (lower-case) CSS value is one that computes a
// colour, a length or a gradient, or is url() (judged by the caller). Others
// may load what they name as a bare string (image-set, image, cross-fade,
// src) or are not worth knowing.
bool OnlyKnownFunctions(std::string_view value) {
  static constexpr std::string_view kFunctions[] = {
      "url",
      "rgb",
      "rgba",
      "hsl",
      "hsla",
      "hwb",
      "lab",
      "lch",
      "oklab",
      "oklch",
      "color",
      "calc",
      "min",
      "max",
      "clamp",
      "minmax",
      "repeat",
      "fit-content",
      "cubic-bezier",
      "steps",
      "linear-gradient",
      "rect",
      "radial-gradient",
      "conic-gradient",
      "repeating-linear-gradient",
      "repeating-radial-gradient",
      "repeating-conic-gradient",
  };
  char quote = 0;
  size_t name_from = 0;
  for (size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    if (quote) {
      if (c == quote) quote = 0;
      name_from = i + 1;
      continue;
    }
    const bool name_char = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '(' && i > name_from) {
      const std::string_view name = Unprefixed(value.substr(name_from, i - name_from));
      if (std::find(std::begin(kFunctions), std::end(kFunctions), name) == std::end(kFunctions)) {
        return false;
      }
    }
    if (!name_char) name_from = i + 1;
  }
  return true;
}

// One element's attributes on their way out, in order, each name once.
class Attributes {
 public:
  void Set(std::string_view name, std::string value) {
    for (auto& [n, v] : list_) {
      if (n == name) {
        v = std::move(value);
        return;
      }
    }
    list_.emplace_back(std::string(name), std::move(value));
  }
  // Adds style declarations to those already held under `name`.
  void AddDeclarations(std::string_view name, const std::string& declarations) {
    if (declarations.empty()) return;
    for (auto& [n, v] : list_) {
      if (n == name) {
        v += "; " + declarations;
        return;
      }
    }
    list_.emplace_back(std::string(name), declarations);
  }
  void AppendTo(std::string* out) const {
    for (const auto& [name, value] : list_) {
      *out += ' ';
      *out += name;
      *out += "=\"";
      AppendEscaped(value, true, out);
      out->push_back('"');
    }
  }

 private:
  std::vector<std::pair<std::string, std::string>> list_;
};

class Normaliser {
 public:
  Normaliser(const HTMLParser& options, const std::string& token,
             const record::InlineImageMap& inline_images, std::string* body,
             std::vector<std::string>* quotes)
      : options_(options),
        token_(UrlEncode(token)),
        inline_images_(inline_images),
        body_(body),
        quotes_(quotes) {}

  void Run(const GumboNode* body);

 private:
  struct Open {
    const GumboNode* node;
    size_t next_child;
    bool written;       // its tags are written (not unwrapped)
    size_t quote_from;  // where a top-level quote starts in the body, or npos
  };

  void Enter(const GumboNode* node);
  // Whether a written <p> is open, in the parser's button scope.
  bool InParagraph() const;
  // Whether `tag` (li, dd or dt) would close an open item of its kind.
  bool InListItem(GumboTag tag) const;
  void Leave(const Open& open);
  void WriteStartTag(const GumboElement& element);
  std::string CidUrl(std::string_view url) const;
  // A URL attribute that can load an image (img src, background).
  void ImageUrl(const char* value, std::string_view name, std::string_view held_name,
                Attributes* attributes) const;
  void Style(std::string_view style, bool block, Attributes* attributes, std::string_view kept_name,
             std::string_view held_name) const;

  const HTMLParser& options_;
  const std::string token_;
  const record::InlineImageMap& inline_images_;
  std::string* body_;
  std::vector<std::string>* quotes_;
  std::vector<Open> stack_;
  int open_links_ = 0;   // written <a> elements around the current node
  int open_quotes_ = 0;  // written <blockquote> elements around it
};

void Normaliser::Run(const GumboNode* body) {
  stack_.push_back({body, 0, false, std::string::npos});
  while (!stack_.empty()) {
    Open& top = stack_.back();
    const GumboVector& children = top.node->v.element.children;
    if (top.next_child < children.length) {
      Enter(static_cast<const GumboNode*>(children.data[top.next_child++]));
    } else {
      const Open done = top;
      stack_.pop_back();
      if (!stack_.empty()) Leave(done);
    }
  }
}

bool Normaliser::InParagraph() const {
  for (auto open = stack_.rbegin(); open != stack_.rend(); ++open) {
    if (!open->written) continue;
    const GumboTag tag = open->node->v.element.tag;
    if (tag == GUMBO_TAG_P) return true;
    if (EndsButtonScope(tag)) return false;
  }
  return false;
}

bool Normaliser::InListItem(GumboTag tag) const {
  if (tag != GUMBO_TAG_LI && tag != GUMBO_TAG_DD && tag != GUMBO_TAG_DT) return false;
  for (auto open = stack_.rbegin(); open != stack_.rend(); ++open) {
    if (!open->written) continue;
    const GumboTag inside = open->node->v.element.tag;
    if (tag == GUMBO_TAG_LI ? inside == GUMBO_TAG_LI
                            : (inside == GUMBO_TAG_DD || inside == GUMBO_TAG_DT)) {
      return true;
    }
    // The parser looks no further than the nearest block of another kind.
    if (inside != GUMBO_TAG_P && inside != GUMBO_TAG_DIV && inside != GUMBO_TAG_ADDRESS &&
        (ClosesParagraph(inside) || EndsButtonScope(inside) || inside == GUMBO_TAG_TBODY ||
         inside == GUMBO_TAG_THEAD || inside == GUMBO_TAG_TFOOT || inside == GUMBO_TAG_TR)) {
      return false;
    }
  }
  return false;
}

void Normaliser::Enter(const GumboNode* node) {
  switch (node->type) {
    case GUMBO_NODE_TEXT:
    case GUMBO_NODE_WHITESPACE:
    case GUMBO_NODE_CDATA:
      AppendEscaped(node->v.text.text, false, body_);
      return;
    case GUMBO_NODE_ELEMENT:
      break;
    default:  // comments, templates
      return;
  }
  const GumboElement& element = node->v.element;
  Policy policy = ElementPolicy(element);
  // A link inside a link cannot be written so that it parses back as one:
  // the parser would close the outer one first.
  if (policy == Policy::kKeep && element.tag == GUMBO_TAG_A && open_links_ > 0) {
    policy = Policy::kUnwrap;
  }
  // Nor can a block inside a paragraph (the parser puts one there only when
  // it fosters it out of a table): the parser would close the paragraph.
  if (policy == Policy::kKeep && ClosesParagraph(element.tag) && InParagraph()) {
    policy = Policy::kUnwrap;
  }
  // The same for a list item in a list item, or a definition term or
  // description in one, with no list of its own in between.
  if (policy == Policy::kKeep && InListItem(element.tag)) policy = Policy::kUnwrap;
  if (policy == Policy::kDrop) return;
  if (policy == Policy::kUnwrap) {
    stack_.push_back({node, 0, false, std::string::npos});
    return;
  }
  size_t quote_from = std::string::npos;
  if (element.tag == GUMBO_TAG_BLOCKQUOTE && open_quotes_++ == 0) quote_from = body_->size();
  if (element.tag == GUMBO_TAG_A) ++open_links_;
  WriteStartTag(element);
  if (IsVoid(element.tag)) return;  // gumbo gives void elements no children
  // A newline right after <pre> is eaten by the parser; write one so that
  // the content's own first newline survives the next parse.
  if (element.tag == GUMBO_TAG_PRE || element.tag == GUMBO_TAG_LISTING) body_->push_back('\n');
  stack_.push_back({node, 0, true, quote_from});
}

void Normaliser::Leave(const Open& open) {
  if (!open.written) return;
  const GumboElement& element = open.node->v.element;
  *body_ += "</";
  *body_ += gumbo_normalized_tagname(element.tag);
  body_->push_back('>');
  if (element.tag == GUMBO_TAG_A) --open_links_;
  if (element.tag == GUMBO_TAG_BLOCKQUOTE) {
    --open_quotes_;
    if (open.quote_from != std::string::npos) {
      quotes_->push_back(body_->substr(open.quote_from));
      if (options_.split_quotes) {
        body_->resize(open.quote_from);
        *body_ += "<blockquote data-larkpost-quote=\"" + std::to_string(quotes_->size() - 1) +
                  "\"></blockquote>";
      }
    }
  }
}

std::string Normaliser::CidUrl(std::string_view url) const {
  std::string_view id = url.substr(4);  // after "cid:", any case
  const auto known = [&](const std::string& key) { return inline_images_.find(key); };
  auto found = known(std::string(id));
  if (found == inline_images_.end()) found = known(PercentDecode(id));
  if (found == inline_images_.end() && id.size() > 2 && id.front() == '<' && id.back() == '>') {
    found = known(std::string(id.substr(1, id.size() - 2)));
  }
  if (found == inline_images_.end()) return std::string();
  return kDownloadPrefix + std::to_string(found->second.second) + "&_token=" + token_;
}

void Normaliser::ImageUrl(const char* value, std::string_view name, std::string_view held_name,
                          Attributes* attributes) const {
  Url url = ClassifyUrl(value);
  if (url.text.empty()) return;
  switch (url.kind) {
    case UrlKind::kDataImage:
      attributes->Set(name, std::move(url.text));
      return;
    case UrlKind::kWeb:
      attributes->Set(options_.block_external_image ? held_name : name, std::move(url.text));
      return;
    case UrlKind::kCid: {
      std::string rewritten = CidUrl(url.text);
      if (!rewritten.empty()) attributes->Set(name, std::move(rewritten));
      return;
    }
    case UrlKind::kFragment:
    case UrlKind::kLink:
    case UrlKind::kUnsafe:
      return;
  }
}

// Splits a style attribute into declarations and keeps those that can
// neither run code nor escape the message's box; declarations that load
// external images go to `held_name` when `block` is on. Declarations with
// CSS escapes or comments are dropped whole: what a browser decodes from
// them is not worth second-guessing in an e-mail.
void Normaliser::Style(std::string_view style, bool block, Attributes* attributes,
                       std::string_view kept_name, std::string_view held_name) const {
  std::vector<std::string_view> declarations;
  {
    size_t start = 0;
    char quote = 0;
    int parentheses = 0;
    for (size_t i = 0; i <= style.size(); ++i) {
      const char c = i < style.size() ? style[i] : ';';
      if (quote) {
        if (c == quote) quote = 0;
      } else if (c == '"' || c == '\'') {
        quote = c;
      } else if (c == '(') {
        ++parentheses;
      } else if (c == ')') {
        parentheses = std::max(0, parentheses - 1);
      } else if (c == ';' && (parentheses == 0 || i == style.size())) {
        declarations.push_back(style.substr(start, i - start));
        start = i + 1;
      }
    }
    if (quote || parentheses) return;  // unbalanced: drop the lot
  }
  std::string kept;
  std::string held;
  for (std::string_view declaration : declarations) {
    declaration = TrimSpace(declaration);
    if (declaration.empty()) continue;
    if (declaration.find('\\') != std::string_view::npos ||
        declaration.find("/*") != std::string_view::npos ||
        declaration.find("*/") != std::string_view::npos) {
      continue;
    }
    if (std::any_of(declaration.begin(), declaration.end(), [](char c) {
          const auto u = static_cast<unsigned char>(c);
          return (u < 0x20 && !IsSpace(c)) || u == 0x7f;
        })) {
      continue;
    }
    const size_t colon = declaration.find(':');
    if (colon == std::string_view::npos) continue;
    const std::string property = LowerCase(TrimSpace(declaration.substr(0, colon)));
    const std::string_view value = TrimSpace(declaration.substr(colon + 1));
    if (property.empty() || value.empty() ||
        !std::all_of(property.begin(), property.end(), [](char c) {
          return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
        })) {
      continue;
    }
    const std::string lower = LowerCase(value);
    std::string compact;
    for (char c : lower) {
      if (!IsSpace(c)) compact.push_back(c);
    }
    if (property.find("behavior") != std::string::npos ||
        property.find("binding") != std::string::npos ||
        compact.find("expression(") != std::string::npos ||
        compact.find("javascript:") != std::string::npos ||
        compact.find("vbscript:") != std::string::npos ||
        compact.find("@import") != std::string::npos || !StaysInItsBox(property, compact) ||
        !OnlyKnownFunctions(lower)) {
      continue;
    }
    // Rewrite url(cid:...) to the attachment and judge every other url().
    std::string rebuilt;
    bool drop = false;
    bool external = compact.find("//") != std::string::npos ||
                    compact.find("http:") != std::string::npos ||
                    compact.find("https:") != std::string::npos;
    size_t copied = 0;
    for (size_t at = lower.find("url("); at != std::string::npos && !drop;
         at = lower.find("url(", at)) {
      size_t begin = at + 4;
      while (begin < value.size() && IsSpace(value[begin])) ++begin;
      size_t end;
      size_t close;
      if (begin < value.size() && (value[begin] == '"' || value[begin] == '\'')) {
        end = value.find(value[begin], begin + 1);
        if (end == std::string_view::npos) {
          drop = true;
          break;
        }
        close = value.find(')', end);
        ++begin;
      } else {
        end = close = value.find(')', begin);
      }
      if (close == std::string_view::npos) {
        drop = true;
        break;
      }
      Url url = ClassifyUrl(value.substr(begin, end - begin));
      switch (url.kind) {
        case UrlKind::kDataImage:
          break;
        case UrlKind::kWeb:
          external = true;
          break;
        case UrlKind::kCid: {
          const std::string target = CidUrl(url.text);
          if (target.empty()) {
            drop = true;
            break;
          }
          rebuilt.append(value.substr(copied, at - copied));
          rebuilt += "url(\"" + target + "\")";
          copied = close + 1;
          break;
        }
        case UrlKind::kFragment:
        case UrlKind::kLink:
        case UrlKind::kUnsafe:
          drop = true;
          break;
      }
      at = close + 1;
    }
    if (drop) continue;
    rebuilt.append(value.substr(copied));
    std::string& into = (external && block) ? held : kept;
    if (!into.empty()) into += "; ";
    into += property + ": " + rebuilt;
  }
  attributes->AddDeclarations(kept_name, kept);
  attributes->AddDeclarations(held_name, held);
}

void Normaliser::WriteStartTag(const GumboElement& element) {
  const GumboTag tag = element.tag;
  Attributes attributes;
  for (unsigned int i = 0; i < element.attributes.length; ++i) {
    const auto* attribute = static_cast<const GumboAttribute*>(element.attributes.data[i]);
    if (attribute->attr_namespace != GUMBO_ATTR_NAMESPACE_NONE) continue;
    const std::string_view name = attribute->name;
    const char* value = attribute->value;
    if (StartsWith(name, "on")) continue;
    if (IsPlainAttribute(name)) {
      attributes.Set(name, value);
    } else if (name == "style") {
      Style(value, options_.block_external_image, &attributes, "style", "data-larkpost-style");
    } else if (name == "data-larkpost-style") {
      Style(value, false, &attributes, "data-larkpost-style", "");
    } else if (name == "href" && tag == GUMBO_TAG_A) {
      Url url = ClassifyUrl(value);
      if (url.kind == UrlKind::kFragment || url.kind == UrlKind::kWeb ||
          url.kind == UrlKind::kLink) {
        attributes.Set(name, std::move(url.text));
      } else if (url.kind == UrlKind::kCid) {
        std::string target = CidUrl(url.text);
        if (!target.empty()) attributes.Set(name, std::move(target));
      }
    } else if ((name == "target" || name == "rel") && tag == GUMBO_TAG_A) {
      attributes.Set(name, value);
    } else if (name == "src" && tag == GUMBO_TAG_IMG) {
      ImageUrl(value, "src", "data-larkpost-src", &attributes);
    } else if (name == "background") {
      ImageUrl(value, "background", "data-larkpost-background", &attributes);
    } else if ((name == "data-larkpost-src" && tag == GUMBO_TAG_IMG) ||
               name == "data-larkpost-background") {
      Url url = ClassifyUrl(value);
      if (url.kind == UrlKind::kWeb) attributes.Set(name, std::move(url.text));
    } else if (name == "cite") {
      Url url = ClassifyUrl(value);
      if (url.kind == UrlKind::kWeb || url.kind == UrlKind::kLink) {
        attributes.Set(name, std::move(url.text));
      }
    }
  }
  if (tag == GUMBO_TAG_A && options_.open_links_in_new_window) {
    attributes.Set("target", "_blank");
    attributes.Set("rel", "noopener noreferrer");
  }
  if (tag == GUMBO_TAG_BLOCKQUOTE && open_quotes_ == 1) {  // a top-level quote
    attributes.Set("data-larkpost-quote", std::to_string(quotes_->size()));
  }
  body_->push_back('<');
  *body_ += gumbo_normalized_tagname(tag);
  attributes.AppendTo(body_);
  *body_ += IsVoid(tag) ? " />" : ">";
}

// The HTML tokenizer's view of where tags are, and a rough model of the
// tree builder's stack of open elements, just enough to bound the depth the
// parser will reach. Formatting elements (<b>, <font>, ...) that are left
// open when an enclosing element closes are remembered: the parser opens
// them again ("reconstructs" them) wherever content follows, so they add to
// the depth of everything after them, and a hostile message can pile them
// up. As the parser does, only three identical ones are remembered, and a
// new <a> or <nobr> forgets the previous one. The model may overestimate
// (table cells clear formatting elements, which it ignores); then tags are
// taken out of a document a browser would still nest deeply anyway.
class DepthLimiter {
 public:
  explicit DepthLimiter(std::string_view html) : html_(html) {}

  // The input with start tags beyond kMaxDepth taken out; empty when
  // nothing had to go (the caller then parses the input as it is).
  std::string Limit();

 private:
  struct Open {
    std::string name;
    uint64_t formatting;  // serial of its entry in active_; 0 for none
  };
  struct Active {
    std::string name;
    std::string_view attributes;  // as written: identical ones compare equal
    uint64_t serial;
    bool open;  // still on open_; otherwise it lingers
  };

  static bool Counts(std::string_view name);
  static bool IsFormatting(std::string_view name);
  static bool IsRawText(std::string_view name);
  size_t TagEnd(size_t from) const;
  size_t FindEndTag(std::string_view name, size_t from) const;

  // False when the start tag has to go.
  bool StartTag(const std::string& name, std::string_view attributes);
  void EndTag(const std::string& name);
  // Closes open_[index] and everything above it.
  void PopTo(size_t index);
  // Forgets active_[index], which the parser would no longer reconstruct.
  void Forget(size_t index);
  size_t Depth() const { return open_.size() + lingering_; }

  std::string_view html_;
  std::vector<Open> open_;
  std::vector<Active> active_;
  size_t lingering_ = 0;  // entries of active_ not on open_
  uint64_t next_serial_ = 1;
};

bool DepthLimiter::Counts(std::string_view name) {
  // Void elements, and elements whose end tag may be left out (the parser
  // closes them itself and they cannot nest without one that counts).
  static constexpr std::string_view kNames[] = {
      "area",     "base",    "basefont", "bgsound", "br",       "col",  "embed", "frame", "hr",
      "image",    "img",     "input",    "isindex", "keygen",   "link", "meta",  "param", "source",
      "track",    "wbr",     "p",        "li",      "dt",       "dd",   "tr",    "td",    "th",
      "tbody",    "thead",   "tfoot",    "option",  "optgroup", "rb",   "rt",    "rp",    "rtc",
      "colgroup", "caption", "html",     "head",    "body",
  };
  return std::find(std::begin(kNames), std::end(kNames), name) == std::end(kNames);
}

bool DepthLimiter::IsFormatting(std::string_view name) {
  static constexpr std::string_view kNames[] = {"a",      "b",      "big",  "code", "em",
                                                "font",   "i",      "nobr", "s",    "small",
                                                "strike", "strong", "tt",   "u"};
  return std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames);
}

bool DepthLimiter::IsRawText(std::string_view name) {
  static constexpr std::string_view kNames[] = {"script", "style",   "textarea", "title",   "xmp",
                                                "iframe", "noembed", "noframes", "noscript"};
  return std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames);
}

// The position after the ">" that ends the tag starting at `from`, quoted
// attribute values skipped; the end of the input when there is none.
size_t DepthLimiter::TagEnd(size_t from) const {
  for (size_t i = from; i < html_.size(); ++i) {
    const char c = html_[i];
    if (c == '>') return i + 1;
    if (c == '=') {
      size_t j = i + 1;
      while (j < html_.size() && IsSpace(html_[j])) ++j;
      if (j < html_.size() && (html_[j] == '"' || html_[j] == '\'')) {
        const size_t close = html_.find(html_[j], j + 1);
        if (close == std::string_view::npos) return html_.size();
        i = close;
      }
    }
  }
  return html_.size();
}

// Where "</name" starts at or after `from`, in any case; the end of the
// input when it does not.
size_t DepthLimiter::FindEndTag(std::string_view name, size_t from) const {
  for (size_t i = html_.find("</", from); i != std::string_view::npos;
       i = html_.find("</", i + 2)) {
    if (i + 2 + name.size() > html_.size()) break;
    bool same = true;
    for (size_t k = 0; k < name.size() && same; ++k) same = Lower(html_[i + 2 + k]) == name[k];
    if (same) return i;
  }
  return html_.size();
}

void DepthLimiter::PopTo(size_t index) {
  while (open_.size() > index) {
    const uint64_t serial = open_.back().formatting;
    open_.pop_back();
    if (serial == 0) continue;
    for (Active& active : active_) {
      if (active.serial == serial) {
        active.open = false;
        ++lingering_;
        break;
      }
    }
  }
}

void DepthLimiter::Forget(size_t index) {
  const Active& active = active_[index];
  if (active.open) {
    for (Open& open : open_) {
      if (open.formatting == active.serial) open.formatting = 0;
    }
  } else {
    --lingering_;
  }
  active_.erase(active_.begin() + static_cast<std::ptrdiff_t>(index));
}

bool DepthLimiter::StartTag(const std::string& name, std::string_view attributes) {
  if (!Counts(name)) return true;
  if (Depth() >= kMaxDepth) return false;
  if (!IsFormatting(name)) {
    open_.push_back({name, 0});
    return true;
  }
  if (name == "a" || name == "nobr") {
    for (size_t i = active_.size(); i-- > 0;) {
      if (active_[i].name != name) continue;
      if (active_[i].open)
        EndTag(name);
      else
        Forget(i);
      break;
    }
  }
  size_t identical = 0;
  size_t earliest = 0;
  for (size_t i = active_.size(); i-- > 0;) {
    if (active_[i].name == name && active_[i].attributes == attributes) {
      ++identical;
      earliest = i;
    }
  }
  if (identical >= 3) Forget(earliest);
  const uint64_t serial = next_serial_++;
  active_.push_back({name, attributes, serial, true});
  open_.push_back({name, serial});
  return true;
}

void DepthLimiter::EndTag(const std::string& name) {
  if (IsFormatting(name)) {
    for (size_t i = active_.size(); i-- > 0;) {
      if (active_[i].name != name) continue;
      const uint64_t serial = active_[i].serial;
      for (size_t k = open_.size(); k-- > 0;) {
        if (open_[k].formatting == serial) {
          PopTo(k);
          break;
        }
      }
      Forget(i);  // PopTo changed flags only, so `i` is still the entry
      return;
    }
  }
  for (size_t k = open_.size(); k-- > 0;) {
    if (open_[k].name == name) {
      PopTo(k);
      return;
    }
  }
}

std::string DepthLimiter::Limit() {
  std::vector<std::pair<size_t, size_t>> removed;
  const auto is_letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  const auto name_end = [&](size_t from) {
    size_t end = from;
    while (end < html_.size() && !IsSpace(html_[end]) && html_[end] != '/' && html_[end] != '>') {
      ++end;
    }
    return end;
  };
  size_t i = html_.find('<');
  while (i != std::string_view::npos && i + 1 < html_.size()) {
    const char next = html_[i + 1];
    size_t end;
    if (StartsWith(html_.substr(i), "<!--")) {
      end = html_.find("-->", i + 4);
      end = end == std::string_view::npos ? html_.size() : end + 3;
    } else if (next == '!' || next == '?') {
      end = html_.find('>', i);
      end = end == std::string_view::npos ? html_.size() : end + 1;
    } else if (next == '/' && i + 2 < html_.size() && is_letter(html_[i + 2])) {
      const size_t after_name = name_end(i + 2);
      end = TagEnd(after_name);
      EndTag(LowerCase(html_.substr(i + 2, after_name - i - 2)));
    } else if (is_letter(next)) {
      const size_t after_name = name_end(i + 1);
      const std::string name = LowerCase(html_.substr(i + 1, after_name - i - 1));
      end = TagEnd(after_name);
      if (name == "plaintext") break;  // the rest is text
      if (IsRawText(name)) {
        // Up to the matching end tag, whatever looks like markup in between.
        end = FindEndTag(name, end);
      } else if (!StartTag(name, html_.substr(after_name, end - after_name))) {
        removed.emplace_back(i, end);
      }
    } else {
      end = i + 1;
    }
    i = html_.find('<', end);
  }
  if (removed.empty()) return std::string();
  std::string out;
  out.reserve(html_.size());
  size_t copied = 0;
  for (const auto& [from, to] : removed) {
    out.append(html_.substr(copied, from - copied));
    copied = to;
  }
  out.append(html_.substr(copied));
  return out;
}

const GumboNode* FindBody(const GumboNode* root) {
  if (root == nullptr || root->type != GUMBO_NODE_ELEMENT) return nullptr;
  const GumboVector& children = root->v.element.children;
  for (unsigned int i = 0; i < children.length; ++i) {
    const auto* child = static_cast<const GumboNode*>(children.data[i]);
    if (child->type == GUMBO_NODE_ELEMENT && child->v.element.tag == GUMBO_TAG_BODY) return child;
  }
  return nullptr;
}

}  // namespace

HTMLParser::HTMLParser() = default;

HTMLParser::~HTMLParser() = default;

void HTMLParser::Normalize(const std::string& html, const std::string& token,
                           const record::InlineImageMap& inline_images) {
  body_.clear();
  blockquotes_.clear();
  const std::string limited = DepthLimiter(html).Limit();
  const std::string& input = limited.empty() ? html : limited;

  GumboOptions options = kGumboDefaultOptions;
  options.max_errors = 0;  // we never read them
  const auto destroy = [&options](GumboOutput* output) { gumbo_destroy_output(&options, output); };
  std::unique_ptr<GumboOutput, decltype(destroy)> output(
      gumbo_parse_with_options(&options, input.data(), input.size()), destroy);
  if (output == nullptr) return;
  const GumboNode* body = FindBody(output->root);
  if (body == nullptr) return;  // a frameset document: nothing to show
  body_.reserve(input.size());
  Normaliser(*this, token, inline_images, &body_, &blockquotes_).Run(body);
  // White space before the first element or text of a body is dropped by
  // an HTML parser: kept, normalising the result would change it.
  body_.erase(0, body_.find_first_not_of(" \t\n\r\f"));
}

const std::string& HTMLParser::GetBody() const { return body_; }

const std::vector<std::string>& HTMLParser::OriginBlockquote() const { return blockquotes_; }

}  // namespace ornic::larkpost::html
