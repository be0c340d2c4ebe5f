#include "appliance/framework/multipart.h"

#include <algorithm>
#include <cctype>

#include "appliance/framework/cgi.h"
#include "appliance/framework/text.h"

namespace larkpost::cgi {
namespace {

constexpr std::string_view kCRLF = "\r\n";
// Blanks that a sender may put between a delimiter and its line end.
constexpr size_t kMaxPadding = 64;

[[noreturn]] void Malformed(const std::string& why) {
  throw RequestError(kErrorBadRequest, "malformed multipart body: " + why);
}

// filename*=UTF-8''na%C3%AFve.txt (RFC 5987); nullopt for other charsets.
std::optional<std::string> DecodeExtendedValue(std::string_view value) {
  const size_t first = value.find('\'');
  if (first == std::string_view::npos) return std::nullopt;
  const size_t second = value.find('\'', first + 1);
  if (second == std::string_view::npos) return std::nullopt;
  if (Lower(value.substr(0, first)) != "utf-8") return std::nullopt;
  return PercentDecode(value.substr(second + 1), false);
}

}  // namespace

HeaderValue ParseHeaderValue(std::string_view value) {
  HeaderValue out;
  size_t i = value.find(';');
  out.type = Lower(Trim(value.substr(0, i)));
  while (i != std::string_view::npos && i < value.size()) {
    ++i;  // past ';'
    const size_t name_end = value.find_first_of("=;", i);
    std::string name = Lower(Trim(value.substr(i, name_end - i)));
    if (name_end == std::string_view::npos || value[name_end] == ';') {
      if (!name.empty()) out.params.emplace_back(std::move(name), "");
      i = name_end;
      continue;
    }
    i = name_end + 1;
    while (i < value.size() && IsBlank(value[i])) ++i;
    std::string param;
    if (i < value.size() && value[i] == '"') {
      // A backslash escapes only a quote or a backslash: old browsers send
      // Windows paths ("C:\dir\a.txt") unescaped, and their separators must
      // survive for the directory part to be cut off.
      for (++i; i < value.size() && value[i] != '"'; ++i) {
        if (value[i] == '\\' && i + 1 < value.size() &&
            (value[i + 1] == '"' || value[i + 1] == '\\')) {
          ++i;
        }
        param.push_back(value[i]);
      }
      i = value.find(';', i);
    } else {
      const size_t end = value.find(';', i);
      param = std::string(Trim(value.substr(i, end - i)));
      i = end;
    }
    out.params.emplace_back(std::move(name), std::move(param));
  }
  return out;
}

std::optional<std::string> BoundaryOf(std::string_view content_type) {
  for (const auto& [name, value] : ParseHeaderValue(content_type).params) {
    if (name != "boundary") continue;
    if (value.empty() || value.size() > 70 || value.find_first_of("\r\n") != std::string::npos) {
      return std::nullopt;
    }
    return value;
  }
  return std::nullopt;
}

std::optional<PartInfo> ParseContentDisposition(std::string_view value) {
  HeaderValue header = ParseHeaderValue(value);
  if (header.type != "form-data") return std::nullopt;
  std::optional<std::string> name;
  std::optional<std::string> extended;
  PartInfo part;
  for (auto& [key, param] : header.params) {
    if (key == "name") {
      name = std::move(param);
    } else if (key == "filename") {
      part.filename = std::move(param);
    } else if (key == "filename*") {
      extended = DecodeExtendedValue(param);
    }
  }
  if (!name) return std::nullopt;
  part.name = std::move(*name);
  if (extended) part.filename = std::move(extended);
  return part;
}

std::string BaseFileName(std::string_view name) {
  const size_t slash = name.find_last_of("/\\");
  return std::string(slash == std::string_view::npos ? name : name.substr(slash + 1));
}

MultipartParser::MultipartParser(std::string_view boundary, MultipartSink* sink)
    : delimiter_("\r\n--" + std::string(boundary)), sink_(sink), buffer_(kCRLF) {
  // The buffer starts with a line end of its own so that a delimiter at the
  // very start of the body is found like every later one.
}

void MultipartParser::Feed(std::string_view data) {
  if (state_ == State::kEpilogue) return;
  buffer_.erase(0, pos_);
  pos_ = 0;
  buffer_.append(data);
  for (;;) {
    bool more = false;
    switch (state_) {
      case State::kPreamble:
        more = StepPreamble();
        break;
      case State::kAfterDelimiter:
        more = StepAfterDelimiter();
        break;
      case State::kHeaders:
        more = StepHeaders();
        break;
      case State::kData:
        more = StepData();
        break;
      case State::kEpilogue:
        buffer_.clear();
        pos_ = 0;
        break;
    }
    if (!more) return;
  }
}

void MultipartParser::Finish() {
  if (state_ != State::kEpilogue) Malformed("the body ends before its closing boundary");
}

bool MultipartParser::StepPreamble() {
  const size_t found = buffer_.find(delimiter_, pos_);
  if (found == std::string::npos) {
    // Keep only what could still be the start of a delimiter.
    pos_ = std::max(pos_, buffer_.size() - std::min(buffer_.size(), delimiter_.size() - 1));
    return false;
  }
  pos_ = found + delimiter_.size();
  state_ = State::kAfterDelimiter;
  return true;
}

bool MultipartParser::StepAfterDelimiter() {
  const std::string_view rest = std::string_view(buffer_).substr(pos_);
  if (rest.size() < 2) return false;
  if (rest.substr(0, 2) == "--") {
    state_ = State::kEpilogue;
    return true;
  }
  size_t blanks = 0;
  while (blanks < rest.size() && IsBlank(rest[blanks])) ++blanks;
  if (blanks > kMaxPadding) Malformed("a delimiter line is too long");
  if (rest.size() < blanks + 2) return false;
  if (rest.substr(blanks, 2) != kCRLF) Malformed("a boundary is followed by more text");
  pos_ += blanks + 2;
  state_ = State::kHeaders;
  return true;
}

bool MultipartParser::StepHeaders() {
  const std::string_view rest = std::string_view(buffer_).substr(pos_);
  size_t end = 0;
  if (rest.substr(0, 2) == kCRLF) {
    end = 0;  // a part without headers
  } else {
    const size_t found = rest.find("\r\n\r\n");
    if (found == std::string_view::npos) {
      if (rest.size() > kMaxHeaderBytes) Malformed("part headers are too long");
      return false;
    }
    end = found + 2;
  }
  if (rest.size() < end + 2) return false;
  if (end > kMaxHeaderBytes) Malformed("part headers are too long");

  std::optional<PartInfo> part;
  std::string content_type;
  // Header lines; a line that starts with a blank continues the one before.
  std::string line;
  auto take_line = [&]() {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) {
      if (!Trim(line).empty()) Malformed("a part header line has no name");
      return;
    }
    const std::string name = Lower(Trim(std::string_view(line).substr(0, colon)));
    const std::string_view value = Trim(std::string_view(line).substr(colon + 1));
    if (name == "content-disposition") {
      part = ParseContentDisposition(value);
    } else if (name == "content-type") {
      content_type = std::string(value);
    }
  };
  const std::string_view block = rest.substr(0, end);
  size_t start = 0;
  while (start < block.size()) {
    const size_t stop = block.find(kCRLF, start);
    const std::string_view text = block.substr(start, stop - start);
    start = stop + 2;
    if (!text.empty() && IsBlank(text.front()) && !line.empty()) {
      line.append(text);
      continue;
    }
    if (!line.empty()) take_line();
    line.assign(text);
  }
  if (!line.empty()) take_line();
  if (!part) Malformed("a part has no form-data name");
  part->content_type = std::move(content_type);

  pos_ += end + 2;
  state_ = State::kData;
  sink_->BeginPart(*part);
  return true;
}

bool MultipartParser::StepData() {
  const size_t found = buffer_.find(delimiter_, pos_);
  if (found == std::string::npos) {
    // Hand on everything that cannot be the start of a delimiter.
    const size_t keep = std::min(buffer_.size() - pos_, delimiter_.size() - 1);
    const size_t safe = buffer_.size() - keep;
    if (safe > pos_) sink_->PartData(std::string_view(buffer_).substr(pos_, safe - pos_));
    pos_ = safe;
    return false;
  }
  if (found > pos_) sink_->PartData(std::string_view(buffer_).substr(pos_, found - pos_));
  pos_ = found + delimiter_.size();
  state_ = State::kAfterDelimiter;
  sink_->EndPart();
  return true;
}

}  // namespace larkpost::cgi
