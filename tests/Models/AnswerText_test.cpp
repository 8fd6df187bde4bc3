// The client maps the service's answer text with a fast parser and falls back to the document
// parser for what the fast one refuses; either way the records are those of the document.

#include <gtest/gtest.h>

#include "Models/RecordTestSupport.h"
#include "quorvel/networking/QVLApiClient.h"
#include "quorvel/records/QVLPost.h"

namespace {

using records_test::RecordStoreTest;

std::string nested(int depth) { return std::string(depth, '[') + std::string(depth, ']'); }

class AnswerTextTest : public RecordStoreTest {};

TEST_F(AnswerTextTest, RecordsAreThoseOfTheDocumentWhicheverParserReadsThem) {
  struct Case {
    std::int64_t id;
    std::string answer;
    std::string name, content, parameters;
    bool collectible;
  };
  const Case cases[] = {
      // A repeated member: the last one counts, also on a key path and inside kept JSON.
      {1,
       R"([{"id":1,"name":"first","content":{"html":"a","html":"b"},"name":"last",)"
       R"("parameters":{"b":[1,-0,2.50,-0.0],"a":1,"a":{"c":null}},"collectible":-0}])",
       "last", "b", R"({"a":{"c":null},"b":[1,0,2.5,-0.0]})", false},
      // Beyond 64 bits and at the nesting limit: only the document parser takes these.
      {2,
       R"([{"id":2,"name":"big","collectible":18446744073709551616,"parameters":)" +
           nested(kQVLMaxJSONDepth - 2) + "}]",
       "big", "", nested(kQVLMaxJSONDepth - 2), true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answer);
    std::optional<QVLError> error;
    QVLApiClient::sharedClient().parseAndSaveJSONArrayData(
        c.answer, QVLPost::modelClass(),
        [&](std::optional<qvl::AnyResults>, std::optional<QVLError> e) { error = e; });
    ASSERT_FALSE(error) << error->domain;
    auto post = store_->object<QVLPost>(c.id);
    ASSERT_TRUE(post);
    EXPECT_EQ(post->name(), c.name);
    EXPECT_EQ(post->content().value_or(""), c.content);
    EXPECT_EQ(post->parametersJSON(), c.parameters);
    EXPECT_EQ(post->collectible(), c.collectible);
  }

  std::optional<QVLError> error;
  QVLApiClient::sharedClient().parseAndSaveJSONObjectData(
      R"({"id":3,"parameters":)" + nested(kQVLMaxJSONDepth) + "}", QVLPost::modelClass(),
      [&](std::shared_ptr<QVLApiModel>, std::optional<QVLError> e) { error = e; });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, kQVLMappingErrorDomain);
}

}  // namespace
