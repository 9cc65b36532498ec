#include <HttpTools/couch/ViewResultStreamParser_p.h>

#include <HttpTools/platform/qzJson.h>

#include "support/LogCapture.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using qz::qzVariant;
using qz::qzVariantMapImpl;
using qz::couch::ViewResultStreamParser;

namespace {

struct Row {
  std::string id;
  qzVariant key;
  qzVariant value;
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

// Rows whose strings hold every byte the cutter reacts to, in both positions (key and value).
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

std::vector<Row> expectedRows() {
  std::vector<Row> out;
  for (const auto& text : kRowTexts) {
    qzVariantMapImpl m;
    EXPECT_TRUE(qz::json::Json2Variant::Convert(text, m)) << text;
    out.push_back({m["id"].toString(), m["key"], m["value"]});
  }
  return out;
}

// CouchDB's own layout: a header line, rows separated by ",\r\n", a "\r\n]}" trailer.
std::string couchLayout(const std::vector<std::string>& rows) {
  std::string s = "{\"total_rows\":" + std::to_string(rows.size()) + ",\"offset\":0,\"rows\":[\r\n";
  for (size_t i = 0; i < rows.size(); ++i)
    s += (i ? ",\r\n" : "") + rows[i];
  return s + "\r\n]}\n";
}

// pouchdb-server's layout: everything on one line, the rows array not necessarily last.
std::string pouchLayout(const std::vector<std::string>& rows) {
  std::string s = "{\"total_rows\":" + std::to_string(rows.size()) + ",\"offset\":0,\"rows\":[";
  for (size_t i = 0; i < rows.size(); ++i)
    s += (i ? "," : "") + rows[i];
  return s + "],\"update_seq\":\"7-g1AAAA{[\\\"x\\\"]}\"}";
}

// Feeds `text` cut at the given offsets; returns the result of the last feed.
bool feedCuts(ViewResultStreamParser& parser, const std::string& text, const std::vector<size_t>& cuts) {
  size_t from = 0;
  for (size_t cut : cuts) {
    if (!parser.feed(text.data() + from, cut - from))
      return false;
    from = cut;
  }
  return parser.feed(text.data() + from, text.size() - from);
}

// The cutting rule applied byte by byte to the whole text at once: the rows' texts.
std::vector<std::string> referenceCut(const std::string& text, int32_t* braces, int32_t* squares) {
  std::vector<std::string> rows;
  int32_t b = 0, q = 0;
  bool inString = false;
  size_t rowStart = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\\') {
      ++i;
      continue;
    }
    if (c == '"') {
      inString = !inString;
      continue;
    }
    if (inString)
      continue;
    if (c == '[')
      ++q;
    else if (c == ']')
      --q;
    else if (c == '{') {
      if (++b == 2 && q == 1)
        rowStart = i;
    } else if (c == '}') {
      if (b == 2 && q == 1) {
        rows.push_back(text.substr(rowStart, i - rowStart + 1));
        rowStart = i;
      }
      --b;
    }
  }
  *braces = b;
  *squares = q;
  return rows;
}

struct TextCollector {
  std::vector<std::string> rows;
  static bool Take(const char* text, size_t length, void* userData) {
    static_cast<TextCollector*>(userData)->rows.emplace_back(text, length);
    return true;
  }
};

const bool kNotCancelled = false;

} // namespace

TEST(ViewResultStreamParser, BothLayoutsAtEveryCutPoint) {
  const std::vector<Row> expected = expectedRows();
  for (const auto& text : {couchLayout(kRowTexts), pouchLayout(kRowTexts)}) {
    for (size_t cut = 0; cut <= text.size(); ++cut) {
      Collector c;
      ViewResultStreamParser parser(&Collector::Take, &c, &kNotCancelled);
      ASSERT_TRUE(feedCuts(parser, text, {cut})) << "cut at " << cut;
      ASSERT_EQ(c.rows, expected) << "cut at " << cut;
      EXPECT_EQ(parser.rowCount(), int64_t(expected.size()));
      EXPECT_EQ(parser.braceCounter(), 0);
      EXPECT_EQ(parser.squareBracketCounter(), 0);
      EXPECT_FALSE(parser.inString());
    }
  }
}

TEST(ViewResultStreamParser, EveryPairOfCutPointsAndSingleBytes) {
  // Two cuts cover a row split in three, including a backslash alone in its chunk.
  const std::vector<std::string> rows(kRowTexts.begin() + 3, kRowTexts.begin() + 6);
  const std::string text = couchLayout(rows);
  const std::vector<Row> all = expectedRows();
  const std::vector<Row> expected(all.begin() + 3, all.begin() + 6);
  for (size_t a = 0; a <= text.size(); ++a)
    for (size_t b = a; b <= text.size(); ++b) {
      Collector c;
      ViewResultStreamParser parser(&Collector::Take, &c, &kNotCancelled);
      ASSERT_TRUE(feedCuts(parser, text, {a, b}));
      ASSERT_EQ(c.rows, expected) << "cuts at " << a << ", " << b;
    }
  std::vector<size_t> everyByte;
  for (size_t i = 1; i < text.size(); ++i)
    everyByte.push_back(i);
  Collector c;
  ViewResultStreamParser parser(&Collector::Take, &c, &kNotCancelled);
  ASSERT_TRUE(feedCuts(parser, text, everyByte));
  EXPECT_EQ(c.rows, expected);
}

TEST(ViewResultStreamParser, BackslashAsLastByteSkipsFirstByteOfNextChunk) {
  // `"a\` + `"}`: the quote after the chunk boundary is escaped, so the string is still open.
  Collector c;
  ViewResultStreamParser parser(&Collector::Take, &c, &kNotCancelled);
  const std::string head = R"({"rows":[{"id":"a\)";
  ASSERT_TRUE(parser.feed(head.data(), head.size()));
  EXPECT_TRUE(parser.escaped());
  EXPECT_TRUE(parser.inString());
  ASSERT_TRUE(parser.feed("\"", 1));
  EXPECT_FALSE(parser.escaped());
  EXPECT_TRUE(parser.inString());
  const std::string tail = R"(","key":1,"value":2}]})";
  ASSERT_TRUE(parser.feed(tail.data(), tail.size()));
  ASSERT_EQ(c.rows.size(), 1u);
  EXPECT_EQ(c.rows[0].id, "a\"");
}

TEST(ViewResultStreamParser, RandomChunkingsAgreeWithByteWiseRule) {
  std::mt19937 rng(20221107);
  // Mutated responses and noise: whatever the bytes, the cutter's rows and counters must be the
  // ones the byte-by-byte rule gives on the whole text.
  const std::string alphabet = "{}[]\"\\\\,:ab ";
  const std::string base = couchLayout(kRowTexts) + pouchLayout(kRowTexts);
  for (int round = 0; round < 3000; ++round) {
    std::string text;
    if (round % 3 == 0) {
      std::uniform_int_distribution<size_t> len(0, 300);
      for (size_t n = len(rng); n; --n)
        text += alphabet[rng() % alphabet.size()];
    } else {
      text = base;
      for (int m = int(rng() % 4); m; --m)
        text[rng() % text.size()] = alphabet[rng() % alphabet.size()];
      if (round % 3 == 2)
        text.erase(rng() % text.size(), rng() % 40);
    }
    int32_t braces = 0, squares = 0;
    const std::vector<std::string> want = referenceCut(text, &braces, &squares);

    std::vector<size_t> cuts;
    for (size_t at = 0;;) {
      at += 1 + rng() % (round % 2 ? 7 : 97);
      if (at >= text.size())
        break;
      cuts.push_back(at);
    }
    TextCollector got;
    bool cancel = false;
    ViewResultStreamParser parser(nullptr, nullptr, &cancel);
    parser.setRowTextFunction(&TextCollector::Take, &got);
    ASSERT_TRUE(feedCuts(parser, text, cuts));
    ASSERT_EQ(got.rows, want) << text;
    ASSERT_EQ(parser.braceCounter(), braces) << text;
    ASSERT_EQ(parser.squareBracketCounter(), squares) << text;
    ASSERT_LE(parser.buffer().size(), text.size());
  }
}

TEST(ViewResultStreamParser, BufferHoldsOnlyTheUnconsumedTail) {
  std::vector<std::string> rows;
  for (int i = 0; i < 20000; ++i)
    rows.push_back(R"({"id":"doc)" + std::to_string(i) + R"(","key":["k",)" + std::to_string(i) +
                   R"(],"value":{"text":"some {[ text ]}","n":)" + std::to_string(i) + "}}");
  const std::string text = couchLayout(rows);
  size_t maxRow = 0;
  for (const auto& r : rows)
    maxRow = std::max(maxRow, r.size());

  Collector c;
  ViewResultStreamParser parser(&Collector::Take, &c, &kNotCancelled);
  const size_t chunk = 4096;
  size_t peak = 0;
  for (size_t at = 0; at < text.size(); at += chunk) {
    ASSERT_TRUE(parser.feed(text.data() + at, std::min(chunk, text.size() - at)));
    // After a feed only the partial row (at most one row plus its separator) is left.
    ASSERT_LE(parser.buffer().size(), maxRow + 4);
    peak = std::max(peak, parser.buffer().capacity());
  }
  EXPECT_EQ(c.rows.size(), rows.size());
  EXPECT_EQ(c.rows.back().id, "doc19999");
  EXPECT_LT(peak, 4 * chunk);
}

TEST(ViewResultStreamParser, ErrorRowsOfAKeysQueryStopWithMissingEntryLines) {
  const std::string errorRow = R"({"key":"nope","error":"not_found"})";
  const std::string text = couchLayout({kRowTexts[0], errorRow, kRowTexts[1]});
  for (size_t cut : {size_t(0), text.find("nope"), text.size()}) {
    qztest::LogCapture cap;
    Collector c;
    ViewResultStreamParser parser(&Collector::Take, &c, &kNotCancelled);
    EXPECT_FALSE(feedCuts(parser, text, {cut}));
    EXPECT_EQ(c.rows.size(), 1u);
    EXPECT_EQ(parser.rowCount(), 2);
    EXPECT_EQ(cap.texts(), (std::vector<std::string>{
                               "On error BracketCounter 2, SquareBracketCounter 1, cancelflag 0",
                               "Error while parsing result, missing 'id' entry in json " + errorRow,
                               "Error while parsing result, missing 'value' entry in json " + errorRow,
                           }));
    EXPECT_TRUE(cap.has("couchdb", "Error while parsing result, missing 'id' entry in json " + errorRow));
  }
}

TEST(ViewResultStreamParser, EachMissingMemberHasItsLine) {
  struct Case {
    std::string row;
    std::vector<std::string> missing;
  };
  const std::vector<Case> cases = {
      {R"({"key":1,"value":2})", {"id"}},
      {R"({"id":"x","value":2})", {"key"}},
      {R"({"id":"x","key":1})", {"value"}},
      {R"({"other":{"id":1,"key":2,"value":3}})", {"id", "key", "value"}},
  };
  for (const auto& tc : cases) {
    qztest::LogCapture cap;
    bool cancel = true; // reported as it is, even though the feed itself does not look at it
    Collector c;
    ViewResultStreamParser parser(&Collector::Take, &c, &cancel);
    const std::string text = pouchLayout({tc.row});
    EXPECT_FALSE(parser.feed(text.data(), text.size()));
    std::vector<std::string> want = {"On error BracketCounter 2, SquareBracketCounter 1, cancelflag 1"};
    for (const auto& m : tc.missing)
      want.push_back("Error while parsing result, missing '" + m + "' entry in json " + tc.row);
    EXPECT_EQ(cap.texts(), want);
    EXPECT_TRUE(c.rows.empty());
  }
}

TEST(ViewResultStreamParser, InvalidRowStopsWithItsText) {
  for (const std::string row : {R"({"id":"a","key":1,"value":tru})", R"({"id":"a","key":1,"value":})",
                                R"({"id":"a" "key":1})", R"({"id":"a","key":1,})"}) {
    qztest::LogCapture cap;
    Collector c;
    ViewResultStreamParser parser(&Collector::Take, &c, &kNotCancelled);
    const std::string text = couchLayout({kRowTexts[0], row, kRowTexts[1]});
    EXPECT_FALSE(parser.feed(text.data(), text.size())) << row;
    EXPECT_EQ(c.rows.size(), 1u);
    EXPECT_EQ(parser.rowCount(), 1);
    ASSERT_EQ(cap.size(), 1u);
    EXPECT_TRUE(cap.has("couchdb", "Error while parsing result, invalid json " + row)) << cap.dump();
  }
}

TEST(ViewResultStreamParser, RowFunctionRefusalStopsQuietly) {
  const std::string text = couchLayout(kRowTexts);
  qztest::LogCapture cap;
  Collector c;
  c.acceptCount = 3;
  ViewResultStreamParser parser(&Collector::Take, &c, &kNotCancelled);
  EXPECT_FALSE(feedCuts(parser, text, {text.size() / 2}));
  EXPECT_EQ(c.rows.size(), 3u);
  EXPECT_EQ(cap.size(), 0u);
}

TEST(ViewResultStreamParser, NonRowResponsesDeliverNothing) {
  for (const std::string text :
       {R"({"error":"not_found","reason":"missing"})", R"({"total_rows":0,"offset":0,"rows":[]})", "", "[[{}]]"}) {
    Collector c;
    ViewResultStreamParser parser(&Collector::Take, &c, &kNotCancelled);
    EXPECT_TRUE(parser.feed(text.data(), text.size()));
    EXPECT_TRUE(c.rows.empty()) << text;
  }
}

TEST(ViewResultStreamParser, WriteFunctionAbortsOnRefusalOrCancel) {
  const std::string text = couchLayout({kRowTexts[0]});
  std::string chunk = text; // libcurl hands a mutable buffer
  bool cancel = false;
  Collector c;
  ViewResultStreamParser parser(&Collector::Take, &c, &cancel);
  EXPECT_EQ(ViewResultStreamParser::WriteFunction(chunk.data(), 1, 10, &parser), 10u);
  EXPECT_EQ(ViewResultStreamParser::TransferInfoFunction(&parser, 0, 0, 0, 0), 0);
  cancel = true;
  EXPECT_EQ(ViewResultStreamParser::WriteFunction(chunk.data() + 10, 1, 5, &parser), 6u);
  EXPECT_EQ(ViewResultStreamParser::TransferInfoFunction(&parser, 0, 0, 0, 0), 1);

  Collector refusing;
  refusing.acceptCount = 0;
  ViewResultStreamParser refuser(&Collector::Take, &refusing, &kNotCancelled);
  EXPECT_EQ(ViewResultStreamParser::WriteFunction(chunk.data(), 2, chunk.size() / 2, &refuser),
            2 * (chunk.size() / 2) + 1);
}

TEST(ViewResultStreamParser, ReadFunctionSendsTheBodyInPieces) {
  const std::string body = R"({"keys":["a","b","c"]})";
  bool cancel = false;
  ViewResultStreamParser parser(nullptr, nullptr, &cancel);
  char out[8];
  EXPECT_EQ(ViewResultStreamParser::ReadFunction(out, 1, sizeof out, &parser), size_t(CURL_READFUNC_ABORT));

  parser.setRequestBody(&body);
  std::string sent;
  for (;;) {
    const size_t n = ViewResultStreamParser::ReadFunction(out, 1, sizeof out, &parser);
    ASSERT_LE(n, sizeof out);
    if (n == 0)
      break;
    sent.append(out, n);
  }
  EXPECT_EQ(sent, body);

  parser.setRequestBody(&body);
  EXPECT_EQ(ViewResultStreamParser::ReadFunction(out, 2, 2, &parser), 4u);
  cancel = true;
  EXPECT_EQ(ViewResultStreamParser::ReadFunction(out, 2, 2, &parser), size_t(CURL_READFUNC_ABORT));
  parser.setRequestBody(&body);
  EXPECT_EQ(ViewResultStreamParser::ReadFunction(out, 1, 0, &parser), size_t(CURL_READFUNC_ABORT));
}
