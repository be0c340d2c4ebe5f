// Reads a message that arrived (at the SMTP sink) the way a mail client
// would, so that tests can check its structure and every part's bytes.
#pragma once

#include <string>
#include <vector>

namespace larkpost::testing {

// A leaf part, its content decoded.
struct ReceivedLeaf {
  std::string type, filename, content_id, disposition, content;
};

// A message's MIME tree written as "type(child,child)", and its leaves in
// order. An attached message shows as its type alone.
struct ReceivedMessage {
  std::string tree;
  std::vector<ReceivedLeaf> leaves;
};

// An empty tree when `data` is not a message.
ReceivedMessage ReadMessage(const std::string& data);

}  // namespace larkpost::testing
