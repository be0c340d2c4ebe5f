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

// Normalises `html` and checks that the result is stable: parsed and
// normalised again it stays exactly the same. A result that is not
// well-formed (an element left open, a stray "<", a value that ends its
// attribute early) parses into a different tree and fails here.
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
  EXPECT_EQ(again.GetBody(), parser.GetBody()) << "not stable for: " << html;
  EXPECT_EQ(again.OriginBlockquote(), parser.OriginBlockquote()) << html;
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
      {"event handlers", "<img src=\"a.png\" onerror=\"alert(1)\" ONLOAD=x><b onmouseover=y>b</b>",
       "<img src=\"a.png\" /><b>b</b>"},
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
      {"fixed boxes", "<div style=\"position: fixed; top: 0\">x</div>",
       "<div style=\"top: 0\">x</div>"},
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
      {"void elements", "<br><hr size=1><img src=a.png></img><col>",
       "<br /><hr size=\"1\" /><img src=\"a.png\" />"},
      {"first newline of pre", "<pre>\n\nx</pre>", "<pre>\n\nx</pre>"},
      {"link inside link", "<a href=\"x\">1<div><a href=\"y\">2</a></div></a>",
       "<a href=\"x\">1</a><div><a href=\"x\"></a><a href=\"y\">2</a></div>"},
      {"whole document",
       "<html><head><title>T</title></head><body bgcolor=red onload=x><p>x</p></body></html>",
       "<p>x</p>"},
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
  const std::string url =
      "/webapi/entry.cgi?api=ZEVO.Larkpost.Attachment&amp;version=1&amp;method=download&amp;id=";
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
      {"<img src=\"\\\\x\\a.png\" />", "<img data-larkpost-src=\"\\\\x\\a.png\" />"},
      {"<img src=\"logo.png\" />", "<img src=\"logo.png\" />"},
      {"<table background=\"http://x/b.png\"></table>",
       "<table data-larkpost-background=\"http://x/b.png\"></table>"},
      {"<p style=\"color: red; background: url(http://x/y.png)\">x</p>",
       "<p style=\"color: red\" data-larkpost-style=\"background: url(http://x/y.png)\">x</p>"},
      {"<p style=\"background-image: image-set('//x/a.png' 1x)\">x</p>",
       "<p data-larkpost-style=\"background-image: image-set('//x/a.png' 1x)\">x</p>"},
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
