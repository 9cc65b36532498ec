#include <HttpTools/couch/MangoSelector.h>

#include <HttpTools/platform/qzJson.h>

#include "support/PouchDbTest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

using qz::qzVariant;

namespace {

const char* const kSelectorDocs[] = {
    R"({"_id":"a","n":1,"s":"x","tags":["red","blue"],"o":{"k":1},"b":true})",
    R"({"_id":"b","n":2.5,"s":"y","tags":["red"],"o":{"k":2,"z":null}})",
    R"({"_id":"c","n":"3","s":"xy","tags":[],"nul":null})",
    R"({"_id":"d","n":10,"arr":[{"q":1},{"q":5}],"dot.key":7})",
    R"({"_id":"e"})",
};

struct Case {
  const char* selector;
  const char* ids;  // the documents it matches, in order
  bool peer = true; // pouchdb-server's _find decides it as CouchDB does
};
const Case kCases[] = {
    {R"({"n":1})", "a"},
    {R"({"n":{"$gt":2}})", "bcd"}, // the string "3" sorts after every number
    {R"({"n":{"$lt":"a"}})", "abcd"},
    {R"({"n":{"$gt":1,"$lt":10}})", "b"},
    // A missing field matches nothing but $exists false; pouchdb-server lets $ne match it.
    {R"({"n":{"$ne":1}})", "bcd", false},
    {R"({"n":{"$in":[1,10]}})", "ad"},
    {R"({"n":{"$nin":[1,10]}})", "bc"},
    {R"({"n":{"$type":"string"}})", "c"},
    {R"({"n":{"$mod":[3,1]}})", "ad"},
    {R"({"s":{"$regex":"^x"}})", "ac"},
    {R"({"s":{"$exists":false}})", "de"},
    {R"({"nul":{"$exists":true}})", "c"},
    {R"({"tags":"red"})", ""}, // an array is not searched by a plain value
    {R"({"tags":{"$in":["blue"]}})", "a"},
    {R"({"tags":{"$all":["red"]}})", "ab"},
    {R"({"tags":{"$size":0}})", "c"},
    {R"({"tags":{"$elemMatch":{"$eq":"blue"}}})", "a"},
    {R"({"tags":{"$allMatch":{"$eq":"red"}}})", "b"},
    {R"({"arr":{"$elemMatch":{"q":{"$gt":2}}}})", "d"},
    {R"({"tags.0":"red"})", "ab"},
    {R"({"o.k":{"$gte":2}})", "b"},
    {R"({"o":{"k":1}})", "a"},
    {R"({"o.z":null})", "b"},
    {R"({"dot\\.key":7})", "d"},
    {R"({"$or":[{"n":1},{"s":"y"}]})", "ab"},
    {R"({"$nor":[{"n":1},{"s":"y"}]})", "cde"},
    {R"({"$and":[{"s":{"$gt":"x"}},{"tags":{"$size":0}}]})", "c"},
    {R"({"$not":{"n":1}})", "bcde"},
    {R"({"n":{"$not":{"$gt":2}}})", "a", false}, // pouchdb-server: $not only around a selector
    {R"({"o":{"$keyMapMatch":{"$eq":"z"}}})", "b", false},
};

std::string Matches(const qzVariant& selector, std::string* error) {
  std::string ids;
  for (const char* text : kSelectorDocs) {
    qzVariant doc;
    qz::json::Json2Variant::Convert(text, std::strlen(text), doc);
    std::string why;
    if (qz::couch::MatchesSelector(selector, doc, &why))
      ids += doc.toMap().at("_id").toString();
    if (error->empty())
      *error = why;
  }
  return ids;
}

qzVariant Parse(const std::string& text) {
  qzVariant v;
  EXPECT_TRUE(qz::json::Json2Variant::Convert(text.data(), text.size(), v)) << text;
  return v;
}

using MangoSelectorOnPouchDb = qztest::PouchDbTest;

TEST_F(MangoSelectorOnPouchDb, MatchesAsCouchDbAndAsPouchDbServerFinds) {
  for (const char* doc : kSelectorDocs)
    ASSERT_EQ(s_server->request("POST", "/" + db, doc), 201);
  for (const Case& k : kCases) {
    SCOPED_TRACE(k.selector);
    std::string error;
    EXPECT_EQ(Matches(Parse(k.selector), &error), k.ids);
    EXPECT_EQ(error, "");
    if (!k.peer)
      continue;
    std::string answer;
    ASSERT_EQ(
        s_server->request("POST", "/" + db + "/_find", std::string(R"({"selector":)") + k.selector + "}", &answer), 200)
        << answer;
    std::string ids; // one letter each
    const qzVariant result = Parse(answer);
    for (const qzVariant& doc : result.toMap().at("docs").toList())
      ids += doc.toMap().at("_id").toString();
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, k.ids) << "pouchdb-server disagrees";
  }
}

TEST(MangoSelector, SelectorsItCannotReadAreErrorsNotMismatches) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"n":{"$foo":1}})", "unknown operator $foo"},
      {R"({"$where":"1"})", "unknown operator $where"},
      {R"({"$and":{"n":1}})", "$and takes an array of selectors"},
      {R"({"n":{"$in":5}})", "bad argument of $in"},
      {R"({"n":{"$type":"num"}})", "bad argument of $type"},
      {R"({"n":{"$mod":[0,1]}})", "bad argument of $mod"},
      {R"({"s":{"$regex":"("}})", "invalid $regex ("},
      {R"({"n":{"$exists":1}})", "$exists takes a boolean"},
      {R"([1])", "a selector must be an object"},
  };
  for (const auto& [selector, why] : cases) {
    SCOPED_TRACE(selector);
    std::string error;
    EXPECT_EQ(Matches(Parse(selector), &error), "");
    EXPECT_EQ(error, why);
  }
}

} // namespace
