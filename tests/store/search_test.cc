#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/store/store_fixture.h"

namespace ornic::larkpost::testing {
namespace {

using constant::ConditionKey;

record::Condition C(ConditionKey key, const std::string& value, bool negate = false) {
  record::Condition condition;
  condition.key = key;
  condition.value = value;
  condition.negate = negate;
  return condition;
}

constexpr int64_t kBase = 1700000000;

// Five threads:
//   T1 inbox: m1 Ann, unread, "invoice-march.pdf", day 1; m2 Bob (cc Carol),
//      read, starred, day 3
//   T2 archived: m3 Zoé, "Été à la plage", 5000 bytes, read, labelled, day 2,
//      starred again later (so modified later)
//   T3 junk: m4 spam, starred, unread, day 4
//   T4 trash: m5 Ann, starred, read, day 0
//   T5 drafts: m6 a draft, read, day 5
class SearchTest : public StoreTest {
 protected:
  SearchTest() {
    auto mail = [](const char* subject, const char* from, int mailbox, int day, bool read,
                   int star) {
      Mail m;
      m.subject = subject;
      m.from = from;
      m.mailbox = mailbox;
      m.arrival = kBase + day * kDay;
      m.read = read;
      m.star = star;
      return m;
    };
    const char* ann = "Ann Example <ann@example.org>";
    Mail m1 = mail("Quarterly invoice", ann, kInbox, 1, false, 0);
    m1.message_id = "m1";
    m1.attachments = {Part("invoice-march.pdf", "application/pdf", "", false, 10, "2")};
    Mail m2 = mail("Re: Quarterly invoice", "Bob <bob@example.org>", kInbox, 3, true, 1);
    m2.in_reply_to = "m1";
    m2.to = {ann};
    m2.cc = {"Carol <carol@example.org>"};
    Mail m3 = mail("Été à la plage", "Zoé <zoe@example.fr>", kArchived, 2, true, 0);
    m3.to = {ann};
    m3.plain = "Les vacances d'ÉTÉ";
    m3.raw = std::string(5000, 'x');
    Mail m4 = mail("Cheap pills", "spam@junk.test", kJunk, 4, false, 1);
    Mail m5 = mail("Old news", ann, kTrash, 0, true, 2);
    Mail m6 = mail("Draft reply", "Me <me@example.org>", kDrafts, 5, true, 0);
    m6.type = 1;
    for (const Mail* mail : {&m1, &m2, &m3, &m4, &m5, &m6}) ids_.push_back(Add(*mail));
    for (int k : {0, 2, 3, 4, 5}) {
      thread_names_[ThreadOf(ids_[k])] = "T" + std::to_string(thread_names_.size() + 1);
    }
    label_ = CreateLabel("Holidays");
    EXPECT_TRUE(control::ThreadControl(controller()).AddLabel({ThreadOf(ids_[2])}, {label_}));
    clock_.Advance(100);
    EXPECT_TRUE(control::MessageControl(controller()).SetStarByID({ids_[2]}, 1));
  }

  // The names of the threads found, in order; the total must agree.
  std::vector<std::string> Find(const std::vector<record::Condition>& conditions,
                                bool match_any = false) {
    control::SearchControl search(controller());
    search.SetConditions(conditions, match_any);
    std::vector<int> ids;
    uint32_t count = search.Search(ids);
    std::vector<std::string> names;
    for (int id : ids) names.push_back(thread_names_.count(id) ? thread_names_[id] : "?");
    EXPECT_EQ(count, ids.size());
    return names;
  }

  std::vector<int> ids_;
  std::map<int, std::string> thread_names_;
  int label_ = 0;
};

using Names = std::vector<std::string>;

TEST_F(SearchTest, EachConditionNegationAndCombination) {
  using namespace constant;
  const std::string later = std::to_string(clock_.now() - 50);
  struct Case {
    std::vector<record::Condition> conditions;
    bool match_any;
    Names want;
  } cases[] = {
      {{}, false, {"T5", "T3", "T1", "T2", "T4"}},
      {{C(kConditionMailbox, "1")}, false, {"T1"}},
      {{C(kConditionMailbox, "7")}, false, {"T1", "T2"}},  // not junk, not trash
      {{C(kConditionMailbox, "inbox")}, false, {}},
      {{C(kConditionFrom, "ANN")}, false, {"T1", "T4"}},
      {{C(kConditionFrom, "ann", true)}, false, {"T5", "T3", "T1", "T2"}},
      {{C(kConditionTo, "carol")}, false, {"T1"}},
      {{C(kConditionTo, "ANN EXAMPLE")}, false, {"T1", "T2"}},
      {{C(kConditionSubject, "ÉTÉ")}, false, {"T2"}},
      {{C(kConditionSubject, "")}, false, {"T5", "T3", "T1", "T2", "T4"}},
      {{C(kConditionKeyword, "invoice")}, false, {"T1"}},
      {{C(kConditionKeyword, "march")}, false, {"T1"}},  // attachment name
      {{C(kConditionKeyword, "vacances ete")}, false, {"T2"}},
      {{C(kConditionKeyword, "zoe@example.fr")}, false, {"T2"}},
      {{C(kConditionKeyword, "quart")}, false, {"T1"}},  // a word's beginning
      {{C(kConditionKeyword, "invoice", true)}, false, {"T5", "T3", "T2", "T4"}},
      {{C(kConditionKeyword, "\"invoice OR NEAR( * -")}, false, {}},
      {{C(kConditionKeyword, " - ")}, false, {"T5", "T3", "T1", "T2", "T4"}},
      {{C(kConditionBefore, std::to_string(kBase + 2 * kDay))}, false, {"T1", "T4"}},
      {{C(kConditionAfter, std::to_string(kBase + 3 * kDay))}, false, {"T5", "T3"}},
      {{C(kConditionAfter, "yesterday")}, false, {}},
      {{C(kConditionModifiedAfter, later)}, false, {"T2"}},
      {{C(kConditionLarger, "1000")}, false, {"T2"}},
      {{C(kConditionSmaller, "1000")}, false, {"T5", "T3", "T1", "T4"}},
      {{C(kConditionSmaller, "1kB")}, false, {}},
      {{C(kConditionUnread, "true")}, false, {"T3", "T1"}},
      {{C(kConditionUnread, "false")}, false, {"T5", "T1", "T2", "T4"}},
      {{C(kConditionUnread, "yes")}, false, {}},
      {{C(kConditionStarred, "true")}, false, {"T3", "T1", "T2", "T4"}},
      {{C(kConditionStarred, "false")}, false, {"T5", "T1"}},  // T1 by m1, day 1
      {{C(kConditionHasAttachment, "true")}, false, {"T1"}},
      {{C(kConditionHasAttachment, "false")}, false, {"T5", "T3", "T1", "T2", "T4"}},
      {{C(kConditionLabel, std::to_string(label_))}, false, {"T2"}},
      {{C(kConditionLabel, "999")}, false, {}},
      {{C(kConditionFrom, "ann"), C(kConditionStarred, "true")}, false, {"T4"}},
      // One message must meet every condition: m2 is Bob's, m1 has the file.
      {{C(kConditionFrom, "bob"), C(kConditionHasAttachment, "true")}, false, {}},
      {{C(kConditionFrom, "zoe"), C(kConditionStarred, "true")}, true, {"T3", "T1", "T2", "T4"}},
      {{C(kConditionUnread, "maybe"), C(kConditionSubject, "cheap")}, true, {"T3"}},
      {{C(static_cast<ConditionKey>(99), "1")}, false, {}},
  };
  for (size_t k = 0; k < sizeof cases / sizeof cases[0]; ++k) {
    EXPECT_EQ(Find(cases[k].conditions, cases[k].match_any), cases[k].want) << "case " << k;
  }
}

// Messages as the oracle sees them.
struct Row {
  int thread, mailbox, star;
  int64_t arrival;
};

TEST_F(StoreTest, KeptListsAndTheGeneralQueryAgreeWithABruteForceOracle) {
  std::mt19937 random(7);
  auto pick = [&](int n) { return static_cast<int>(random() % n); };
  int work = control::MailboxControl(controller()).Create(0, "Work", true);
  const int mailboxes[] = {kInbox, kSent, kArchived, kJunk, kTrash, work};
  std::vector<int> ids;
  for (int k = 0; k < 90; ++k) {
    Mail mail;
    mail.subject = "subject " + std::to_string(k);
    mail.message_id = "id" + std::to_string(k);
    if (!ids.empty() && pick(10) < 4) mail.in_reply_to = "id" + std::to_string(pick(k));
    mail.mailbox = mailboxes[pick(6)];
    mail.arrival = kBase + pick(400) * 3600;  // ties happen
    mail.star = pick(3) == 0;
    mail.read = pick(2);
    ids.push_back(Add(mail));
  }
  control::ThreadControl threads(controller());
  control::MessageControl messages(controller());
  for (int k = 0; k < 15; ++k) {
    int id = ids[pick(static_cast<int>(ids.size()))];
    if (Query("SELECT count(*) FROM message WHERE id = " + std::to_string(id)) == 0) continue;
    switch (pick(4)) {
      case 0:
        threads.SetMailbox({ThreadOf(id)}, mailboxes[pick(6)]);
        break;
      case 1:
        threads.DeleteTrash({ThreadOf(id)});
        break;
      case 2:
        messages.SetStarByID({id}, pick(2));
        break;
      default:
        messages.SetMailbox({id}, mailboxes[pick(6)]);
    }
  }
  ASSERT_EQ(Inconsistencies(), Texts());

  std::vector<Row> rows;
  store::Statement all(db(), "SELECT thread_id, mailbox_id, star, arrival_time FROM message");
  while (all.Step()) rows.push_back({all.Int(0), all.Int(1), all.Int(2), all.Int64(3)});

  const int64_t times[] = {0, kBase, kBase + 100 * 3600, kBase + 250 * 3600, kBase + 500 * 3600};
  for (int scope : {0, kInbox, kArchived, kTrash, kStarred, work}) {
    for (int64_t before : times) {
      // The oracle: each thread's latest arrival among qualifying messages.
      std::map<int, int64_t> latest;
      for (const Row& row : rows) {
        bool in =
            scope == 0 || row.mailbox == scope ||
            (scope == kStarred && row.star != 0 && row.mailbox != kJunk && row.mailbox != kTrash);
        if (!in || (before && row.arrival >= before)) continue;
        auto found = latest.find(row.thread);
        if (found == latest.end() || found->second < row.arrival) latest[row.thread] = row.arrival;
      }
      std::vector<std::pair<int64_t, int>> order;
      for (const auto& [thread, arrival] : latest) order.emplace_back(arrival, thread);
      std::sort(order.rbegin(), order.rend());
      std::vector<int> want;
      for (const auto& entry : order) want.push_back(entry.second);

      // Kept list (no condition / one mailbox) and the general query (the
      // same scope said twice).
      for (bool general : {false, true}) {
        std::vector<record::Condition> conditions;
        if (scope != 0) conditions.push_back(C(constant::kConditionMailbox, std::to_string(scope)));
        if (general) {
          conditions.push_back(scope ? conditions[0]
                                     : C(constant::kConditionBefore, std::to_string(LLONG_MAX)));
        }
        std::string what = "scope " + std::to_string(scope) + " before " + std::to_string(before) +
                           (general ? " general" : " kept");
        for (auto [offset, limit] :
             {std::pair{0, -1}, {0, 7}, {5, 7}, {12, 0}, {-3, 4}, {60, 10}}) {
          control::SearchControl search(controller());
          search.SetConditions(conditions, false);
          search.SetOffset(offset);
          search.SetLimit(limit);
          if (before) search.SetMaxArrivalBefore(before);
          std::vector<int> page;
          EXPECT_EQ(search.Search(page), want.size()) << what;
          size_t from = std::min<size_t>(std::max(offset, 0), want.size());
          size_t to = limit < 0 ? want.size() : std::min(want.size(), from + limit);
          EXPECT_EQ(page, std::vector<int>(want.begin() + from, want.begin() + to))
              << what << " offset " << offset << " limit " << limit;
        }
      }
    }
  }
}

}  // namespace
}  // namespace ornic::larkpost::testing
