// "ZEVO.Larkpost.Sticker": lists by category (1 unless asked), one image
// streamed with its type, the 404 page for what does not exist.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/fake/fake_platform.h"
#include "tests/unit/handler_test_util.h"
#include "webapi/api_table.h"

namespace larkpost::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class StickerTest : public HandlerTest {
 protected:
  void SetUp() override {
    using namespace std::string_literals;
    HandlerTest::SetUp();
    std::ofstream(temp_root_ + "/smile.png", std::ios::binary) << "\x89PNG\0x"s;
    fake::platform().stickers = {
        {1, "smile", 1, 1700000000123, temp_root_ + "/smile.png"},
        {2, "wave", 0, 5, temp_root_ + "/wave.gif"},
        {3, "cat", 1, 6, temp_root_ + "/cat.png"},
    };
  }
};

TEST_F(StickerTest, ListAnswersOneCategoryInTheCoresOrder) {
  struct Case {
    const char* params;
    const char* category;
    const char* data;
  } cases[] = {
      {R"({})", "1",
       R"({"total": 2, "sticker": [
             {"id": 1, "name": "smile", "category": 1, "last_modified": 1700000000123},
             {"id": 3, "name": "cat", "category": 1, "last_modified": 6}]})"},
      {R"({"category": 0})", "0",
       R"({"total": 1, "sticker": [{"id": 2, "name": "wave", "category": 0,
                                    "last_modified": 5}]})"},
      {R"({"category": 7})", "7", R"({"total": 0, "sticker": []})"},
  };
  for (const Case& c : cases) {
    fake::core().calls.clear();
    const Json::Value answer = Run(StickerList_v1, J(c.params));
    EXPECT_EQ(AsSent(Data(answer)), J(c.data)) << c.params;
    EXPECT_TRUE(Data(answer)["total"].isUInt()) << c.params;
    EXPECT_THAT(fake::core().calls, ElementsAre("Controller 1026 sid-alice",
                                                std::string("StickerControl::List ") + c.category));
  }
  ExpectRefused(StickerList_v1, 120,
                {R"({"category": -1})", R"({"category": null})", R"({"category": "1"})"});
}

TEST_F(StickerTest, GetStreamsTheImageOr404) {
  using namespace std::string_literals;
  Streamed streamed = RunStreaming(StickerGet_v1, J(R"({"id": 1})"));
  EXPECT_EQ(streamed.output, "Content-Length: 6\r\nContent-Type: image/png\r\n\r\n\x89PNG\0x"s);
  EXPECT_FALSE(streamed.json_enabled);
  EXPECT_THAT(Logged("sticker"), IsEmpty());

  struct Case {
    const char* params;
    const char* logged;
  } cases[] = {
      {R"({"id": 9})", "id [9] of stickers is not exist"},
      {R"({"id": null})", "input parameter is not valid"},
      {R"({})", "input parameter is not valid"},
  };
  for (const Case& c : cases) {
    fake::ResetSystemLog();
    streamed = RunStreaming(StickerGet_v1, J(c.params));
    EXPECT_EQ(streamed.output, "Status: 404 Not Found\r\n\r\n") << c.params;
    EXPECT_FALSE(streamed.json_enabled);
    EXPECT_THAT(Logged("sticker"), ElementsAre(c.logged)) << c.params;
  }
}

TEST_F(StickerTest, AddAndDeleteChangeNothing) {
  for (ZEVO::APIHandler handler : {StickerAdd_v1, StickerDelete_v1}) {
    fake::core().calls.clear();
    EXPECT_EQ(Run(handler, J(R"({"id": [1]})")), J(R"({"success": true})"));
    EXPECT_THAT(fake::core().calls, ElementsAre("Controller 1026 sid-alice"));
  }
}

}  // namespace
}  // namespace larkpost::test
