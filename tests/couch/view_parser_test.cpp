#include <HttpTools/couch/ViewResultStreamParser_p.h>

#include <HttpTools/platform/qzJson.h>

#include "support/LogCapture.h"
#include "support/ViewReference.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using qz::qzVariant;
using qz::couch::ViewResultStreamParser;

namespace {

struct Row {
  std::string id;
  qzVariant key, value;
  bool operator==(const Row& o) const { return id == o.id && key == o.key && value == o.value; }
};

struct Collector {
  std::vector<Row> rows;
  size_t acceptCount = SIZE_MAX; // refuse the row after this many
  static bool Take(const std::string& id, qzVariant& key, qzVariant& value, void* userData) {
    auto* self = static_cast<Collector*>(userData);
    if (self->rows.size() >= self->acceptCount)
      return false;
    self->rows.push_back({id, key, value});
    return true;
  }
};

// Rows whose strings hold every byte the cutter reacts to, in key and value.
const std::vector<std::string> kRowTexts = {
    R"({"id":"plain","key":"a","value":1})",
    R"({"id":"braces{}","key":"}{","value":"{{{"})",
    R"({"id":"brackets","key":["]","[["],"value":{"x":"]]]"}})",
    R"({"id":"quote\"inside","key":"\"","value":"say \"hi\""})",
    R"({"id":"backslash","key":"a\\","value":"\\\\"})",
    R"({"id":"backslash-quote","key":"\\\"}","value":"\\\"{"})",
    R"({"id":"nested","key":[1,[2,[3,{"k":[4]}]]],"value":{"a":{"b":{"c":[{"d":null}]}}}})",
    R"({"id":"null-value","key":null,"value":null})",
    R"({"value":{"rev":"1-abc"},"key":"order","id":"members-in-another-order"})",
    R"({"id":"unicode\u00e9\u20ac","key":"\/slash","value":"tab\there"})",
    R"({"id":"numbers","key":-12.5e3,"value":[true,false,0]})",
};

// CouchDB's layout: a header line, rows separated by ",\r\n", a "\r\n]}" trailer. pouchdb-server's:
// all on one line, the rows array not necessarily last.
std::string layout(const std::vector<std::string>& rows, bool couch) {
  std::string s = "{\"total_rows\":" + std::to_string(rows.size()) + ",\"offset\":0,\"rows\":[" + (couch ? "\r\n" : "");
  for (size_t i = 0; i < rows.size(); ++i)
    s += (i ? (couch ? ",\r\n" : ",") : "") + rows[i];
  return s + (couch ? "\r\n]}\n" : "],\"update_seq\":\"7-g1AAAA{[\\\"x\\\"]}\"}");
}

// Feeds `text` cut at the given offsets; false as soon as a feed fails.
bool feedCuts(ViewResultStreamParser& parser, const std::string& text, const std::vector<size_t>& cuts) {
  size_t from = 0;
  for (size_t cut : cuts) {
    if (!parser.feed(text.data() + from, cut - from))
      return false;
    from = cut;
  }
  return parser.feed(text.data() + from, text.size() - from);
}

bool takeText(const char* text, size_t length, void* userData) {
  static_cast<std::vector<std::string>*>(userData)->emplace_back(text, length);
  return true;
}

const bool kNotCancelled = false;

} // namespace

TEST(ViewResultStreamParser, BothLayoutsAtEveryCutPointAndByteByByte) {
  std::vector<Row> expected;
  for (const auto& text : kRowTexts) {
    qz::qzVariantMapImpl m;
    ASSERT_TRUE(qz::json::Json2Variant::Convert(text, m)) << text;
    expected.push_back({m["id"].toString(), m["key"], m["value"]});
  }
  for (const auto& text : {layout(kRowTexts, true), layout(kRowTexts, false)}) {
    std::vector<std::vector<size_t>> cutSets;
    std::vector<size_t> everyByte;
    for (size_t cut = 0; cut <= text.size(); ++cut) {
      cutSets.push_back({cut});
      if (cut > 0 && cut < text.size())
        everyByte.push_back(cut);
    }
    cutSets.push_back(everyByte);
    for (const auto& cuts : cutSets) {
      Collector c;
      ViewResultStreamParser parser(&Collector::Take, &c, &kNotCancelled);
      ASSERT_TRUE(feedCuts(parser, text, cuts)) << cuts.size() << " cuts from " << cuts.front();
      ASSERT_EQ(c.rows, expected) << cuts.size() << " cuts from " << cuts.front();
    }
  }
}

TEST(ViewResultStreamParser, RandomChunkingsOfMutatedInputsAgreeWithByteWiseRule) {
  std::mt19937 rng(20221107);
  // Noise, and both layouts with bytes replaced or a piece cut out: no rows where no row is cut.
  const std::string alphabet = "{}[]\"\\\\,:ab ";
  const std::string base = layout(kRowTexts, true) + layout(kRowTexts, false);
  for (int round = 0; round < 3000; ++round) {
    std::string text;
    if (round % 3 == 0) { // noise
      for (size_t n = rng() % 301; n; --n)
        text += alphabet[rng() % alphabet.size()];
    } else { // a few bytes replaced, sometimes a piece cut out
      text = base;
      for (int m = int(rng() % 4); m; --m)
        text[rng() % text.size()] = alphabet[rng() % alphabet.size()];
      if (round % 3 == 2)
        text.erase(rng() % text.size(), rng() % 40);
    }
    int32_t braces = 0, squares = 0;
    const std::vector<std::string> want = qztest::ReferenceCutViewRows(text, &braces, &squares);
    std::vector<size_t> cuts;
    for (size_t at = 1 + rng() % 7; at < text.size(); at += 1 + rng() % (round % 2 ? 7 : 97))
      cuts.push_back(at);
    std::vector<std::string> got;
    ViewResultStreamParser parser(nullptr, nullptr, &kNotCancelled);
    parser.setRowTextFunction(&takeText, &got);
    ASSERT_TRUE(feedCuts(parser, text, cuts));
    ASSERT_EQ(got, want) << text;
    ASSERT_EQ(parser.braceCounter(), braces) << text;
    ASSERT_EQ(parser.squareBracketCounter(), squares) << text;
    ASSERT_LE(parser.buffer().size(), text.size());
  }
}

TEST(ViewResultStreamParser, BufferHoldsOnlyTheUnconsumedTail) {
  std::vector<std::string> rows;
  for (int i = 0; i < 5000; ++i)
    rows.push_back(R"({"id":"doc)" + std::to_string(i) + R"(","key":["k",)" + std::to_string(i) +
                   R"(],"value":{"text":"some {[ text ]}","n":)" + std::to_string(i) + "}}");
  const std::string text = layout(rows, true);
  const size_t maxRow = rows.back().size(), chunk = 4096;
  Collector c;
  ViewResultStreamParser parser(&Collector::Take, &c, &kNotCancelled);
  for (size_t at = 0; at < text.size(); at += chunk) {
    ASSERT_TRUE(parser.feed(text.data() + at, std::min(chunk, text.size() - at)));
    // Only the partial row (at most one row plus its separator) is left after a feed.
    ASSERT_LE(parser.buffer().size(), maxRow + 4);
    ASSERT_LT(parser.buffer().capacity(), 4 * chunk);
  }
  EXPECT_EQ(c.rows.size(), rows.size());
  EXPECT_EQ(c.rows.back().id, "doc4999");
}

TEST(ViewResultStreamParser, BadRowStopsWithItsLogLines) {
  struct Case {
    std::string row;
    bool cancel;                  // only reported in the "On error" line
    int64_t rowCount;             // a row that is not json is not counted
    std::vector<std::string> log; // "" stands for the "On error" line
  };
  const std::string missing = "Error while parsing result, missing '";
  const std::vector<Case> cases = {
      {R"({"key":"nope","error":"not_found"})", false, 2, {"", missing + "id", missing + "value"}},
      {R"({"key":1,"value":2})", true, 2, {"", missing + "id"}},
      {R"({"id":"x","value":2})", false, 2, {"", missing + "key"}},
      {R"({"id":"x","key":1})", false, 2, {"", missing + "value"}},
      {R"({"other":{"id":1,"key":2,"value":3}})", false, 2, {"", missing + "id", missing + "key", missing + "value"}},
      {R"({"id":"a","key":1,"value":tru})", false, 1, {"Error while parsing result, invalid json"}},
  };
  for (const auto& tc : cases) {
    std::vector<std::string> want;
    for (const auto& l : tc.log)
      want.push_back(l.empty() ? "On error BracketCounter 2, SquareBracketCounter 1, cancelflag " +
                                     std::to_string(int(tc.cancel))
                               : l + (l.starts_with(missing) ? "' entry in json " : " ") + tc.row);
    for (bool couch : {true, false}) {
      const std::string text = layout({kRowTexts[0], tc.row, kRowTexts[1]}, couch);
      qztest::LogCapture cap;
      Collector c;
      ViewResultStreamParser parser(&Collector::Take, &c, &tc.cancel);
      EXPECT_FALSE(feedCuts(parser, text, {text.find(tc.row) + 5})) << tc.row;
      EXPECT_EQ(c.rows.size(), 1u) << tc.row;
      EXPECT_EQ(parser.rowCount(), tc.rowCount) << tc.row;
      EXPECT_EQ(cap.texts(), want);
      EXPECT_TRUE(cap.has("couchdb", want.back()));
    }
  }
}
