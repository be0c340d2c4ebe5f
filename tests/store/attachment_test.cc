#include <fcntl.h>
#include <gtest/gtest.h>
#include <libexif/exif-data.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cctype>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "appliance/mailcore/store_records.h"
#include "platform/mailcore/addressbook.h"
#include "platform/mailcore/util.h"
#include "tests/store/store_fixture.h"

namespace ornic::larkpost::testing {
namespace {

class AttachmentTest : public StoreTest {
 protected:
  control::AttachmentControl attachments_{controller()};
  control::MessageControl messages_{controller()};
};

TEST_F(AttachmentTest, RecordsOfTemporaryAndStoredAttachments) {
  control::AttachmentConfig config;
  std::string cid = "untouched";
  EXPECT_EQ(attachments_.AddAttachmentTemp(config, cid), 0);
  config.name.Set("Photo.JPG");
  EXPECT_EQ(attachments_.AddAttachmentTemp(config, cid), 0);
  config.path.Set("");
  EXPECT_EQ(attachments_.AddAttachmentTemp(config, cid), 0);
  EXPECT_EQ(cid, "untouched");

  config.path.Set(root_.path() + "/not-yet-written");
  config.is_inline.Set(true);
  std::set<std::string> content_ids;
  for (int i = 0; i < 20; ++i) {
    record::AttachmentTemp temp = attachments_.GetTemp(attachments_.AddAttachmentTemp(config, cid));
    EXPECT_EQ(
        std::tie(temp.path, temp.name, temp.mimetype, temp.is_inline, temp.content_id),
        std::make_tuple(root_.path() + "/not-yet-written", "Photo.JPG", "image/jpeg", true, cid));
    EXPECT_EQ(cid.substr(16), "@larkpost") << cid;
    content_ids.insert(cid);
  }
  EXPECT_EQ(content_ids.size(), 20u);
  EXPECT_FALSE(attachments_.GetTemp(9999).IsValid());

  Mail mail;
  mail.attachments = {Part("a.png", "image/png", "", false, 10, "2")};
  int attachment_id = messages_.GetMessage(Add(mail)).attachments.at(0).id;
  EXPECT_EQ(attachments_.Get(attachment_id).preview_path, "");
  EXPECT_TRUE(attachments_.SetPreviewPath(attachment_id, "/previews/1.jpg"));
  EXPECT_FALSE(attachments_.SetPreviewPath(9999, "/previews/2.jpg"));
  record::Attachment stored = attachments_.Get(attachment_id);
  EXPECT_EQ(std::tie(stored.name, stored.mimetype, stored.preview_path),
            std::make_tuple("a.png", "image/png", "/previews/1.jpg"));
  EXPECT_FALSE(attachments_.Get(9999).IsValid());
  EXPECT_EQ(Inconsistencies(), Texts());
}

TEST_F(AttachmentTest, UploadsNoDraftTookAreDroppedAfterAWeek) {
  const int old_id = Upload("a.txt", "bytes");
  const std::string old_file = attachments_.GetTemp(old_id).path;
  clock_.Advance(kDay * 7);
  const int kept_id = Upload("a.txt", "bytes");
  EXPECT_TRUE(attachments_.GetTemp(old_id).IsValid()) << "a week old is not yet abandoned";
  clock_.Advance(1);
  Upload("a.txt", "bytes");
  EXPECT_FALSE(attachments_.GetTemp(old_id).IsValid());
  EXPECT_FALSE(std::ifstream(old_file).good()) << "its file went with it";
  EXPECT_TRUE(std::ifstream(attachments_.GetTemp(kept_id).path).good());
}

// What the webmail leaves in the user's folders once nothing refers to it
// goes with the next upload, after the grace period: the preview of a
// deleted message's attachment and what a killed "download_all" packed.
TEST_F(AttachmentTest, LeftoversAreSweptAfterTheGracePeriod) {
  Mail mail;
  mail.attachments = {Part("a.png", "image/png", "", false, 10, "2")};
  const int message = Add(mail);
  const std::string dir = ::larkpost::appliance::UserDir(uid_);
  const std::string preview = dir + "/.ORNIC/@image/1_1.jpg";
  const std::string packing = dir + "/.ORNIC/@tmp/42_1700000000";
  ::larkpost::appliance::MakeDirs(dir + "/.ORNIC/@image");
  ::larkpost::appliance::MakeDirs(packing);
  for (const std::string& path :
       {preview, packing + "/a.png", packing + ".zip", dir + "/.ORNIC/@tmp/notes.txt"}) {
    std::ofstream(path) << "x";
  }
  ASSERT_TRUE(
      attachments_.SetPreviewPath(messages_.GetMessage(message).attachments.at(0).id, preview));
  ASSERT_TRUE(messages_.SetMailbox({message}, store::kTrashId));
  ASSERT_TRUE(messages_.SetMailbox({message}, store::kTrashId));
  // Last touched `age` seconds before the store's clock.
  const auto age = [&](int64_t seconds) {
    for (const std::string& path : {preview, packing, packing + ".zip"}) {
      const timespec times[2] = {{clock_.now() - seconds, 0}, {clock_.now() - seconds, 0}};
      ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
    }
  };
  age(store::kStrayCopyGrace - 60);
  Upload("b.txt", "bytes");
  EXPECT_TRUE(std::ifstream(preview).good()) << "within the grace period";
  EXPECT_TRUE(std::ifstream(packing + ".zip").good()) << "within the grace period";
  age(store::kStrayCopyGrace + 1);
  Upload("c.txt", "bytes");
  struct stat info;
  EXPECT_NE(stat(preview.c_str(), &info), 0);
  EXPECT_NE(stat(packing.c_str(), &info), 0);
  EXPECT_NE(stat((packing + ".zip").c_str(), &info), 0);
  EXPECT_EQ(stat((dir + "/.ORNIC/@tmp/notes.txt").c_str(), &info), 0) << "not the webmail's";
}

TEST_F(AttachmentTest, TheConnectionIsReallyLetGo) {
  std::weak_ptr<store::Database> before = store::Connection(uid_, false);
  controller().CloseDatabaseConnection();
  EXPECT_TRUE(before.expired());
  // The next operation opens the store again.
  EXPECT_TRUE(control::MailboxControl(controller()).Get(kInbox).IsValid());
  EXPECT_FALSE(store::Connection(uid_, false) == nullptr);
}

TEST_F(AttachmentTest, StickersThatShipComeByCategory) {
  control::StickerControl stickers(controller());
  auto names = [&](int category) {
    Texts out;
    for (const record::Sticker& s : stickers.List(category)) {
      EXPECT_EQ(s.category, category);
      EXPECT_TRUE(std::ifstream(s.path).good()) << s.path;
      EXPECT_GT(s.last_modified, 0);
      out.push_back(std::to_string(s.id) + ":" + s.name);
    }
    return out;
  };
  EXPECT_EQ(names(1), (Texts{"1:smile", "2:wink", "3:laugh", "4:sad", "5:surprised"}));
  EXPECT_EQ(names(2), (Texts{"6:heart", "7:star", "8:check", "9:sun"}));
  EXPECT_EQ(names(0), Texts());
  record::Sticker star = stickers.Get(7);
  EXPECT_EQ(star.name, "star");
  EXPECT_EQ(star.path.substr(star.path.size() - 8), "star.png");
  EXPECT_FALSE(stickers.Get(99).IsValid());

  // A folder of one's own; lines that are not stickers, and stickers
  // without an image, are left out.
  root_.Write(
      "stickers/stickers.txt",
      "# comment\n3\t4\tone\tone.png\nbad line\n5\t4\ttwo\t../two.png\n6\t4\tnone\tnone.png\n");
  root_.Write("stickers/one.png", "png");
  setenv("LARKPOST_STICKER_DIR", (root_.path() + "/stickers").c_str(), 1);
  EXPECT_EQ(names(4), Texts{"3:one"});
  EXPECT_FALSE(stickers.Get(7).IsValid());
  unsetenv("LARKPOST_STICKER_DIR");
}

TEST_F(AttachmentTest, GeneralSettingsChangeOnlyWhatIsSet) {
  control::SettingControl settings(controller());
  record::GeneralConfig defaults = settings.GetGeneralSetting();
  EXPECT_EQ(std::tie(defaults.conversations_per_page, defaults.enable_signature,
                     defaults.update_interval_time, defaults.codepage),
            std::make_tuple(25, true, 5, ""));

  control::GeneralConfig change;
  change.conversations_per_page.Set(50);
  change.display_external_image.Set(true);
  change.enable_signature.Set(false);
  change.codepage.Set("utf8");
  change.composer_fontsize.Set("12pt");
  ASSERT_TRUE(settings.SetGeneralSetting(change));
  ASSERT_TRUE(settings.SetGeneralSetting(control::GeneralConfig()));
  record::GeneralConfig stored = settings.GetGeneralSetting();
  EXPECT_EQ(std::tie(stored.conversations_per_page, stored.display_external_image,
                     stored.enable_signature, stored.codepage, stored.composer_fontsize,
                     stored.update_interval_time, stored.composer_fontname),
            std::make_tuple(50, true, false, "utf8", "12pt", 5, ""));

  for (int which = 0; which < 3; ++which) {
    control::GeneralConfig bad;
    bad.theme.Set(2);
    if (which == 0) bad.conversations_per_page.Set(0);
    if (which == 1) bad.mark_as_read_time.Set(-1);
    if (which == 2) bad.update_interval_time.Set(-5);
    EXPECT_FALSE(settings.SetGeneralSetting(bad)) << which;
  }
  EXPECT_EQ(settings.GetGeneralSetting().theme, 0);
}

TEST_F(AttachmentTest, OneContactPerAddress) {
  addressbook::control::Controller book(uid_);
  addressbook::control::ContactControl contacts(book);
  int bob = contacts.CreateFromLarkpost("", "Bob@Example.org");
  EXPECT_GT(bob, 0);
  EXPECT_EQ(contacts.CreateFromLarkpost("Bob Builder", "bob@example.ORG"), bob);
  EXPECT_EQ(contacts.CreateFromLarkpost("Robert", " bob@example.org "), bob);
  int ann = contacts.CreateFromLarkpost("Ann", "ann@example.org");
  EXPECT_NE(ann, bob);
  EXPECT_EQ(contacts.CreateFromLarkpost("Nobody", ""), 0);
  std::vector<addressbook::Contact> all = contacts.List();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].email + "|" + all[0].name, "ann@example.org|Ann");
  EXPECT_EQ(all[1].email + "|" + all[1].name, "Bob@Example.org|Bob Builder");
  EXPECT_EQ(CodeOf([] { addressbook::control::Controller nobody(4242); }), kErrorNoSuchUser);
}

TEST(CoreHelpers, RandomStringsAndFileTypes) {
  std::set<std::string> seen;
  std::set<char> letters;
  for (int i = 0; i < 200; ++i) {
    std::string text = control::RandomString("attachment_", 8);
    ASSERT_EQ(text.substr(0, 11), "attachment_");
    ASSERT_EQ(text.size(), 19u);
    for (char c : text.substr(11)) ASSERT_TRUE(isalnum(static_cast<unsigned char>(c))) << text;
    letters.insert(text.begin() + 11, text.end());
    seen.insert(text);
  }
  EXPECT_EQ(seen.size(), 200u);
  EXPECT_GT(letters.size(), 50u);  // 1600 draws cover nearly all of the 62
  EXPECT_EQ(control::RandomString("p", 0), "p");
  EXPECT_EQ(control::RandomString("", -3), "");

  struct {
    const char* name;
    const char* type;
  } types[] = {{"IMG.JPG", "image/jpeg"},
               {"a.b.pdf", "application/pdf"},
               {"x.png", "image/png"},
               {"notes.txt", "text/plain"},
               {"noext", "application/octet-stream"},
               {"odd.unknownext", "application/octet-stream"},
               {"", "application/octet-stream"}};
  for (const auto& t : types) EXPECT_EQ(control::GetMimeType(t.name), t.type) << t.name;
}

// A JPEG start, an EXIF block with `orientation` (none when 0), and the end
// marker: all that EXIF readers look at.
std::string JpegWithOrientation(int orientation) {
  std::string jpeg("\xff\xd8", 2);
  if (orientation != 0) {
    std::unique_ptr<ExifData, void (*)(ExifData*)> data(exif_data_new(), exif_data_unref);
    exif_data_set_byte_order(data.get(), EXIF_BYTE_ORDER_MOTOROLA);
    ExifEntry* entry = exif_entry_new();
    exif_content_add_entry(data->ifd[EXIF_IFD_0], entry);
    exif_entry_initialize(entry, EXIF_TAG_ORIENTATION);
    exif_set_short(entry->data, EXIF_BYTE_ORDER_MOTOROLA, static_cast<ExifShort>(orientation));
    exif_entry_unref(entry);
    unsigned char* bytes = nullptr;
    unsigned int size = 0;
    exif_data_save_data(data.get(), &bytes, &size);
    jpeg += "\xff\xe1";
    jpeg += static_cast<char>((size + 2) >> 8);
    jpeg += static_cast<char>((size + 2) & 0xff);
    jpeg.append(reinterpret_cast<char*>(bytes), size);
    free(bytes);
  }
  return jpeg + "\xff\xd9";
}

TEST_F(AttachmentTest, RotationFromExifOrientation) {
  struct {
    int orientation;
    int degrees;
  } cases[] = {{0, 0}, {1, 0}, {2, 0}, {3, 180}, {4, 180}, {5, 270}, {6, 90}, {7, 90}, {8, 270}};
  for (const auto& c : cases) {
    root_.Write("exif.jpg", JpegWithOrientation(c.orientation));
    EXPECT_EQ(util::GetImageRotationDegree(root_.path() + "/exif.jpg"), c.degrees) << c.orientation;
  }
  root_.Write("plain.png", "\x89PNG\r\n");
  EXPECT_EQ(util::GetImageRotationDegree(root_.path() + "/plain.png"), 0);
  EXPECT_EQ(util::GetImageRotationDegree(root_.path() + "/missing.jpg"), -1);
  EXPECT_EQ(util::GetImageRotationDegree(root_.path()), -1);
}

}  // namespace
}  // namespace ornic::larkpost::testing
