// The emulator is checked by code we did not write: the official Python and JS clients (the JS ones
// of Elasticsearch and of OpenSearch) run their bulk helpers (with rejected items to retry) and their
// paging against it and read back what they wrote.
#include "EsFixture.h"
#include "support/Process.h"
#include "support/SourcePaths.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

using ClientsTest = EsFixture;

TEST_F(ClientsTest, OfficialPythonAndJsClients) {
  const std::string dir = qztest::SourceDir() + "/tests/";
  const std::string js = R"(","successful":1200,"failed":0,"dropped":0,)"
                         R"("listed":1,"seen":1200,"ordered":true,"closed":true,)"
                         R"("scrolled":1200,"sliced":[1200,0,true],"count":1200,)"
                         R"("owner":"js","stream":[3,3,true,true]})";
  const struct {
    std::vector<std::string> argv;
    const char *module, *openSearch; // the client's package under tests/esclient; the version served
    std::string last;                // the check's last line, then the emulator's counts
  } clients[] = {
      {{"/usr/bin/python3", dir + "elasticsearch/clients_check.py"},
       nullptr,
       "",
       R"({"ok":2000,"errors":0,"count":2000,"distinct":2000,"intact":true,"found":[true,true,false],)"
       R"("sliced":[2000,0,true],"meta":{"owner":"py"},"zipped":300,"zipped_count":300,)"
       R"("partial":"Scroll request has only succeeded on 1 (+0 skipped) shards out of 2.",)"
       R"("stream":[3,"illegal_argument_exception",3,true,true]})"
       "\nitems 2309, pits 0, scrolls 4, open 0 gzip"}, // only the rejected items went twice
      {{"node", dir + "esclient/check.js", "elasticsearch"},
       "@elastic/elasticsearch",
       "",
       R"({"distribution":"elasticsearch","number":"8.11.0)" + js + "\nitems 1208, pits 1, scrolls 3, open 0 "},
      {{"node", dir + "esclient/check.js", "opensearch"},
       "@opensearch-project/opensearch",
       "2.11.0",
       R"({"distribution":"opensearch","number":"2.11.0)" + js + "\nitems 1208, pits 1, scrolls 3, open 0 "},
  };
  for (const auto& c : clients) {
    SCOPED_TRACE(c.argv[1]);
    struct stat st {};
    if (c.module) {
      ASSERT_EQ(stat((dir + "esclient/node_modules/" + c.module).c_str(), &st), 0)
          << "the JS clients are not installed: run scripts/install-deps (npm ci in tests/esclient)";
    }
    emulator.setOpenSearch(c.openSearch);
    emulator.reset();
    auto f = emulator.faults();
    f.rejectItems = 5;
    emulator.setFaults(f);
    std::vector<std::string> argv = c.argv;
    argv.insert(argv.begin() + 2, emulator.baseUrl());
    std::string out, err;
    EXPECT_EQ(qztest::RunProgram(argv, "", out, err), 0) << "the client failed: " << err << out;
    const size_t start = out.rfind('\n', out.size() >= 2 ? out.size() - 2 : 0);
    const auto s = emulator.stats();
    EXPECT_EQ(out.substr(start == std::string::npos ? 0 : start + 1) + "items " + std::to_string(s.bulkItems) +
                  ", pits " + std::to_string(s.pitsOpened) + ", scrolls " + std::to_string(s.scrollsOpened) +
                  ", open " + std::to_string(s.openPits + s.openScrolls) + " " + s.lastBulkContentEncoding,
              c.last)
        << "the Python client is Debian's python3-elasticsearch";
  }
}

// What a river needs from the emulator beyond the library's own calls: optimistic concurrency,
// external versions, aliases swapped atomically and the mapping's _meta.
using EmulatorTest = EsFixture;

TEST_F(EmulatorTest, WritesVersionsAliasesAndMappingsAnswerAsElasticsearch) {
  std::string out;
  ASSERT_EQ(call("PUT", "/r/_doc/a", R"({"v":1})", &out), 201) << out;
  EXPECT_NE(out.find(R"("_seq_no":0,"_primary_term":1)"), std::string::npos) << out;
  const struct {
    const char* method;
    const char* path;
    const char* body;
    int status;
    const char* contains;
  } steps[] = {
      {"PUT", "/r/_doc/a?if_seq_no=0&if_primary_term=1", R"({"v":2})", 200, R"("result":"updated")"},
      {"PUT", "/r/_doc/a?if_seq_no=0&if_primary_term=1", R"({"v":3})", 409, "required seqNo [0]"},
      {"PUT", "/r/_create/a", R"({"v":4})", 409, "document already exists"},
      {"PUT", "/r/_doc/x?version=5&version_type=external", R"({"v":5})", 201, R"("_version":5)"},
      {"PUT", "/r/_doc/x?version=5&version_type=external", R"({"v":6})", 409, "version_conflict_engine_exception"},
      {"PUT", "/r/_doc/x?version=5&version_type=external_gte", R"({"v":7})", 200, R"("_version":5)"},
      {"POST", "/r/_update/x", R"({"doc":{"w":1}})", 200, R"("_version":6)"},
      {"POST", "/r/_update/nope", R"({"doc":{"w":1}})", 404, "document_missing_exception"},
      {"GET", "/r/_doc/x", "", 200, R"("_source":{"v":7,"w":1})"},
      {"POST", "/_bulk", "{\"update\":{\"_index\":\"r\",\"_id\":\"up\"}}\n{\"doc\":{\"u\":1},\"doc_as_upsert\":true}\n",
       200, R"("result":"created")"},
      {"GET", "/r/_doc/up", "", 200, R"("_source":{"u":1})"}, // an upsert stores its document
      {"POST", "/_bulk", "{\"index\":{\"_index\":\"r\",\"_id\":\"a\",\"if_seq_no\":9,\"if_primary_term\":1}}\n{}\n",
       200, R"("status":409)"},
      // Elasticsearch refuses external versions on create and any version on update, for the
      // whole _bulk request, before running any item.
      {"PUT", "/r/_create/n?version=3&version_type=external", "{}", 400,
       "Validation Failed: 1: create operations only support internal versioning. use index instead;"},
      {"POST", "/_bulk",
       "{\"index\":{\"_index\":\"r\",\"_id\":\"ok\"}}\n{}\n"
       "{\"create\":{\"_index\":\"r\",\"_id\":\"n\",\"version\":3,\"version_type\":\"external_gte\"}}\n{}\n",
       400, R"("type":"action_request_validation_exception")"},
      {"POST", "/r/_update/x?version=9&version_type=external", R"({"doc":{}})", 400,
       "1: internal versioning can not be used for optimistic concurrency control"},
      {"POST", "/_bulk", "{\"update\":{\"_index\":\"r\",\"_id\":\"x\",\"version\":9}}\n{\"doc\":{}}\n", 400,
       "Update requests do not support versioning."},
      {"POST", "/_bulk", "{\"index\":{\"_index\":\"r\",\"_id\":\"x\",\"_version\":9}}\n{}\n", 400,
       "Action/metadata line [1] contains an unknown parameter [_version]"},
      {"GET", "/r/_doc/ok", "", 404, R"("found":false)"}, // the refused request ran nothing
      // A partial update that changes nothing, deletes that keep their version, routing.
      {"POST", "/r/_update/x", R"({"doc":{"w":1}})", 200, R"("_version":6,"result":"noop")"},
      {"DELETE", "/r/_doc/x?version=8&version_type=external", "", 200, R"("_version":8,"result":"deleted")"},
      {"PUT", "/r/_doc/x?version=8&version_type=external", "{}", 409, "current version [8] is higher or equal"},
      {"DELETE", "/r/_doc/gone", "", 404, R"("_version":1,"result":"not_found")"},
      {"PUT", "/r/_doc/gone?routing=u7", "{}", 201, R"("_version":2,"result":"created")"},
      {"GET", "/r/_doc/gone", "", 200, R"("_routing":"u7","found":true)"},
      {"PUT", "/routed", R"({"mappings":{"_routing":{"required":true}}})", 200, "acknowledged"},
      {"POST", "/_bulk", "{\"index\":{\"_index\":\"routed\",\"_id\":\"1\"}}\n{}\n", 200,
       R"("status":400,"error":{"type":"routing_missing_exception","reason":"routing is required for [routed]/[1]")"},
      // Mappings keep their _meta; aliases swap together or not at all, and take writes.
      {"PUT", "/v1", R"({"mappings":{"_meta":{"seq":"12-abc"}},"aliases":{"live":{}}})", 200, "acknowledged"},
      {"PUT", "/v2", "{}", 200, "acknowledged"},
      {"PUT", "/v2/_mapping", R"({"_meta":{"seq":"40-def"},"properties":{"n":{"type":"long"}}})", 200, "acknowledged"},
      {"GET", "/v2/_mapping", "", 200,
       R"({"v2":{"mappings":{"_meta":{"seq":"40-def"},"properties":{"n":{"type":"long"}}}}})"},
      {"POST", "/_aliases",
       R"({"actions":[{"add":{"index":"v2","alias":"live"}},{"remove":{"index":"v2","alias":"live"}},)"
       R"({"remove":{"index":"v1","alias":"nope"}}]})",
       404, "aliases_not_found_exception"},
      {"GET", "/_alias/live", "", 200, R"({"v1":{"aliases":{"live":{}}}})"},
      {"POST", "/_aliases",
       R"({"actions":[{"remove":{"index":"v1","alias":"live"}},{"add":{"index":"v2","alias":"live"}}]})", 200,
       "acknowledged"},
      {"GET", "/_alias/live", "", 200, R"({"v2":{"aliases":{"live":{}}}})"},
      {"PUT", "/live/_doc/1", R"({"n":1})", 201, R"("_index":"v2")"},
      {"GET", "/v2/_count", "", 200, R"({"count":1,)"},
      {"PUT", "/v2/_mapping", R"({"properties":{"n":{"type":"keyword"}}})", 400, "cannot be changed from type [long]"},
      // Slices need a scroll or a point in time, and at least two of them.
      {"POST", "/v2/_search?scroll=1m", R"({"slice":{"id":0,"max":1}})", 400, "max must be greater than 1"},
      {"POST", "/v2/_search", R"({"slice":{"id":0,"max":2}})", 400,
       "can only be used with [scroll] or [point-in-time]"},
      // Data streams come from a data-stream template and go with their backing indices.
      {"PUT", "/_data_stream/logs-a", "", 400, "no matching index template found for data stream [logs-a]"},
      {"PUT", "/_index_template/logs", R"({"index_patterns":["logs-*"],"data_stream":{}})", 200, "acknowledged"},
      {"PUT", "/_data_stream/logs-a", "", 200, "acknowledged"},
      {"PUT", "/_data_stream/logs-a", "", 400, "data_stream [logs-a] already exists"},
      {"PUT", "/logs-a/_doc/1", R"({"@timestamp":1})", 400, "only write ops with an op_type of create are allowed"},
      {"PUT", "/logs-a/_create/1", R"({"@timestamp":1})", 201, R"({"_index":".ds-logs-a-)"},
      {"GET", "/_data_stream/logs-*", "", 200, R"("generation":1,"status":"GREEN","template":"logs")"},
      {"DELETE", "/logs-a", "", 400, "is the write index for data stream [logs-a] and cannot be deleted"},
      {"DELETE", "/_data_stream/logs-a", "", 200, "acknowledged"},
      {"GET", "/logs-a/_count", "", 404, "no such index [logs-a]"},
      {"DELETE", "/_index_template/logs", "", 200, "acknowledged"},
      {"GET", "/_index_template/logs", "", 404, "index template matching [logs] not found"},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(std::string(step.method) + " " + step.path);
    EXPECT_EQ(call(step.method, step.path, step.body, &out), step.status) << out;
    EXPECT_NE(out.find(step.contains), std::string::npos) << out;
  }
}

} // namespace
