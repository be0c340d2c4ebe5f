// Address lists as senders write them, read as careful readers read them;
// the same mail imported whole is in larkpostctl_mail_test.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "appliance/mailcore/mime/header.h"

namespace ornic::larkpost {
namespace {

TEST(AddressListTest, ReadsWhatCarefulReadersRead) {
  using Strings = std::vector<std::string>;
  const std::pair<std::string, Strings> rows[] = {
      // RFC 5322 and its obsolete forms.
      {"\"Joe Q. Public\" <john.q.public@example.com>",
       {"Joe Q. Public <john.q.public@example.com>"}},
      {"Mary Smith <mary@x.test>, jdoe@example.org, Who? <one@y.test>",
       {"Mary Smith <mary@x.test>", "jdoe@example.org", "Who? <one@y.test>"}},
      {"A Group:Ed Jones <c@a.test>,joe@where.test,John <jdoe@one.test>;",
       {"Ed Jones <c@a.test>", "joe@where.test", "John <jdoe@one.test>"}},
      {"Joe Q. Public <john.q.public@example.com>", {"Joe Q. Public <john.q.public@example.com>"}},
      {"<@machine.tld:mary@example.net>, , jdoe@test   . example",
       {"mary@example.net", "jdoe@test.example"}},
      {"\"john doe\"@example.com", {"\"john doe\"@example.com"}},
      {"user@[192.0.2.1]", {"user@[192.0.2.1]"}},
      {"pete @ silly.test", {"pete@silly.test"}},
      {"=?utf-8?q?J=C3=B6rg?= <j@x.test>", {"Jörg <j@x.test>"}},
      // What senders write that is none of it.
      {"bb@bug.com Big Bug", {"Big Bug <bb@bug.com>"}},
      {"ann@example.org (Ann Example)", {"Ann Example <ann@example.org>"}},
      {"Ann <ann@example.org", {"Ann <ann@example.org>"}},
      {"root", {"root"}},
  };
  for (const auto& [raw, list] : rows) EXPECT_EQ(mime::ParseAddressList(raw), list) << raw;
}

}  // namespace
}  // namespace ornic::larkpost
