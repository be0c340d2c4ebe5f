// Mail kept outside the store, as other mail programs keep it: mbox files,
// Maildir folders and single message files. Read-only: a source is never
// changed.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ornic::larkpost::mime {

struct SourceMessage {
  // The message source: for mbox without its "From " line and with the
  // ">From " quoting undone; otherwise the file's bytes.
  std::string raw;
  // When the message arrived if its own Date header does not say: the mbox
  // "From " line's time, else the file's modification time.
  int64_t time_without_date = 0;
  // Flags that the source kept: Maildir's "S" and "F" after ":2,"; mbox's
  // "Status: R" and "X-Status: F".
  bool read = false;
  bool starred = false;
};

class MailSource {
 public:
  enum Kind {
    kMbox,         // a file that starts with a "From " line
    kMaildir,      // a folder with cur/ or new/ (tmp/ is not read)
    kMessageFile,  // any other regular file: one message
  };

  // Looks at `path` and what it holds. Throws std::runtime_error, with a
  // text that names `path`, when it does not exist or cannot be read, is
  // an empty file, or is a folder without cur/ and new/.
  explicit MailSource(std::string path);

  Kind kind() const { return kind_; }
  const std::string& path() const { return path_; }

  // Hands each message to `each`, in the source's order (a Maildir's by
  // file name, which starts with the delivery time). Throws
  // std::runtime_error when a file cannot be read on the way.
  void ForEach(const std::function<void(SourceMessage&&)>& each) const;

 private:
  void ForEachInMbox(const std::function<void(SourceMessage&&)>& each) const;

  std::string path_;
  Kind kind_;
  std::vector<std::string> maildir_files_;  // relative to path_: "cur/NAME"
};

// The time of an mbox "From " line ("From ann@example.org Mon Sep 14
// 00:00:00 2020", read as UTC); false when `line` is not one.
bool ParseFromLine(const std::string& line, int64_t* time);

}  // namespace ornic::larkpost::mime
