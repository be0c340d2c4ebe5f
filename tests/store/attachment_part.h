// An attachment record of stored mail as a test states it: what the parser
// finds and what the store keeps, its content found by its part path.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "appliance/mailcore/message_store.h"

namespace ornic::larkpost::testing {

inline store::NewAttachment Part(std::string name, std::string mimetype, std::string content_id,
                                 bool is_inline, int64_t size, std::string part_path) {
  store::NewAttachment part;
  part.name = std::move(name);
  part.mimetype = std::move(mimetype);
  part.content_id = std::move(content_id);
  part.is_inline = is_inline;
  part.size = size;
  part.part_path = std::move(part_path);
  return part;
}

}  // namespace ornic::larkpost::testing
