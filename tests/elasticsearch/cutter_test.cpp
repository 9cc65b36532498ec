#include <HttpTools/elasticsearch/ResponseItemCutter_p.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using qz::elasticsearch::ResponseItemCutter;

namespace {

// What a cut gave: its items one per line, then the ids and the errors flag it read, and whether
// every chunk was taken and the text ended where the answer does.
std::string cutInChunks(const std::string& outer, const std::string& inner, const std::string& text,
                        const std::vector<size_t>& splits) {
  std::string out;
  ResponseItemCutter cutter(outer, inner, [&](const char* t, size_t n) {
    out.append(t, n) += "\n";
    return true;
  });
  bool fed = true;
  for (size_t i = 0, at = 0; i <= splits.size() && fed; ++i) {
    const size_t end = i < splits.size() ? splits[i] : text.size();
    fed = cutter.feed(text.data() + at, end - at);
    at = end;
  }
  return out + "pit " + cutter.pitId() + ", scroll " + cutter.scrollId() + ", errors " +
         std::to_string(cutter.errors()) + (fed ? "" : ", refused") + (cutter.complete() ? "" : ", incomplete");
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
  std::string outer, inner, text, cut;
};

std::vector<Case> cases() {
  const std::string hits = join(kHits, "\n");
  return {
      {"pit search", "hits", "hits",
       R"({"pit_id":"P+/=x\"","took":3,"timed_out":false,"_shards":{"total":1,"failures":[{"hits":"{"}]},)"
       R"("hits":{"total":{"value":3,"relation":"hits"},"max_score":null,"hits":[)" +
           join(kHits, ",") + R"(]},"aggregations":{"hits":{"hits":[{"decoy":1}]}}})",
       hits + "\npit P+/=x\", scroll , errors -1"},
      {"pretty scroll", "hits", "hits",
       "{\n  \"_scroll_id\" : \"S1==\",\n  \"hits\" : {\n    \"hits\" : [\n      " + join(kHits, ",\n      ") +
           "\n    ]\n  }\n}\n",
       hits + "\npit , scroll S1==, errors -1"},
      {"empty page", "hits", "hits", R"({"hits":{"total":{"value":0},"hits":[]}})", "pit , scroll , errors -1"},
      {"mget docs", "docs", "",
       R"({"docs":[{"_id":"a","found":false},{"_id":"b","found":true,"_source":{"docs":[{"z":"}"}]}}]})",
       R"({"_id":"a","found":false})"
       "\n"
       R"({"_id":"b","found":true,"_source":{"docs":[{"z":"}"}]}})"
       "\npit , scroll , errors -1"},
      {"bulk items", "items", "",
       R"({"took":5,"errors":true,"items":[{"index":{"_id":"1","status":201}},)"
       R"({"delete":{"_id":"2","status":429,"error":{"type":"x","reason":"[items] {"}}}]})",
       R"({"index":{"_id":"1","status":201}})"
       "\n"
       R"({"delete":{"_id":"2","status":429,"error":{"type":"x","reason":"[items] {"}}})"
       "\npit , scroll , errors 1"},
      {"bulk without errors", "items", "", R"({"errors" : false, "items":[{"index":{}}]})",
       "{\"index\":{}}\npit , scroll , errors 0"},
  };
}

TEST(ResponseItemCutter, EveryChunkSplitCutsTheSameItems) {
  for (const Case& c : cases()) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(cutInChunks(c.outer, c.inner, c.text, {}), c.cut);
    for (size_t split = 0; split <= c.text.size(); ++split)
      ASSERT_EQ(cutInChunks(c.outer, c.inner, c.text, {split}), c.cut) << "split at " << split;
    std::vector<size_t> everyByte;
    for (size_t i = 1; i < c.text.size(); ++i)
      everyByte.push_back(i);
    EXPECT_EQ(cutInChunks(c.outer, c.inner, c.text, everyByte), c.cut);
  }
}

TEST(ResponseItemCutter, MalformedNestingIsRefusedOrIncomplete) {
  const std::pair<const char*, const char*> table[] = {
      {R"({"hits":{"hits":[{"a":1}]}}})", ", refused, incomplete"}, // one brace too many
      {R"({"hits":{"hits":[{"a":1}]]})", ", refused, incomplete"},  // bracket closes an object
      {R"({"hits":{"hits":[{"a":1})", ", incomplete"},              // cut short
      {R"({"hits":{"hits":[{"a":"1}]}})", ", incomplete"},          // string never closed
      {R"({"a":1}{"b":2})", ", refused, incomplete"},               // two values
      {"", ", incomplete"},
  };
  for (const auto& [text, ending] : table) {
    const std::string cut = cutInChunks("hits", "hits", text, {});
    EXPECT_EQ(cut.substr(cut.find("errors -1") + 9), ending) << text;
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
