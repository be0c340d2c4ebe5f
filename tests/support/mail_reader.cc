#include "tests/support/mail_reader.h"

#include <gmime/gmime.h>

namespace larkpost::testing {
namespace {

std::string Owned(char* text) {
  std::string copy = text != nullptr ? text : "";
  g_free(text);
  return copy;
}

void Walk(GMimeObject* object, ReceivedMessage* received) {
  const std::string type =
      Owned(g_mime_content_type_get_mime_type(g_mime_object_get_content_type(object)));
  received->tree += type;
  if (GMIME_IS_MULTIPART(object)) {
    GMimeMultipart* multipart = GMIME_MULTIPART(object);
    for (int i = 0; i < g_mime_multipart_get_count(multipart); ++i) {
      received->tree += i == 0 ? "(" : ",";
      Walk(g_mime_multipart_get_part(multipart, i), received);
    }
    received->tree += ")";
    return;
  }
  if (!GMIME_IS_PART(object)) return;
  ReceivedLeaf leaf;
  leaf.type = type;
  const char* filename = g_mime_part_get_filename(GMIME_PART(object));
  const char* content_id = g_mime_object_get_content_id(object);
  const char* disposition = g_mime_object_get_disposition(object);
  leaf.filename = filename != nullptr ? filename : "";
  leaf.content_id = content_id != nullptr ? content_id : "";
  leaf.disposition = disposition != nullptr ? disposition : "";
  GMimeStream* stream = g_mime_stream_mem_new();
  g_mime_data_wrapper_write_to_stream(g_mime_part_get_content(GMIME_PART(object)), stream);
  GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(stream));
  leaf.content.assign(reinterpret_cast<const char*>(bytes->data), bytes->len);
  g_object_unref(stream);
  received->leaves.push_back(leaf);
}

}  // namespace

ReceivedMessage ReadMessage(const std::string& data) {
  static const bool ready = (g_mime_init(), true);
  (void)ready;
  GMimeStream* stream = g_mime_stream_mem_new_with_buffer(data.data(), data.size());
  GMimeParser* parser = g_mime_parser_new_with_stream(stream);
  GMimeMessage* message = g_mime_parser_construct_message(parser, nullptr);
  ReceivedMessage received;
  if (message != nullptr) {
    Walk(g_mime_message_get_mime_part(message), &received);
    g_object_unref(message);
  }
  g_object_unref(parser);
  g_object_unref(stream);
  return received;
}

}  // namespace larkpost::testing
