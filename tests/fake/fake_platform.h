// The fake of the attachment side: the core's attachments, stickers and
// general settings, its small helpers (random names, MIME types, EXIF
// rotation), and the platform's file services (shares, file copy, running
// programs). Core operations are recorded in fake::core().calls like every
// other core call, and fail through fake::core().failures; the file services
// really work on the test's files, so that a test can look at what a
// handler left on disk.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/mailcore/record.h"

namespace larkpost::fake {

struct Platform {
  // ------------------------------------------------------------- core data
  std::map<int, ornic::larkpost::record::Attachment> attachments;
  std::map<int, std::string> contents;  // GetContentByRecord, by attachment id
  // Temporary attachments; AddAttachmentTemp adds one here with the id
  // `next_temp_id` (then counts on) and the content id "cid-<id>".
  std::map<int, ornic::larkpost::record::AttachmentTemp> temps;
  int next_temp_id = 500;
  std::vector<ornic::larkpost::record::Sticker> stickers;  // in the core's order
  ornic::larkpost::record::GeneralConfig general;
  // Names that RandomString hands out first, in order; after them it gives
  // the prefix and a count ("attachment_00000001", ...).
  std::deque<std::string> random_names;
  int random_count = 0;
  // GetImageRotationDegree by path; 0 for any other.
  std::map<std::string, int> rotations;

  // --------------------------------------------------------- file services
  // Share name -> its directory; "" is a share whose record has no path.
  // The share "home" is not among them: it is ZevoUser::home(),
  // <core().app_root>/homes/<user name>.
  std::map<std::string, std::string> shares;
  int shares_held = 0;  // ZEVOShareGet minus ZEVOShareFree

  // Every program run (VESLCExecv and VESLCExec), its argument vector
  // exactly as passed, argv[0] first. Each run is also a core call
  // "VESLCExecv <path>" (" nowait" added when the caller does not wait), so
  // its place among the core calls shows, and a failure set for
  // "VESLCExecv" fails it with VESLC_ERR_EXEC before it runs.
  std::vector<std::vector<std::string>> runs;
  // What a program does, by path: returns 0 for "exited with 0", else the
  // platform error that VESLCErrGet then reports. A program without an entry
  // fails with VESLC_ERR_NOT_FOUND. Reset() installs stand-ins for the three
  // programs the plug-in runs:
  //   "/usr/zevo/bin/convert-thumb": writes its last argument, the text
  //     "converted " and its second (the source);
  //   "/usr/zevo/bin/zip" ("-jr", ARCHIVE, options..., DIR): writes ARCHIVE
  //     as "name=content\n" for each file of DIR, by name;
  //   "/bin/rm" ("-rf", paths...): removes the paths.
  std::map<std::string, std::function<unsigned int(const std::vector<std::string>&)>> programs;

  unsigned int last_error = 0;  // VESLCErrGet
};

// The test process's fake platform; fake::Reset() resets it too.
Platform& platform();
void ResetPlatform();

}  // namespace larkpost::fake
