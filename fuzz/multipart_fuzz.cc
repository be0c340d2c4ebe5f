// The streaming multipart/form-data parser: whatever the body, it either
// refuses it (RequestError) or hands on parts, and the parts do not depend on
// how the body was cut into pieces. Input: the boundary line, a line of
// piece sizes (bytes, each 1..255), then the body.
#include <string>
#include <vector>

#include "appliance/framework/cgi.h"
#include "appliance/framework/multipart.h"
#include "fuzz/fuzz_util.h"

namespace cgi = larkpost::cgi;

namespace {

class Recorder : public cgi::MultipartSink {
 public:
  void BeginPart(const cgi::PartInfo& part) override {
    text += "begin " + part.name + "|" + part.filename.value_or("-") + "|" + part.content_type;
    text += "\n";
  }
  void PartData(std::string_view data) override { text.append(data); }
  void EndPart() override { text += "\nend\n"; }
  std::string text;
};

// What the parser makes of `body` fed in the given pieces; "refused" when it
// throws.
std::string Parse(const std::string& boundary, std::string_view body,
                  const std::vector<size_t>& pieces) {
  Recorder recorder;
  try {
    cgi::MultipartParser parser(boundary, &recorder);
    size_t at = 0, piece = 0;
    while (at < body.size()) {
      const size_t length = pieces.empty() ? body.size() : pieces[piece++ % pieces.size()];
      parser.Feed(body.substr(at, length));
      at += length;
    }
    parser.Finish();
  } catch (const cgi::RequestError&) {
    return "refused";
  }
  return recorder.text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view body;
  const auto lines =
      larkpost::fuzz::TakeLines({reinterpret_cast<const char*>(data), size}, 2, &body);
  const std::optional<std::string> boundary =
      cgi::BoundaryOf("multipart/form-data; boundary=" + lines[0]);
  if (!boundary) return 0;
  std::vector<size_t> pieces;
  for (unsigned char c : lines[1]) pieces.push_back(c == 0 ? 1 : c);
  const std::string whole = Parse(*boundary, body, {});
  const std::string cut = Parse(*boundary, body, pieces.empty() ? std::vector<size_t>{1} : pieces);
  if (whole != cut) larkpost::fuzz::Broken("parts depend on how the body arrives");
  cgi::ParseContentDisposition(lines[0]);
  cgi::BaseFileName(lines[1]);
  return 0;
}
