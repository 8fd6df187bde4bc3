#include "quorvel/platform/Json.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

using qvl::Json;
using Kind = Json::Kind;

TEST(JsonTest, EachKindRoundTripsAndReadsOnlyAsItsOwnKind) {
  const struct {
    const char* text;
    Kind kind;
    Json built;
  } rows[] = {
      {"null", Kind::null, nullptr},
      {"false", Kind::boolean, false},
      {"-7", Kind::integer, -7},
      {"0.5", Kind::floating, 0.5},
      {"\"h\xc3\xa9\"", Kind::string, "h\xc3\xa9"},
      {"[1,[2]]", Kind::array, Json::array({1, Json::array({2})})},
      {R"({"a":[],"b":{"c":null}})", Kind::object, {{"a", Json::array()}, {"b", {{"c", nullptr}}}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    auto parsed = Json::parse(row.text);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(*parsed, row.built);
    EXPECT_EQ(parsed->kind(), row.kind);
    EXPECT_EQ(parsed->dump(), row.text);
    EXPECT_EQ(parsed->asBool().has_value(), row.kind == Kind::boolean);
    EXPECT_EQ(parsed->asInt().has_value(), row.kind == Kind::integer);
    EXPECT_EQ(parsed->asDouble().has_value(),
              row.kind == Kind::integer || row.kind == Kind::floating);
    EXPECT_EQ(parsed->asString().has_value(), row.kind == Kind::string);
    EXPECT_EQ(parsed->at(0).has_value(), row.kind == Kind::array);
    EXPECT_EQ(parsed->at("a").has_value(), row.kind == Kind::object);
    EXPECT_EQ(parsed->set("k", 1), row.kind == Kind::null || row.kind == Kind::object);
  }
  EXPECT_FALSE(Json(UINT64_MAX).asInt()) << "does not fit";
  EXPECT_EQ(Json(UINT64_MAX).dump(), "18446744073709551615");

  Json object = {{"b", 2}, {"a", {1, "x"}}};
  EXPECT_EQ(object.keys(), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(object.at("a")->at(1), "x");
  Json copy = object;
  EXPECT_TRUE(copy.set("b", 3));
  EXPECT_EQ(object.at("b"), 2) << "a copy is independent";
  EXPECT_NE(copy, object);
  EXPECT_EQ(Json(1), Json(1.0));
  EXPECT_NE(Json(1), Json("1"));
  EXPECT_FALSE(object.append(1));
  Json moved = std::move(copy);
  EXPECT_TRUE(copy.isNull());  // NOLINT: a moved-from value is null
}

TEST(JsonSecurity, ParseRefusesNestingBeyondTheLimitAndTextThatIsNotJson) {
  auto nested = [](int depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_TRUE(Json::parse(nested(kQVLMaxJSONDepth)));
  for (int depth : {kQVLMaxJSONDepth + 1, 100000}) {
    std::string error;
    EXPECT_FALSE(Json::parse(nested(depth), &error)) << depth;
    EXPECT_NE(error.find("deeper than 128"), std::string::npos) << error;
  }
  std::string error;
  EXPECT_FALSE(Json::parse("{\"a\": 1} // comment", &error));
  EXPECT_EQ(error, "not JSON");
}

}  // namespace
