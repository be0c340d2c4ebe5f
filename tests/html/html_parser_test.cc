#include "platform/mailcore/html_parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace ornic::larkpost::html {
namespace {

struct Options {
  bool open_links = false;
  bool block = false;
  std::string token = "tok";
};

const record::InlineImageMap kImages = {
    {"logo@example.org", {"logo.png", 42}},
    {"part2.abc@example.org", {"photo.jpg", 7}},
};

constexpr char kDownload[] =
    "/webapi/entry.cgi?api=ZEVO.Larkpost.Attachment&amp;version=1&amp;method=download&amp;id=";

// Normalises `html` and checks that the result is stable: parsed and
// normalised again it stays exactly the same. A result that is not
// well-formed (an element left open, a stray "<", a value that ends its
// attribute early) parses into a different tree and fails here. Inline
// images are the exception: their download URLs come only from "cid:", and
// the message cannot write them itself.
std::string Normalised(const std::string& html, const Options& options = {},
                       std::vector<std::string>* quotes = nullptr) {
  HTMLParser parser;
  parser.open_links_in_new_window = options.open_links;
  parser.block_external_image = options.block;
  parser.Normalize(html, options.token, kImages);
  HTMLParser again;
  again.open_links_in_new_window = options.open_links;
  again.block_external_image = options.block;
  again.Normalize(parser.GetBody(), options.token, kImages);
  if (parser.GetBody().find(kDownload) == std::string::npos) {
    EXPECT_EQ(again.GetBody(), parser.GetBody()) << "not stable for: " << html;
    EXPECT_EQ(again.OriginBlockquote(), parser.OriginBlockquote()) << html;
  } else {
    EXPECT_EQ(again.GetBody().find(kDownload), std::string::npos)
        << "a download URL written by the message survives: " << parser.GetBody();
  }
  if (quotes != nullptr) *quotes = parser.OriginBlockquote();
  return parser.GetBody();
}

struct Case {
  std::string what;
  std::string html;
  std::string want;
};

void RunCases(const std::vector<Case>& cases, const Options& options = {}) {
  for (const Case& c : cases) EXPECT_EQ(Normalised(c.html, options), c.want) << c.what;
}

TEST(HTMLParserTest, ScriptsAndActiveContentGo) {
  RunCases({
      {"mixed case", "<p>a<ScRiPt>alert(1)</sCrIpT>b</p>", "<p>ab</p>"},
      {"in SVG and MathML",
       "<svg><script>alert(1)</script><a xlink:href=\"javascript:x\">l</a></svg>"
       "<math><mi xlink:href=\"javascript:alert(1)\">x</mi></math>ok",
       "ok"},
      {"half a tag before it", "<<script>alert(1)//<</script>", "&lt;"},
      {"event handlers",
       "<img src=\"http://x/a.png\" onerror=\"alert(1)\" ONLOAD=x><b onmouseover=y>b</b>",
       "<img src=\"http://x/a.png\" /><b>b</b>"},
      {"frames, objects, plug-ins",
       "<iframe src=\"http://x/\"></iframe><frame src=x><object data=\"x.swf\"><param name=a "
       "value=b>fallback</object><embed src=\"x.swf\"><applet code=x>a</applet>t",
       "t"},
      {"forms keep their text, not their controls",
       "<form action=\"http://evil/\"><input value=pw><button formaction=\"javascript:x\">b"
       "</button><select><option>o</option></select><textarea>t</textarea>kept</form>",
       "kept"},
      {"style, base, meta, link",
       "<style>body{background:url(http://x/)}</style><base href=\"http://evil/\"><meta "
       "http-equiv=refresh content=\"0;url=http://evil/\"><link rel=stylesheet href=x.css>t",
       "t"},
      {"noscript, title, template",
       "t<noscript><img src=x></noscript><title>T</title><template><b>x</b></template>", "t"},
      {"comments and doctype", "<!DOCTYPE html><!-- secret --><p>a<!-- b --></p>", "<p>a</p>"},
      {"ids, classes, names and foreign data attributes",
       "<div id=x class=y name=z data-foo=1 data-larkpost-quote=3 align=center>t</div>",
       "<div align=\"center\">t</div>"},
      {"unknown tags are unwrapped", "<o:p>x</o:p><custom onclick=y>z</custom>", "xz"},
  });
}

TEST(HTMLParserTest, UrlsWithDangerousSchemesGo) {
  RunCases({
      {"tab entity inside", "<a href=\"jav&#x09;ascript:alert(1)\">x</a>", "<a>x</a>"},
      {"blanks, newline, case", "<a href=\"  JaVaScRiPt&#10;:alert(1)\">x</a>", "<a>x</a>"},
      {"named colon", "<a href=\"javascript&colon;alert(1)\">x</a>", "<a>x</a>"},
      {"vbscript", "<a href=\"vbscript:msgbox(1)\">x</a>", "<a>x</a>"},
      {"data link", "<a href=\"data:text/html;base64,PHNjcmlwdD4=\">x</a>", "<a>x</a>"},
      {"data image link", "<a href=\"data:image/png;base64,AAAA\">x</a>", "<a>x</a>"},
      {"other schemes", "<a href=\"file:///etc/passwd\">x</a><img src=\"ftp://x/a.png\">",
       "<a>x</a><img />"},
      {"data image", "<img src=\"data:image/png;base64,AAAA\">",
       "<img src=\"data:image/png;base64,AAAA\" />"},
      {"data document as image", "<img src=\"data:text/html,<script>x</script>\">", "<img />"},
      {"fine links", "<a href=\"http://ok/?a=1&amp;b=2\">h</a><a href=\"mailto:a@b\">m</a>",
       "<a href=\"http://ok/?a=1&amp;b=2\">h</a><a href=\"mailto:a@b\">m</a>"},
      {"quote source", "<blockquote cite=\"javascript:x\">q</blockquote>",
       "<blockquote data-larkpost-quote=\"0\">q</blockquote>"},
  });
}

// Mail has no address of its own: whatever a browser would resolve against
// the web client's address, or send to its API under any host name, would
// call the API with the reader's session.
TEST(HTMLParserTest, UrlsThatReachOurOwnServerGo) {
  const char* const hostile[] = {
      "a.png",
      "",
      " &#x2F;webapi/entry.cgi",
      "//127.0.0.1:8080/webapi/entry.cgi",
      "\\\\127.0.0.1\\webapi\\entry.cgi",
      "http:/webapi/entry.cgi",
      "h ttp://example.org/a.png",
      "HTTPS://nas.example/WebAPI/x",
      "http://nas.example/%77ebapi/x",
      "http://nas.example/%2577ebapi/x",
      "http://nas.example/x/..%2Fwebapi/x",
      "http:\\\\nas.example\\webapi\\x",
      "http://user@nas.example/index.cgi?x",
      "http://127.0.0.1:8080/webapi/entry.cgi?api=ZEVO.Larkpost.Attachment&amp;version=1&amp;"
      "method=download&amp;id=42&amp;_token=tok",
  };
  for (const bool block : {false, true}) {
    Options options;
    options.block = block;
    for (const char* url : hostile) {
      const std::string u = url;
      EXPECT_EQ(
          Normalised("<a href=\"" + u + "\">a</a><img src=\"" + u + "\" data-larkpost-src=\"" + u +
                         "\"><table background=\"" + u + "\"></table><q cite=\"" + u +
                         "\">q</q><p style=\"background: url('" + u + "'); color: red\">p</p>",
                     options),
          "<a>a</a><img /><table></table><q>q</q><p style=\"color: red\">p</p>")
          << url << (block ? " blocked" : "");
    }
  }

  // What may stay: other sites (a query naming the API is theirs), and, for
  // links only, fragments and the link schemes.
  const struct {
    const char* url;
    bool image;  // allowed as an image, too
  } fine[] = {
      {"https://example.org/a.png", true},
      {"http://example.org/cgi-info/webap.html?x=/webapi/entry.cgi", true},
      {"#top", false},
      {"mailto:a@example.org", false},
  };
  for (const auto& c : fine) {
    const std::string u = c.url;
    EXPECT_EQ(Normalised("<a href=\"" + u + "\">a</a><img src=\"" + u + "\">"),
              "<a href=\"" + u + "\">a</a><img" + (c.image ? " src=\"" + u + "\"" : "") + " />")
        << u;
  }
}

// Only position and offsets that leave an element where the flow of the
// message puts it: nothing can cover the web client around the message.
TEST(HTMLParserTest, PositioningStaysInsideTheMessage) {
  const struct {
    const char* declaration;
    bool kept;
  } cases[] = {
      {"position: absolute", false},
      {"position: -webkit-sticky", false},
      {"position: inherit", false},
      {"position: relative", true},
      {"left: -100px", false},
      {"inset: 0", false},
      {"-webkit-transform: scale(9)", false},
      {"translate: 10px", false},
      {"scale: 20", false},
      {"offset-path: path('M0 0 L9 9')", false},
      {"animation: spin 1s", false},
      {"--p: fixed", false},
      {"margin: 0 -1em", false},
      {"margin-left: calc(0px - 100vw)", false},
      {"margin: 0 auto", true},
      {"float: right", true},
      {"width: calc(100% - 2px)", true},
      {"background: -webkit-linear-gradient(rgb(1, 2, 3), hsl(0, 0%, 50%))", true},
      // Functions that load what they name, even as a bare string.
      {"background-image: image-set('/webapi/entry.cgi' 1x)", false},
      {"background-image: -webkit-image-set(&quot;entry.cgi&quot; 1x)", false},
      {"background-image: cross-fade(url(https://x/a.png), 'entry.cgi', 50%)", false},
      {"width: var(--w)", false},
  };
  for (const auto& c : cases) {
    const std::string declaration = c.declaration;
    EXPECT_EQ(Normalised("<div style=\"" + declaration + "; color: red\">x</div>"),
              c.kept ? "<div style=\"" + declaration + "; color: red\">x</div>"
                     : "<div style=\"color: red\">x</div>")
        << declaration;
  }
}

TEST(HTMLParserTest, StyleAttributesKeepOnlyHarmlessDeclarations) {
  RunCases({
      {"expression", "<p style=\"width: expression(alert(1)); color: red\">x</p>",
       "<p style=\"color: red\">x</p>"},
      {"expression with a blank", "<p style=\"width:expression (alert(1))\">x</p>", "<p>x</p>"},
      {"javascript url", "<p style=\"background:url( 'javascript:alert(1)' )\">x</p>", "<p>x</p>"},
      {"behaviours and bindings",
       "<p style=\"behavior: url(x.htc); -moz-binding: url(x.xml#y); color: blue\">x</p>",
       "<p style=\"color: blue\">x</p>"},
      {"escapes", "<p style=\"width: expr\\65ssion(alert(1)); color: red\">x</p>",
       "<p style=\"color: red\">x</p>"},
      {"comments", "<p style=\"width: exp/**/ression(alert(1))\">x</p>", "<p>x</p>"},
      {"unbalanced", "<p style=\"color: red; font-family: 'x\">x</p>", "<p>x</p>"},
      {"semicolon inside a url",
       "<table><td style=\"background: url(data:image/png;base64,AA); color: red\">x</table>",
       "<table><tbody><tr><td style=\"background: url(data:image/png;base64,AA); color: "
       "red\">x</td></tr></tbody></table>"},
  });
}

TEST(HTMLParserTest, BrokenMarkupComesOutWellFormed) {
  RunCases({
      {"misnested", "<p>one<p>two<b>bold<i>both</b>it</i>",
       "<p>one</p><p>two<b>bold<i>both</i></b><i>it</i></p>"},
      {"unclosed at the end", "<div><span>x", "<div><span>x</span></div>"},
      {"tag cut by the end", "<b>a</b><img src=\"a.png\" alt=\"unterminated>text", "<b>a</b>"},
      {"escaping", "<p title='a\"b<c>&amp;'>x &lt;y&gt; &amp; \"q\" \xC3\xA9</p>",
       "<p title=\"a&quot;b&lt;c&gt;&amp;\">x &lt;y&gt; &amp; \"q\" \xC3\xA9</p>"},
      {"void elements", "<br><hr size=1><img src=data:image/gif,A></img><col>",
       "<br /><hr size=\"1\" /><img src=\"data:image/gif,A\" />"},
      {"first newline of pre", "<pre>\n\nx</pre>", "<pre>\n\nx</pre>"},
      {"link inside link", "<a href=\"#x\">1<div><a href=\"#y\">2</a></div></a>",
       "<a href=\"#x\">1</a><div><a href=\"#x\"></a><a href=\"#y\">2</a></div>"},
      {"whole document",
       "<html><head><title>T</title></head><body bgcolor=red onload=x><p>x</p></body></html>",
       "<p>x</p>"},
      {"white space before the first element", "<body>\n <!-- x --> <p>a</p>\n", "<p>a</p>\n"},
      {"a quote fostered into a paragraph", "<p>a<table><blockquote>q</blockquote></table>",
       "<p>aq<table></table></p>"},
      {"characters a parser reads otherwise",
       "<p title='a&#8;b'>&#1;x&#13;&#x81;&#x85;&#xFFFF;\x0Cy</p>",
       "<p title=\"ab\">x\xE2\x80\xA6\x0Cy</p>"},
      {"an item fostered into an item", "<ul><li>a<table><li>b</li></table></li></ul>",
       "<ul><li>ab<table></table></li></ul>"},
      {"frameset document", "<frameset><frame src=\"http://x/\"></frameset>", ""},
      {"empty", "", ""},
  });
}

// How deep elements nest in normalised HTML (every element closed, void
// ones written "<x />").
size_t Depth(const std::string& body) {
  size_t depth = 0;
  size_t deepest = 0;
  for (size_t at = body.find('<'); at != std::string::npos; at = body.find('<', at + 1)) {
    if (body[at + 1] == '/') {
      --depth;
    } else if (body.compare(body.find('>', at) - 1, 1, "/") != 0) {
      deepest = std::max(deepest, ++depth);
    }
  }
  return deepest;
}

TEST(HTMLParserTest, DeepNestingIsCutWhereBrowsersStop) {
  const auto repeat = [](int times, const auto& piece) {
    std::string html;
    for (int i = 0; i < times; ++i) html += piece(i);
    return html;
  };
  const struct {
    const char* what;
    std::string html;
  } cases[] = {
      {"plain nesting", repeat(5000, [](int) { return "<div>"; }) + "deep"},
      {"end tags of elements that are not open",
       repeat(5000, [](int) { return "<div></span>"; }) + "deep"},
      {"formatting elements nest too", repeat(5000, [](int) { return "<b>"; }) + "deep"},
      // Left open inside a closed block, formatting elements are opened again
      // wherever content follows: each round would carry all earlier ones.
      {"formatting elements reopened",
       repeat(40,
              [](int round) {
                std::string html = "<div>x";
                for (int i = 0; i < 100; ++i) {
                  html += "<b title=" + std::to_string(round * 100 + i) + ">";
                }
                return html + "</div>";
              }) +
           "deep"},
  };
  for (const auto& c : cases) {
    const std::string body = Normalised(c.html);
    EXPECT_GE(Depth(body), 500u) << c.what;
    EXPECT_LE(Depth(body), 520u) << c.what;
    EXPECT_NE(body.find("deep"), std::string::npos) << c.what;
  }
  // Deep but not too deep: nothing is taken out.
  const std::string html = repeat(500, [](int) { return "<div>"; });
  EXPECT_EQ(Depth(Normalised(html)), 500u);
}

TEST(HTMLParserTest, InlineImagesPointAtTheAttachmentDownload) {
  const std::string url = kDownload;
  Options options;
  options.token = "a b&c/d=\xC3\xA9";
  const std::string token = "&amp;_token=a%20b%26c%2Fd%3D%C3%A9";
  RunCases(
      {
          {"known", "<img src=\"cid:logo@example.org\" alt=logo>",
           "<img src=\"" + url + "42" + token + "\" alt=\"logo\" />"},
          {"scheme in capitals, id percent-encoded", "<img src=\"CID:part2.abc%40example.org\">",
           "<img src=\"" + url + "7" + token + "\" />"},
          {"unknown", "<img src=\"cid:other@example.org\" alt=x>", "<img alt=\"x\" />"},
          {"in a style", "<div style=\"background: url(cid:logo@example.org) no-repeat\">x</div>",
           "<div style=\"background: url(&quot;" + url + "42" + token +
               "&quot;) no-repeat\">x</div>"},
          {"unknown in a style", "<div style=\"background: url('cid:x'); color: red\">x</div>",
           "<div style=\"color: red\">x</div>"},
      },
      options);
  options.token = "";
  EXPECT_EQ(Normalised("<img src=\"cid:logo@example.org\">", options),
            "<img src=\"" + url + "42&amp;_token=\" />");
}

TEST(HTMLParserTest, ExternalImagesAreHeldBackOnlyWhenAsked) {
  const struct {
    const char* html;     // normalised already: without block_external_image, it stays
    const char* blocked;  // with it
  } cases[] = {
      {"<img src=\"http://x/a.png\" />", "<img data-larkpost-src=\"http://x/a.png\" />"},
      {"<img src=\"HTTPS:\\\\x\\a.png\" />", "<img data-larkpost-src=\"HTTPS:\\\\x\\a.png\" />"},
      {"<table background=\"http://x/b.png\"></table>",
       "<table data-larkpost-background=\"http://x/b.png\"></table>"},
      {"<p style=\"color: red; background: url(http://x/y.png)\">x</p>",
       "<p style=\"color: red\" data-larkpost-style=\"background: url(http://x/y.png)\">x</p>"},
      {"<p style=\"background-image: -webkit-linear-gradient(red, blue), "
       "url('https://x/a.png')\">x</p>",
       "<p data-larkpost-style=\"background-image: -webkit-linear-gradient(red, blue), "
       "url('https://x/a.png')\">x</p>"},
  };
  Options block;
  block.block = true;
  for (const auto& c : cases) {
    EXPECT_EQ(Normalised(c.html, block), c.blocked) << c.html;
    EXPECT_EQ(Normalised(c.html), c.html);
  }
}

TEST(HTMLParserTest, LinksOpenInANewWindowOnlyForReading) {
  const char* html =
      "<a href=\"http://x/\" target=\"_self\" rel=\"opener\">x</a><a href=\"javascript:y\">y</a>";
  Options reading;
  reading.open_links = true;
  EXPECT_EQ(Normalised(html, reading),
            "<a href=\"http://x/\" target=\"_blank\" rel=\"noopener noreferrer\">x</a>"
            "<a target=\"_blank\" rel=\"noopener noreferrer\">y</a>");
  EXPECT_EQ(Normalised(html),
            "<a href=\"http://x/\" target=\"_self\" rel=\"opener\">x</a><a>y</a>");
}

TEST(HTMLParserTest, TopLevelQuotesAreMarkedAndCopiedOut) {
  std::vector<std::string> quotes;
  const std::string body = Normalised(
      "<blockquote data-larkpost-quote=\"9\" onclick=x>one<blockquote>inner</blockquote>"
      "</blockquote><p>mid</p><span><blockquote>two</blockquote></span>"
      "<button><blockquote>gone</blockquote></button>",
      {}, &quotes);
  EXPECT_EQ(body,
            "<blockquote data-larkpost-quote=\"0\">one<blockquote>inner</blockquote></blockquote>"
            "<p>mid</p><span><blockquote data-larkpost-quote=\"1\">two</blockquote></span>");
  EXPECT_EQ(quotes, (std::vector<std::string>{
                        "<blockquote data-larkpost-quote=\"0\">one<blockquote>inner</blockquote>"
                        "</blockquote>",
                        "<blockquote data-larkpost-quote=\"1\">two</blockquote>"}));

  // Each call starts afresh.
  HTMLParser parser;
  parser.Normalize("<blockquote>a</blockquote>", "", {});
  parser.Normalize("<p>b</p>", "", {});
  EXPECT_EQ(parser.GetBody(), "<p>b</p>");
  EXPECT_TRUE(parser.OriginBlockquote().empty());
}

}  // namespace
}  // namespace ornic::larkpost::html
