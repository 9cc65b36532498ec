#include <HttpTools/elasticsearch/ResponseItemCutter_p.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using qz::elasticsearch::ResponseItemCutter;

namespace {

struct Cut {
  std::vector<std::string> items;
  std::string pit, scroll;
  int errors = -1;
  bool fed = true, complete = false;
};

Cut cutInChunks(const std::string& outer, const std::string& inner, const std::string& text,
                const std::vector<size_t>& splits) {
  Cut out;
  ResponseItemCutter cutter(outer, inner, [&](const char* t, size_t n) {
    out.items.emplace_back(t, n);
    return true;
  });
  size_t at = 0;
  for (size_t i = 0; i <= splits.size() && out.fed; ++i) {
    const size_t end = i < splits.size() ? splits[i] : text.size();
    out.fed = cutter.feed(text.data() + at, end - at);
    at = end;
  }
  out.pit = cutter.pitId();
  out.scroll = cutter.scrollId();
  out.errors = cutter.errors();
  out.complete = cutter.complete();
  return out;
}

// Hits whose strings hold the bytes the cutter reacts to, and decoys: members named "hits" at
// other depths, and a "hits" array inside a hit's source.
const std::vector<std::string> kHits = {
    R"({"_index":"i","_id":"1","_score":null,"_source":{"t":"}{ ][ \"quoted\" \\"},"sort":[0]})",
    R"({"_index":"i","_id":"2\"}","_score":1.5,"_source":{"hits":{"hits":[{"x":"]"}]}},"sort":["\\",1]})",
    R"({"_index":"i","_id":"3","_source":{"a":[[{}],{"b":"\\\\\""}],"c":"hits"}})",
};

std::string join(const std::vector<std::string>& items, const std::string& sep) {
  std::string s;
  for (size_t i = 0; i < items.size(); ++i)
    s += (i ? sep : "") + items[i];
  return s;
}

struct Case {
  const char* name;
  std::string outer, inner, text;
  std::vector<std::string> items;
  std::string pit, scroll;
  int errors;
};

std::vector<Case> cases() {
  return {
      {"pit search", "hits", "hits",
       R"({"pit_id":"P+/=x\"","took":3,"timed_out":false,"_shards":{"total":1,"failures":[{"hits":"{"}]},)"
       R"("hits":{"total":{"value":3,"relation":"hits"},"max_score":null,"hits":[)" +
           join(kHits, ",") + R"(]},"aggregations":{"hits":{"hits":[{"decoy":1}]}}})",
       kHits, R"(P+/=x")", "", -1},
      {"pretty scroll", "hits", "hits",
       "{\n  \"_scroll_id\" : \"S1==\",\n  \"hits\" : {\n    \"hits\" : [\n      " + join(kHits, ",\n      ") +
           "\n    ]\n  }\n}\n",
       kHits, "", "S1==", -1},
      {"empty page", "hits", "hits", R"({"hits":{"total":{"value":0},"hits":[]}})", {}, "", "", -1},
      {"mget docs",
       "docs",
       "",
       R"({"docs":[{"_id":"a","found":false},{"_id":"b","found":true,"_source":{"docs":[{"z":"}"}]}}]})",
       {R"({"_id":"a","found":false})", R"({"_id":"b","found":true,"_source":{"docs":[{"z":"}"}]}})"},
       "",
       "",
       -1},
      {"bulk items",
       "items",
       "",
       R"({"took":5,"errors":true,"items":[{"index":{"_id":"1","status":201}},)"
       R"({"delete":{"_id":"2","status":429,"error":{"type":"x","reason":"[items] {"}}}]})",
       {R"({"index":{"_id":"1","status":201}})",
        R"({"delete":{"_id":"2","status":429,"error":{"type":"x","reason":"[items] {"}}})"},
       "",
       "",
       1},
      {"bulk without errors",
       "items",
       "",
       R"({"errors" : false, "items":[{"index":{}}]})",
       {R"({"index":{}})"},
       "",
       "",
       0},
  };
}

TEST(ResponseItemCutter, EveryChunkSplitCutsTheSameItems) {
  for (const Case& c : cases()) {
    SCOPED_TRACE(c.name);
    const Cut whole = cutInChunks(c.outer, c.inner, c.text, {});
    ASSERT_TRUE(whole.fed);
    EXPECT_TRUE(whole.complete);
    EXPECT_EQ(whole.items, c.items);
    EXPECT_EQ(whole.pit, c.pit);
    EXPECT_EQ(whole.scroll, c.scroll);
    EXPECT_EQ(whole.errors, c.errors);
    for (size_t split = 0; split <= c.text.size(); ++split) {
      const Cut two = cutInChunks(c.outer, c.inner, c.text, {split});
      ASSERT_TRUE(two.fed) << "split at " << split;
      ASSERT_EQ(two.items, c.items) << "split at " << split;
      ASSERT_EQ(two.pit, c.pit) << "split at " << split;
      ASSERT_EQ(two.scroll, c.scroll) << "split at " << split;
      ASSERT_EQ(two.errors, c.errors) << "split at " << split;
    }
    std::vector<size_t> everyByte;
    for (size_t i = 1; i < c.text.size(); ++i)
      everyByte.push_back(i);
    const Cut bytes = cutInChunks(c.outer, c.inner, c.text, everyByte);
    EXPECT_EQ(bytes.items, c.items);
    EXPECT_TRUE(bytes.complete);
  }
}

TEST(ResponseItemCutter, MalformedNestingIsRefusedOrIncomplete) {
  const struct {
    const char* text;
    bool fed, complete;
  } table[] = {
      {R"({"hits":{"hits":[{"a":1}]}}})", false, false}, // one brace too many
      {R"({"hits":{"hits":[{"a":1}]]})", false, false},  // bracket closes an object
      {R"({"hits":{"hits":[{"a":1})", true, false},      // cut short
      {R"({"hits":{"hits":[{"a":"1}]}})", true, false},  // string never closed
      {R"({"a":1}{"b":2})", false, false},               // two values
      {"", true, false},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.text);
    const Cut cut = cutInChunks("hits", "hits", row.text, {});
    EXPECT_EQ(cut.fed, row.fed);
    EXPECT_EQ(cut.complete, row.complete);
  }
}

TEST(ResponseItemCutter, ItemFunctionStopsTheCutAndKeepsOnlyAPartialItem) {
  std::string text = R"({"hits":{"hits":[)";
  const std::string big = R"({"_id":"x","_source":{"pad":")" + std::string(100000, 'p') + R"("}})";
  for (int i = 0; i < 20; ++i)
    text += (i ? "," : "") + big;
  text += "]}}";
  size_t seen = 0;
  size_t peak = 0;
  ResponseItemCutter cutter("hits", "hits", [&](const char*, size_t n) {
    EXPECT_EQ(n, big.size());
    return ++seen < 5;
  });
  bool fed = true;
  for (size_t at = 0; at < text.size() && fed; at += 16384) {
    fed = cutter.feed(text.data() + at, std::min<size_t>(16384, text.size() - at));
    peak = std::max(peak, cutter.bufferCapacity());
  }
  EXPECT_FALSE(fed);
  EXPECT_TRUE(cutter.stoppedByItem());
  EXPECT_EQ(seen, 5u);
  EXPECT_LT(peak, 4 * big.size()); // one partial hit and a chunk, not the whole answer
}

} // namespace
