#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "tests/store/store_fixture.h"

namespace ornic::larkpost::testing {
namespace {

using Paths = std::vector<std::string>;

class MailboxTest : public StoreTest {
 protected:
  // The raw paths of the user's mailboxes, in list order, after the seven
  // built-in ones (which must come first, by id).
  Paths UserPaths() {
    std::vector<record::Mailbox> all = mailboxes_.List(false, false);
    Paths paths;
    for (size_t k = 0; k < all.size(); ++k) {
      if (k < 7) {
        EXPECT_EQ(all[k].id, static_cast<int>(k + 1));
      } else {
        paths.push_back(all[k].path);
      }
    }
    return paths;
  }
  control::MailboxConfig Rename(const std::string& name) {
    control::MailboxConfig config;
    config.name.Set(name);
    return config;
  }
  control::MailboxConfig MoveTo(int parent) {
    control::MailboxConfig config;
    config.parent_id.Set(parent);
    return config;
  }

  control::MailboxControl mailboxes_{controller()};
};

TEST_F(MailboxTest, CreateEncodesNamesAndRefusesClashesAndBadParents) {
  int work = mailboxes_.Create(0, "Work", true);
  ASSERT_GT(work, kStarred);
  int ete = mailboxes_.Create(work, "Été", false);
  ASSERT_GT(ete, work);
  EXPECT_GT(mailboxes_.Create(kInbox, "Work", true), 0);  // another parent
  EXPECT_GT(mailboxes_.Create(0, "a&b", true), 0);
  EXPECT_GT(mailboxes_.Create(0, "work-2", true), 0);
  EXPECT_GT(mailboxes_.Create(0, "Inboxes", true), 0);

  struct Refused {
    int parent;
    const char* name;
  } refused[] = {{0, "Work"},  {work, "Été"}, {0, ""},        {0, "a/b"},
                 {0, "tab\t"}, {0, "\xC3"},   {99, "Orphan"}, {kStarred, "Virtual"},
                 {0, "inbox"}, {0, "TRASH"},  {0, "Starred"}};
  for (const Refused& r : refused)
    EXPECT_EQ(mailboxes_.Create(r.parent, r.name, true), 0) << r.name;

  // A mailbox comes right before the mailboxes below it, case aside.
  EXPECT_EQ(UserPaths(),
            (Paths{"a&-b", "INBOX/Work", "Inboxes", "Work", "Work/&AMk-t&AOk-", "work-2"}));
  record::Mailbox got = mailboxes_.Get(ete);
  EXPECT_EQ(got.path, "Work/&AMk-t&AOk-");
  EXPECT_EQ(got.parent_id, work);
  EXPECT_FALSE(got.subscribed);
  EXPECT_EQ(got.unread_count, -1);
  EXPECT_EQ(mailboxes_.Get(999).id, 0);
}

TEST_F(MailboxTest, ModifyRenamesAndMovesWholeSubtrees) {
  int work = mailboxes_.Create(0, "Work", true);
  int projects = mailboxes_.Create(work, "Projects", true);
  int old = mailboxes_.Create(projects, "Old", true);
  int home = mailboxes_.Create(0, "Home", true);

  ASSERT_TRUE(mailboxes_.Modify(work, Rename("Büro")));
  EXPECT_EQ(mailboxes_.Get(old).path, "B&APw-ro/Projects/Old");
  ASSERT_TRUE(mailboxes_.Modify(projects, MoveTo(home)));
  EXPECT_EQ(mailboxes_.Get(old).path, "Home/Projects/Old");
  EXPECT_EQ(mailboxes_.Get(projects).parent_id, home);
  control::MailboxConfig both = MoveTo(0);
  both.name.Set("Archive 2020");
  both.subscribed.Set(false);
  ASSERT_TRUE(mailboxes_.Modify(projects, both));
  EXPECT_EQ(UserPaths(), (Paths{"Archive 2020", "Archive 2020/Old", "B&APw-ro", "Home"}));
  EXPECT_FALSE(mailboxes_.Get(projects).subscribed);
  ASSERT_TRUE(mailboxes_.Modify(old, MoveTo(kInbox)));
  EXPECT_EQ(mailboxes_.Get(old).path, "INBOX/Old");
  EXPECT_TRUE(mailboxes_.Modify(home, control::MailboxConfig()));

  int sibling = mailboxes_.Create(0, "Sibling", true);
  control::MailboxConfig subscribe;
  subscribe.subscribed.Set(false);
  ASSERT_TRUE(mailboxes_.Modify(kInbox, subscribe));  // built-ins may do that
  EXPECT_FALSE(mailboxes_.Get(kInbox).subscribed);
  EXPECT_TRUE(mailboxes_.Modify(kInbox, Rename("INBOX")));  // no change at all

  struct Refused {
    int id;
    control::MailboxConfig config;
    const char* why;
  } refused[] = {{sibling, Rename("Home"), "sibling has the name"},
                 {sibling, Rename("inbox"), "a built-in's name"},
                 {sibling, Rename("a/b"), "a slash"},
                 {sibling, Rename(""), "empty"},
                 {home, MoveTo(home), "into itself"},
                 {work, MoveTo(mailboxes_.Create(work, "Inner", true)), "below itself"},
                 {sibling, MoveTo(kStarred), "into the virtual mailbox"},
                 {sibling, MoveTo(999), "into nothing"},
                 {kTrash, Rename("Bin"), "a built-in renamed"},
                 {kJunk, MoveTo(home), "a built-in moved"},
                 {999, subscribe, "unknown"}};
  Paths before = UserPaths();
  for (const Refused& r : refused) EXPECT_FALSE(mailboxes_.Modify(r.id, r.config)) << r.why;
  EXPECT_EQ(UserPaths(), before);
}

TEST_F(MailboxTest, DeleteTakesTheSubtreeAndItsMessagesForGood) {
  int work = mailboxes_.Create(0, "Work", true);
  int inner = mailboxes_.Create(work, "Inner", true);
  int keep = mailboxes_.Create(0, "Keep", true);
  Mail mail;
  mail.message_id = "a";
  mail.mailbox = inner;
  int a = Add(mail);
  mail.message_id = "b";
  mail.in_reply_to = "a";
  mail.mailbox = keep;
  int b = Add(mail);
  mail.message_id = "c";
  mail.mailbox = work;
  mail.star = 1;
  Add(mail);

  EXPECT_FALSE(mailboxes_.Delete(kInbox));
  EXPECT_FALSE(mailboxes_.Delete(kStarred));
  EXPECT_FALSE(mailboxes_.Delete(999));
  ASSERT_TRUE(mailboxes_.Delete(work));
  EXPECT_EQ(UserPaths(), Paths{"Keep"});
  EXPECT_EQ(Query("SELECT count(*) FROM message"), 1);  // b, in Keep
  EXPECT_EQ(control::ThreadControl(controller()).List({ThreadOf(b)}).at(0).messages.size(), 1u);
  EXPECT_EQ(Query("SELECT count(*) FROM message_body WHERE message_id = " + std::to_string(a)), 0);
  EXPECT_EQ(Inconsistencies(), Texts());
}

class LabelTest : public StoreTest {
 protected:
  static control::LabelConfig Config(const char* name, const char* text, const char* background) {
    control::LabelConfig config;
    if (name) config.name.Set(name);
    if (text) config.text_color.Set(text);
    if (background) config.background_color.Set(background);
    return config;
  }
  std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const record::Label& label : labels_.List(false)) names.push_back(label.name);
    return names;
  }

  control::LabelControl labels_{controller()};
};

TEST_F(LabelTest, ALabelLivesWithAStableKey) {
  int work = labels_.Create(Config("Work", "#fff", "#A0B1C2"));
  int home = labels_.Create(Config("Home", "#000", "#123"));
  ASSERT_GT(work, 0);
  ASSERT_GT(home, work);
  for (const control::LabelConfig& bad :
       {Config(nullptr, "#fff", "#fff"), Config("X", nullptr, "#fff"), Config("X", "#fff", nullptr),
        Config("", "#fff", "#fff"), Config("X", "white", "#fff"), Config("X", "#fff", "#ffff")}) {
    EXPECT_EQ(labels_.Create(bad), 0);
  }
  EXPECT_EQ(Names(), (std::vector<std::string>{"Home", "Work"}));

  ASSERT_TRUE(labels_.Modify(work, Config("Office", "#111", nullptr)));
  EXPECT_FALSE(labels_.Modify(work, Config("Bad", nullptr, "red")));
  EXPECT_FALSE(labels_.Modify(work, Config("", nullptr, nullptr)));
  EXPECT_FALSE(labels_.Modify(999, Config("X", nullptr, nullptr)));
  std::vector<record::Label> got = labels_.Get({999, work, home, work}, false);
  ASSERT_EQ(got.size(), 2u);
  // Renaming keeps the key; what was not given keeps its value.
  EXPECT_EQ(std::tie(got[0].name, got[0].key, got[0].text_color, got[0].background_color),
            std::make_tuple("Office", "$label" + std::to_string(work), "#111", "#A0B1C2"));
  EXPECT_EQ(got[0].unread_count, -1);
  EXPECT_EQ(got[1].id, home);

  EXPECT_FALSE(labels_.Delete({home, 999}));
  EXPECT_EQ(Names().size(), 2u);
  ASSERT_TRUE(labels_.Delete({home}));
  EXPECT_EQ(Names(), std::vector<std::string>{"Office"});
  // A deleted label's id, and so its key, is never used again.
  EXPECT_GT(labels_.Create(Config("Home", "#000", "#123")), home);
}

TEST_F(LabelTest, UnreadCountsFollowThreadsAndReading) {
  int label = labels_.Create(Config("Work", "#fff", "#000"));
  Mail mail;
  mail.message_id = "a";
  int a = Add(mail);
  mail.message_id = "b";
  mail.in_reply_to = "a";
  int b = Add(mail);
  mail.message_id = "draft";
  mail.type = 1;
  mail.mailbox = kDrafts;
  Add(mail);  // an unread draft is not unread mail
  control::ThreadControl threads(controller());
  control::MessageControl messages(controller());
  auto unread = [&] { return labels_.List(true).at(0).unread_count; };
  EXPECT_EQ(unread(), 0);
  ASSERT_TRUE(threads.AddLabel({ThreadOf(a)}, {label}));
  EXPECT_EQ(unread(), 2);
  ASSERT_TRUE(messages.SetReadByID({a}, true));
  EXPECT_EQ(unread(), 1);
  ASSERT_TRUE(messages.SetMailbox({b}, kTrash));
  EXPECT_EQ(unread(), 1);
  ASSERT_TRUE(messages.SetMailbox({b}, kTrash));  // for good
  EXPECT_EQ(unread(), 0);
  ASSERT_TRUE(threads.RemoveLabel({ThreadOf(a)}, {label}));
  ASSERT_TRUE(messages.SetReadByID({a}, false));
  EXPECT_EQ(unread(), 0);
  EXPECT_EQ(Inconsistencies(), Texts());
}

}  // namespace
}  // namespace ornic::larkpost::testing
