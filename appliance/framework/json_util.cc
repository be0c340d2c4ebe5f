// JSON text in and out. Builders are costly to make and the host parses many
// small texts per request, so each thread keeps one reader and one writer.
#include <json/reader.h>
#include <json/writer.h>

#include <memory>
#include <sstream>

#include "platform/zevo/webapi.h"

namespace ZEVO {
namespace {

Json::CharReader& Reader() {
  thread_local const std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder builder;
    // Plain JSON, nothing more: any value at the top level, no comments, no
    // trailing garbage ("5abc" is not the number 5).
    builder["allowComments"] = false;
    builder["allowTrailingCommas"] = false;
    builder["strictRoot"] = false;
    builder["allowDroppedNullPlaceholders"] = false;
    builder["allowNumericKeys"] = false;
    builder["allowSingleQuotes"] = false;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = false;
    builder["allowSpecialFloats"] = false;
    builder["skipBom"] = false;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }();
  return *reader;
}

Json::StreamWriter& Writer() {
  thread_local const std::unique_ptr<Json::StreamWriter> writer = [] {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
  }();
  return *writer;
}

}  // namespace

Json::Value WebAPIUtil::ParseJson(const std::string& text) {
  Json::Value value;
  return FromString(text, value) ? value : Json::Value();
}

bool WebAPIUtil::FromString(const std::string& text, Json::Value& out) {
  Json::Value parsed;
  try {
    const char* begin = text.data();
    if (!Reader().parse(begin, begin + text.size(), &parsed, nullptr)) return false;
  } catch (...) {
    // The reader throws on nesting deeper than its stack limit; for the
    // caller that is one more text that is not JSON.
    return false;
  }
  out.swap(parsed);
  return true;
}

std::string WebAPIUtil::ToString(const Json::Value& value) {
  std::ostringstream out;
  Writer().write(value, &out);
  return out.str();
}

}  // namespace ZEVO
