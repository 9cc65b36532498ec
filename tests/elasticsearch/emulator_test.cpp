// The emulator is checked by code we did not write: the official Python and JS clients (the JS ones
// of Elasticsearch and of OpenSearch) run their bulk helpers (with rejected items to retry) and their
// paging against it and read back what they wrote.
#include "EsFixture.h"
#include "support/Process.h"
#include "support/SourcePaths.h"

#include <gtest/gtest.h>

namespace {

using ClientsTest = EsFixture;

TEST_F(ClientsTest, OfficialPythonAndJsClients) {
  const std::string dir = qztest::SourceDir() + "/tests/";
  const std::string js = R"(","successful":1200,"failed":0,"dropped":0,)"
                         R"("listed":1,"seen":1200,"ordered":true,"closed":true,)"
                         R"("scrolled":1200,"count":1200,"owner":"js"})";
  const struct {
    std::vector<std::string> argv;
    const char* openSearch; // the version served
    std::string last;       // the check's last line, then the emulator's counts
  } clients[] = {
      {{"/usr/bin/python3", dir + "elasticsearch/clients_check.py"},
       "",
       R"({"ok":2000,"errors":0,"count":2000,"distinct":2000,"intact":true,"found":[true,true,false],)"
       R"("sliced":[2000,0,true],"meta":{"owner":"py"},"zipped":300,"zipped_count":300,)"
       R"("partial":"Scroll request has only succeeded on 1 (+0 skipped) shards out of 2.",)"
       R"("stream":[3,"illegal_argument_exception",3,true,true]})"
       "\nitems 2309, pits 0, scrolls 4, open 0 gzip"}, // only the rejected items went twice
      {{"node", dir + "esclient/check.js", "elasticsearch"},
       "",
       R"({"distribution":"elasticsearch","number":"8.11.0)" + js + "\nitems 1205, pits 1, scrolls 1, open 0 "},
      {{"node", dir + "esclient/check.js", "opensearch"},
       "2.11.0",
       R"({"distribution":"opensearch","number":"2.11.0)" + js + "\nitems 1205, pits 1, scrolls 1, open 0 "},
  };
  for (const auto& c : clients) {
    SCOPED_TRACE(c.argv[1]);
    emulator.setOpenSearch(c.openSearch);
    emulator.reset();
    inject([](auto& f) { f.rejectItems = 5; });
    std::vector<std::string> argv = c.argv;
    argv.insert(argv.begin() + 2, emulator.baseUrl());
    std::string out, err;
    EXPECT_EQ(qztest::RunProgram(argv, "", out, err), 0)
        << "the client failed (scripts/install-deps installs the clients): " << err << out;
    const size_t start = out.rfind('\n', out.size() >= 2 ? out.size() - 2 : 0);
    const auto s = emulator.stats();
    EXPECT_EQ(out.substr(start == std::string::npos ? 0 : start + 1) + "items " + std::to_string(s.bulkItems) +
                  ", pits " + std::to_string(s.pitsOpened) + ", scrolls " + std::to_string(s.scrollsOpened) +
                  ", open " + std::to_string(s.openPits + s.openScrolls) + " " + s.lastBulkContentEncoding,
              c.last);
  }
}

// What the library and a river need from the emulator beyond what their own tests read back:
// optimistic concurrency, the mapping's _meta, aliases swapped atomically, mappings that cannot
// change a type, and slices only with a scroll or a point in time and at least two of them.
using EmulatorTest = EsFixture;

TEST_F(EmulatorTest, ConcurrencyAliasesMappingsAndSlicesAnswerAsElasticsearch) {
  const struct {
    const char *method, *path, *body;
    int status;
    const char* contains;
  } steps[] = {
      {"PUT", "/r/_doc/a", R"({"v":1})", 201, R"("_seq_no":0,"_primary_term":1)"},
      {"PUT", "/r/_doc/a?if_seq_no=0&if_primary_term=1", R"({"v":2})", 200, R"("result":"updated")"},
      {"PUT", "/r/_doc/a?if_seq_no=0&if_primary_term=1", R"({"v":3})", 409, "required seqNo [0]"},
      {"PUT", "/v1", R"({"mappings":{"_meta":{"seq":"12-abc"}},"aliases":{"live":{}}})", 200, "acknowledged"},
      {"PUT", "/v2", "{}", 200, "acknowledged"},
      {"PUT", "/v2/_mapping", R"({"_meta":{"seq":"40-def"},"properties":{"n":{"type":"long"}}})", 200, "acknowledged"},
      {"GET", "/v2/_mapping", "", 200,
       R"({"v2":{"mappings":{"_meta":{"seq":"40-def"},"properties":{"n":{"type":"long"}}}}})"},
      {"POST", "/_aliases",
       R"({"actions":[{"add":{"index":"v2","alias":"live"}},{"remove":{"index":"v1","alias":"nope"}}]})", 404,
       "aliases_not_found_exception"},
      {"GET", "/_alias/live", "", 200, R"({"v1":{"aliases":{"live":{}}}})"}, // the failed swap changed nothing
      {"POST", "/_aliases",
       R"({"actions":[{"remove":{"index":"v1","alias":"live"}},{"add":{"index":"v2","alias":"live"}}]})", 200,
       "acknowledged"},
      {"GET", "/_alias/live", "", 200, R"({"v2":{"aliases":{"live":{}}}})"},
      {"PUT", "/live/_doc/1", R"({"n":1})", 201, R"("_index":"v2")"},
      {"GET", "/v2/_count", "", 200, R"({"count":1,)"},
      {"PUT", "/v2/_mapping", R"({"properties":{"n":{"type":"keyword"}}})", 400, "cannot be changed from type [long]"},
      {"POST", "/v2/_search?scroll=1m", R"({"slice":{"id":0,"max":1}})", 400, "max must be greater than 1"},
      {"POST", "/v2/_search", R"({"slice":{"id":0,"max":2}})", 400,
       "can only be used with [scroll] or [point-in-time]"},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(std::string(step.method) + " " + step.path);
    std::string out;
    EXPECT_EQ(call(step.method, step.path, step.body, &out), step.status) << out;
    EXPECT_NE(out.find(step.contains), std::string::npos) << out;
  }
}

} // namespace
