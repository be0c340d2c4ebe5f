#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "appliance/mailcore/draft_html.h"
#include "appliance/mailcore/draft_store.h"
#include "platform/mailcore/html_parser.h"
#include "tests/store/store_fixture.h"

namespace ornic::larkpost::testing {
namespace {

using namespace std::string_literals;

// A received message with a listed attachment (bytes 00 01 02 03 ff, part
// "2") and an inline image (part "3", content id "logo@example.org").
const char kReceived[] =
    "From: Ann <ann@example.org>\r\nTo: Bob <bob@example.org>\r\nSubject: Report\r\n"
    "Message-ID: <r2@example.org>\r\nMIME-Version: 1.0\r\n"
    "Content-Type: multipart/mixed; boundary=\"b\"\r\n\r\n"
    "--b\r\nContent-Type: text/plain\r\n\r\nSee attached.\r\n"
    "--b\r\nContent-Type: application/octet-stream; name=\"data.bin\"\r\n"
    "Content-Disposition: attachment; filename=\"data.bin\"\r\n"
    "Content-Transfer-Encoding: base64\r\n\r\nAAECA/8=\r\n"
    "--b\r\nContent-Type: image/png; name=\"logo.png\"\r\nContent-ID: <logo@example.org>\r\n"
    "Content-Disposition: inline\r\nContent-Transfer-Encoding: base64\r\n\r\niVBORw==\r\n"
    "--b--\r\n";
const std::string kData("\x00\x01\x02\x03\xff", 5);
const std::string kLogo("\x89PNG", 4);

class DraftTest : public StoreTest {
 protected:
  DraftTest() {
    Mail first;
    first.message_id = "r1@example.org";
    first.subject = "Report";
    r1_ = Add(first);
    Mail second = first;
    second.message_id = "r2@example.org";
    second.in_reply_to = "r1@example.org";
    second.references = {"r1@example.org"};
    second.raw = kReceived;
    second.attachments = {Part("data.bin", "application/octet-stream", "", false, 5, "2"),
                          Part("logo.png", "image/png", "logo@example.org", true, 4, "3")};
    r2_ = Add(second);
    Mail other;
    other.subject = "Unrelated";
    other.message_id = "u@example.org";
    other_ = Add(other);
  }

  control::MessageConfig NewDraft(const std::string& subject = "Plans") {
    control::MessageConfig config;
    config.from.Set("Alice <alice@example.org>");
    config.to.Set({"Bob <bob@example.org>", "carol@example.org"});
    config.cc.Set({"Dan <dan@example.org>"});
    config.bcc.Set({"eve@example.org"});
    config.subject.Set(subject);
    config.body.Set("<p>Hello <b>Bob</b></p><p>See you</p>");
    return config;
  }

  control::MessageControl messages_{controller()};
  control::AttachmentControl attachments_{controller()};
  int r1_ = 0, r2_ = 0, other_ = 0;
};

TEST_F(DraftTest, ANewDraftIsStoredInDraftsAndChangedFieldByField) {
  int id = messages_.CreateDraft(NewDraft());
  record::FullMessage draft = messages_.GetFullMessage(id);
  ASSERT_TRUE(draft.IsValid());
  EXPECT_EQ(std::make_tuple(draft.type, draft.mailbox_id, draft.read, draft.arrival_time),
            std::make_tuple(1, kDrafts, true, clock_.now()));
  EXPECT_EQ(std::tie(draft.from, draft.to, draft.cc, draft.bcc, draft.html_body),
            std::make_tuple("Alice <alice@example.org>"s,
                            Texts{"Bob <bob@example.org>", "carol@example.org"},
                            Texts{"Dan <dan@example.org>"}, Texts{"eve@example.org"},
                            "<p>Hello <b>Bob</b></p><p>See you</p>"s));
  EXPECT_EQ(draft.plain_body.find('<'), std::string::npos) << draft.plain_body;
  EXPECT_NE(draft.plain_body.find("Hello Bob"), std::string::npos) << draft.plain_body;
  EXPECT_EQ(draft.body_preview.substr(0, 9), "Hello Bob");
  // A new draft starts its own thread even when a thread has its subject.
  EXPECT_NE(ThreadOf(messages_.CreateDraft(NewDraft("Report"))), ThreadOf(r1_));
  EXPECT_EQ(Query("SELECT draft_count FROM mailbox WHERE id = 2"), 2);

  clock_.Advance(60);
  control::MessageConfig change;
  change.to.Set({});
  change.subject.Set("New plans");
  ASSERT_TRUE(messages_.ModifyDraft(id, change));
  record::FullMessage changed = messages_.GetFullMessage(id);
  EXPECT_EQ(std::tie(changed.to, changed.subject, changed.last_modified),
            std::make_tuple(Texts(), "New plans"s, clock_.now()));
  EXPECT_EQ(std::tie(changed.from, changed.cc, changed.bcc, changed.html_body),
            std::tie(draft.from, draft.cc, draft.bcc, draft.html_body));
  // The new subject is searchable, the old one is not.
  control::SearchControl search(controller());
  search.SetConditions({{constant::kConditionKeyword, "keyword", "New plans", false}}, false);
  std::vector<int> threads;
  EXPECT_EQ(search.Search(threads), 1u);
  EXPECT_EQ(Inconsistencies(), Texts());

  // Nothing set: still a draft, nothing but its time changes.
  EXPECT_TRUE(messages_.ModifyDraft(id, control::MessageConfig()));
  EXPECT_EQ(messages_.GetFullMessage(id).subject, "New plans");
  // Not drafts.
  EXPECT_FALSE(messages_.ModifyDraft(r1_, change));
  EXPECT_FALSE(messages_.ModifyDraft(9999, change));
  EXPECT_EQ(messages_.GetFullMessage(r1_).subject, "Report");
}

TEST_F(DraftTest, AReplyJoinsTheConversationAndCarriesItsChain) {
  for (int type : {1, 2}) {
    control::MessageConfig config = NewDraft("Re: Report");
    config.refer_to.Set(r2_);
    config.draft_type.Set(type);
    config.body.Set("<p>Thanks</p><blockquote><img src=\"cid:logo@example.org\"></blockquote>");
    int id = messages_.CreateDraft(config);
    EXPECT_EQ(ThreadOf(id), ThreadOf(r2_));
    store::Draft draft;
    ASSERT_TRUE(store::LoadDraft(controller(), id, &draft));
    EXPECT_EQ(draft.reply_to, r2_);
    EXPECT_EQ(draft.in_reply_to, "r2@example.org");
    EXPECT_EQ(draft.references, (Texts{"r1@example.org", "r2@example.org"}));
    // The quoted picture came along as the draft's own inline image.
    ASSERT_EQ(draft.attachments.size(), 1u);
    EXPECT_TRUE(draft.attachments[0].is_inline);
    EXPECT_EQ(draft.attachments[0].content_id, "logo@example.org");
    EXPECT_EQ(store::ReadDraftAttachment(controller(), id, draft.attachments[0].id), kLogo);
  }
  EXPECT_EQ(Inconsistencies(), Texts());
}

TEST_F(DraftTest, AForwardCopiesTheAttachmentsItKeeps) {
  record::Message original = messages_.GetMessage(r2_);
  ASSERT_EQ(original.attachments.size(), 2u);
  control::MessageConfig config = NewDraft("Fwd: Report");
  config.refer_to.Set(r2_);
  config.draft_type.Set(3);
  config.attachment.Set({original.attachments[0].id});
  int id = messages_.CreateDraft(config);
  EXPECT_NE(ThreadOf(id), ThreadOf(r2_));
  EXPECT_EQ(Contents(id), Texts{"data.bin:" + kData});
  EXPECT_NE(messages_.GetMessage(id).attachments[0].id, original.attachments[0].id);
  // Naming the original again keeps the copy: saving twice does not double it.
  control::MessageConfig again;
  again.attachment.Set({original.attachments[0].id});
  ASSERT_TRUE(messages_.ModifyDraft(id, again));
  EXPECT_EQ(Contents(id), Texts{"data.bin:" + kData});
  // The copy is the draft's own: deleting the original leaves it.
  ASSERT_TRUE(messages_.SetMailbox({r2_}, kTrash));
  ASSERT_TRUE(messages_.SetMailbox({r2_}, kTrash));
  EXPECT_EQ(Contents(id), Texts{"data.bin:" + kData});
  // An attachment of another message is not the draft's to list.
  control::MessageConfig stranger = NewDraft();
  stranger.attachment.Set({original.attachments[0].id + 100});
  EXPECT_EQ(CodeOf([&] { messages_.CreateDraft(stranger); }), kErrorNotFound);
  EXPECT_EQ(Inconsistencies(), Texts());
}

TEST_F(DraftTest, UploadsBecomeTheDraftsOwnAndAreUsedUp) {
  const std::string binary("PK\x03\x04\x00\x00\xff\xfe rest", 14);
  int first = Upload("../../etc/report.zip", binary);
  std::string cid;
  int image = Upload("photo.png", kLogo, true, &cid);
  std::string first_path = attachments_.GetTemp(first).path;
  ASSERT_EQ(access(first_path.c_str(), F_OK), 0);

  control::MessageConfig config = NewDraft();
  config.temp_attachment.Set({first, image});
  int id = messages_.CreateDraft(config);
  EXPECT_EQ(Contents(id), (Texts{"report.zip:" + binary, "photo.png:" + kLogo}));
  EXPECT_FALSE(attachments_.GetTemp(first).IsValid());
  EXPECT_FALSE(attachments_.GetTemp(image).IsValid());
  EXPECT_NE(access(first_path.c_str(), F_OK), 0);
  record::Message draft = messages_.GetMessage(id);
  EXPECT_EQ(draft.attachments[1].content_id, cid);
  EXPECT_EQ(draft.inline_images.at(cid).second, draft.attachments[1].id);
  EXPECT_EQ(Query("SELECT has_attachment FROM message WHERE id = " + std::to_string(id)), 1);

  // Listing keeps what is named; the inline image stays while the body
  // shows it and goes with the body that no longer does.
  int extra = Upload("notes.txt", "notes");
  control::MessageConfig change;
  change.temp_attachment.Set({extra});
  ASSERT_TRUE(messages_.ModifyDraft(id, change));
  Ids ids;
  for (const record::Attachment& a : messages_.GetMessage(id).attachments) ids.push_back(a.id);
  ASSERT_EQ(ids.size(), 3u);
  change = control::MessageConfig();
  change.attachment.Set({ids[2]});
  ASSERT_TRUE(messages_.ModifyDraft(id, change));
  EXPECT_EQ(Contents(id), (Texts{"photo.png:" + kLogo, "notes.txt:notes"}));
  change = control::MessageConfig();
  change.body.Set("<p>No picture</p>");
  ASSERT_TRUE(messages_.ModifyDraft(id, change));
  EXPECT_EQ(Contents(id), Texts{"notes.txt:notes"});
  EXPECT_EQ(Inconsistencies(), Texts());
}

TEST_F(DraftTest, AFailingChangeChangesNothing) {
  int id = messages_.CreateDraft(NewDraft());
  int kept = Upload("kept.txt", "kept");
  int lost = Upload("lost.txt", "lost");
  std::string kept_path = attachments_.GetTemp(kept).path;
  ASSERT_EQ(unlink(attachments_.GetTemp(lost).path.c_str()), 0);
  std::string before = Snapshot();
  clock_.Advance(60);

  struct Case {
    const char* name;
    control::MessageConfig config;
  };
  std::vector<Case> cases(4);
  cases[0] = {"temp attachment without its file", NewDraft()};
  cases[0].config.temp_attachment.Set({kept, lost});
  cases[1] = {"unknown temp attachment", NewDraft()};
  cases[1].config.temp_attachment.Set({kept, 9999});
  cases[2] = {"unknown attachment", NewDraft()};
  cases[2].config.attachment.Set({9999});
  cases[3] = {"unknown message referred to", NewDraft()};
  cases[3].config.refer_to.Set(9999);
  cases[3].config.draft_type.Set(1);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(CodeOf([&] { messages_.CreateDraft(c.config); }), kErrorNotFound);
    if (!c.config.refer_to.IsSet()) {
      EXPECT_FALSE(messages_.ModifyDraft(id, c.config));
    }
    EXPECT_EQ(Snapshot(), before);
    EXPECT_EQ(access(kept_path.c_str(), F_OK), 0);
  }
  EXPECT_EQ(Inconsistencies(), Texts());
}

TEST_F(DraftTest, DeletingDraftsRefusesOtherMessages) {
  int a = messages_.CreateDraft(NewDraft());
  control::MessageConfig reply = NewDraft();
  reply.refer_to.Set(r2_);
  reply.draft_type.Set(1);
  int b = messages_.CreateDraft(reply);
  EXPECT_EQ(Query("SELECT message_count FROM mailbox WHERE id = 2"), 2);
  EXPECT_TRUE(messages_.DeleteDraft({}));
  EXPECT_FALSE(messages_.DeleteDraft({a, r1_}));
  EXPECT_FALSE(messages_.DeleteDraft({a, 9999}));
  EXPECT_TRUE(messages_.GetMessage(a).IsValid());
  EXPECT_TRUE(messages_.DeleteDraft({a, b, a}));
  EXPECT_FALSE(messages_.GetMessage(a).IsValid());
  EXPECT_FALSE(messages_.GetMessage(b).IsValid());
  EXPECT_TRUE(messages_.GetMessage(r2_).IsValid());
  EXPECT_EQ(Query("SELECT message_count + draft_count FROM mailbox WHERE id = 2"), 0);
  EXPECT_EQ(Query("SELECT count(*) FROM thread"), 2);
  EXPECT_EQ(Inconsistencies(), Texts());
}

// The HTML that draft "get" shows: inline images as download URLs carrying
// the session's token.
std::string Shown(const record::FullMessage& message) {
  html::HTMLParser parser;
  parser.open_links_in_new_window = false;
  parser.Normalize(message.html_body, "T0ken", message.InlineImageMapping());
  return parser.GetBody();
}

TEST_F(DraftTest, TheShownHtmlSavedBackKeepsTheInlineImagesAsCid) {
  std::string cid;
  control::MessageConfig config = NewDraft();
  config.temp_attachment.Set({Upload("photo.png", kLogo, true, &cid)});
  config.body.Set("<p>Look: <img src=\"cid:" + cid + "\"></p>");
  const int id = messages_.CreateDraft(config);
  const std::string shown = Shown(messages_.GetFullMessage(id));
  ASSERT_NE(shown.find("_token=T0ken"), std::string::npos) << shown;

  control::MessageConfig save;
  save.body.Set(shown + "<p>and more</p>");
  ASSERT_TRUE(messages_.ModifyDraft(id, save));
  const record::FullMessage saved = messages_.GetFullMessage(id);
  EXPECT_EQ(Contents(id), Texts{"photo.png:" + kLogo});
  EXPECT_NE(saved.html_body.find("src=\"cid:" + cid + "\""), std::string::npos) << saved.html_body;
  EXPECT_EQ(saved.html_body.find("T0ken"), std::string::npos) << saved.html_body;

  // A reply that quotes the shown message keeps its picture; a draft that
  // shows a message it does not refer to gets no copy, nor the token.
  control::MessageConfig reply = NewDraft("Re: Report");
  reply.refer_to.Set(r2_);
  reply.draft_type.Set(1);
  record::FullMessage original = messages_.GetFullMessage(r2_);
  original.html_body = "<blockquote><img src=\"cid:logo@example.org\"></blockquote>";
  reply.body.Set(Shown(original));
  const int answer = messages_.CreateDraft(reply);
  EXPECT_EQ(Contents(answer), Texts{"logo.png:" + kLogo});
  EXPECT_NE(messages_.GetFullMessage(answer).html_body.find("\"cid:logo@example.org\""),
            std::string::npos);
  reply.refer_to.Set(other_);
  const int stranger = messages_.CreateDraft(reply);
  EXPECT_EQ(Contents(stranger), Texts());
  const std::string kept = messages_.GetFullMessage(stranger).html_body;
  EXPECT_EQ(kept.find("T0ken"), std::string::npos) << kept;
  EXPECT_EQ(kept.find("cid:"), std::string::npos) << kept;
  EXPECT_EQ(Inconsistencies(), Texts());
}

TEST(RestoreInlineImagesTest, OwnDownloadUrlsBecomeCidAndNoUrlKeepsTheSession) {
  const std::map<int, std::string> images = {{12, "photo@x"}, {13, "odd\"id"}};
  const std::string kDownload =
      "/webapi/entry.cgi?api=ZEVO.Larkpost.Attachment&amp;version=1&amp;"
      "method=download&amp;id=";
  const struct {
    std::string html, want;
  } cases[] = {
      {"<img src=\"" + kDownload + "12&amp;_token=T0k\">", "<img src=\"cid:photo@x\">"},
      {"<img src='https://nas.example:5001/webapi/entry.cgi?api=ZEVO.Larkpost.Attachment&"
       "version=1&method=download&id=12&_token=T0k&_sid=S1d'>",
       "<img src='cid:photo@x'>"},
      {"<img src=\"//nas/webapi/entry.cgi?_sid=S1d&#38;id=12&#38;method=download&#38;"
       "api=ZEVO%2ELarkpost%2EAttachment\" alt=x>",
       "<img src=\"cid:photo@x\" alt=x>"},
      {"<div style=\"background: url(&quot;" + kDownload + "12&amp;_token=T0k&quot;)\">",
       "<div style=\"background: url(&quot;cid:photo@x&quot;)\">"},
      {"<img srcset=\"" + kDownload + "12&amp;_sid=S1d 1x," + kDownload + "99&amp;_sid=S1d 2x\">",
       "<img srcset=\"cid:photo@x 1x," + kDownload + "99 2x\">"},
      // Not this draft's, not an id, not a download, a content id that
      // cannot stand in an attribute: kept, without the session.
      {"<img src=\"" + kDownload + "99&amp;_token=T0k\">", "<img src=\"" + kDownload + "99\">"},
      {"<img src=\"" + kDownload + "4294967308&amp;_token=T0k\">",
       "<img src=\"" + kDownload + "4294967308\">"},
      {"<img src=\"" + kDownload + "12x&amp;_token=T0k\">", "<img src=\"" + kDownload + "12x\">"},
      {"<img src=\"" + kDownload + "13&amp;_token=T0k\">", "<img src=\"" + kDownload + "13\">"},
      {"<a href=\"/webapi/entry.cgi?_token=T0k&amp;api=ZEVO.Larkpost.Attachment&amp;"
       "method=download_all&amp;id=12&amp;_sid=S1d#top\">all</a>",
       "<a href=\"/webapi/entry.cgi?api=ZEVO.Larkpost.Attachment&amp;method=download_all&amp;"
       "id=12#top\">all</a>"},
      {"<a href=/webapi/entry.cgi?_sid=S1d>x</a>", "<a href=/webapi/entry.cgi?>x</a>"},
      {"<p>/cgi/myentry.cgi?_token=T0k</p>", "<p>/cgi/myentry.cgi?_token=T0k</p>"},
      {"<p>cid:photo@x</p>", "<p>cid:photo@x</p>"},
  };
  for (const auto& c : cases) {
    const std::string restored = store::RestoreInlineImages(c.html, images);
    EXPECT_EQ(restored, c.want) << c.html;
  }
}

// Sending itself (the copy's mailbox, thread, flags and source) is the send
// tests' business; here, what only the store decides.
TEST_F(DraftTest, TheSentCopyTakesTheDraftsPlace) {
  control::MessageConfig config = NewDraft("Re: Report");
  config.refer_to.Set(r2_);
  config.draft_type.Set(1);
  config.temp_attachment.Set({Upload("a.txt", "alpha")});
  int draft_id = messages_.CreateDraft(config);
  store::Draft draft;
  ASSERT_TRUE(store::LoadDraft(controller(), draft_id, &draft));
  EXPECT_EQ(std::tie(draft.subject, draft.bcc),
            std::make_tuple("Re: Report"s, Texts{"eve@example.org"}));
  ASSERT_EQ(draft.attachments.size(), 1u);
  EXPECT_EQ(draft.attachments[0].size, 5);
  EXPECT_EQ(CodeOf([&] { store::ReadDraftAttachment(controller(), r2_, draft.attachments[0].id); }),
            kErrorNotFound);
  EXPECT_FALSE(store::LoadDraft(controller(), r2_, &draft));

  store::NewMessage sent;
  sent.subject = "Re: Report";
  sent.rfc_message_id = "s1@example.org";
  sent.in_reply_to = "r2@example.org";
  sent.raw = "Subject: Re: Report\r\n\r\nThanks";
  clock_.Advance(30);
  int sent_id = store::StoreSentCopy(controller(), draft_id, sent);
  record::FullMessage copy = messages_.GetFullMessage(sent_id);
  EXPECT_EQ(std::make_tuple(copy.reply_to, copy.arrival_time), std::make_tuple(r2_, clock_.now()));
  EXPECT_EQ(CodeOf([&] { store::StoreSentCopy(controller(), draft_id, sent); }), kErrorNotFound);
  EXPECT_EQ(Query("SELECT count(*) FROM message WHERE mailbox_id = 3"), 1);
  EXPECT_EQ(Inconsistencies(), Texts());
  // A later answer to the sent message finds the conversation.
  Mail answer;
  answer.in_reply_to = "s1@example.org";
  answer.subject = "Something else";
  EXPECT_EQ(ThreadOf(Add(answer)), ThreadOf(r2_));
}

}  // namespace
}  // namespace ornic::larkpost::testing
