// A streaming multipart/form-data parser: the body is fed in pieces of any
// size, and part data is handed on as it arrives, so an upload never sits
// whole in memory. Only a small tail (shorter than the delimiter) and one
// part's header block are ever buffered.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace larkpost::cgi {

// What a part's headers say about it.
struct PartInfo {
  std::string name;                     // the form field name
  std::optional<std::string> filename;  // present for a file part, as the client sent it
  std::string content_type;
};

class MultipartSink {
 public:
  virtual ~MultipartSink() = default;
  virtual void BeginPart(const PartInfo& part) = 0;
  virtual void PartData(std::string_view data) = 0;
  virtual void EndPart() = 0;
};

class MultipartParser {
 public:
  // Longest header block of one part that is accepted.
  static constexpr size_t kMaxHeaderBytes = size_t{16} * 1024;

  // `boundary` without the leading "--". The sink must outlive the parser.
  MultipartParser(std::string_view boundary, MultipartSink* sink);

  // Both throw RequestError(101) for a malformed body; Finish also when the
  // closing delimiter never came (a truncated body).
  void Feed(std::string_view data);
  void Finish();

 private:
  enum class State { kPreamble, kAfterDelimiter, kHeaders, kData, kEpilogue };

  // Each returns false when it needs more input.
  bool StepPreamble();
  bool StepAfterDelimiter();
  bool StepHeaders();
  bool StepData();

  std::string delimiter_;  // CRLF "--" boundary
  MultipartSink* sink_;
  State state_ = State::kPreamble;
  std::string buffer_;
  size_t pos_ = 0;  // start of the unconsumed part of buffer_
};

// A header value of the form "type; name=value; name="quoted value"".
struct HeaderValue {
  std::string type;                                         // lower-cased
  std::vector<std::pair<std::string, std::string>> params;  // names lower-cased
};
HeaderValue ParseHeaderValue(std::string_view value);

// The boundary parameter of a multipart/form-data Content-Type, quoted or
// not; nullopt when there is none or it is not a valid boundary.
std::optional<std::string> BoundaryOf(std::string_view content_type);

// Parses a Content-Disposition value ("form-data; name=...; filename=...").
// nullopt unless it is form-data with a name.
std::optional<PartInfo> ParseContentDisposition(std::string_view value);

// The last component of a client's file name: anything up to the last "/"
// or "\\" is dropped.
std::string BaseFileName(std::string_view name);

}  // namespace larkpost::cgi
