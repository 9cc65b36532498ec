#pragma once

// An Elasticsearch emulator for tests and benchmarks, on cpp-httplib, bound to 127.0.0.1 on a free
// port. It speaks the subset the library (and the official clients' helpers) use, with the real
// response layouts and the X-Elastic-Product header:
//
//   GET|HEAD /                      cluster info (version 8.11.0)
//   PUT|DELETE|HEAD|GET /IDX        index create (settings, mappings with _meta, aliases) / delete
//   GET|PUT /IDX/_mapping           mappings (properties merged, _meta replaced)
//   GET /_alias[/NAME], GET /IDX/_alias[/NAME], PUT|DELETE /IDX/_alias/NAME, POST /_aliases
//   POST /IDX/_refresh, GET|POST /IDX/_count, GET /_cluster/health
//   PUT|POST /IDX/_doc/ID, PUT|POST /IDX/_create/ID, POST /IDX/_doc, GET|HEAD|DELETE /IDX/_doc/ID,
//   POST /IDX/_update/ID            with if_seq_no/if_primary_term and version_type=external(_gte),
//                                   409 version_conflict_engine_exception on a mismatch
//   POST [/IDX]/_bulk               index/create/delete/update items with routing, versions and
//                                   if_seq_no/if_primary_term, per-item status and error; an item
//                                   Elasticsearch refuses (external version on create, version on
//                                   update) refuses the whole request, as it does there
//   POST [/IDX]/_mget               docs[] or ids[]
//   POST /IDX/_search[?scroll=]     match_all, term(s), match, ids, range, exists, bool; sort by
//                                   fields, _id, _doc, _shard_doc; from/size; search_after; pit
//   POST /IDX/_pit?keep_alive=, DELETE /_pit
//   POST|GET /_search/scroll, DELETE /_search/scroll[/_all]
//   PUT|GET|DELETE /_index_template/NAME   index_patterns, priority, data_stream, template.mappings
//   PUT|GET|DELETE /_data_stream/NAME      made by PUT or by the first create into a name a
//                                   data-stream template matches; writes take op create only and
//                                   need @timestamp; they land in .ds-NAME-YYYY.MM.DD-000001, which
//                                   searches on NAME read
//   OpenSearch mode (setOpenSearch): its cluster info and point in time routes instead
//
// Mapped field types long/integer/short/byte/double/float/boolean are enforced: a document whose
// value does not fit answers 400 mapper_parsing_exception. Fault switches make the next answers
// misbehave; control and statistics are also reachable over HTTP (PUT /_emulator/faults,
// GET /_emulator/stats) for a standalone run (tests/support/emulator/es_emulator_main.cpp).

#include <httplib.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace qztest {

class ElasticEmulator {
public:
  struct Faults {
    int rejectItems = 0;            // the next N bulk items answer 429 es_rejected_execution_exception
    int unavailable = 0;            // the next N requests whose path contains unavailablePath answer 503
    std::string unavailablePath;    // "" matches every path
    int failSearchPages = 0;        // the next N search pages (search or scroll) answer 500
    size_t cutSearchAfter = 0;      // the next search page stops after this many bytes (0: off)
    int stallSearchMs = 0;          // the next search page waits this long after its first bytes
    bool noPit = false;             // _pit answers 400 as a server without point in time does
    bool noProductHeader = false;   // answers lack X-Elastic-Product
    bool noAutoCreate = false;      // action.auto_create_index: false: writes to a missing index answer 404
    bool ignoreSearchAfter = false; // searches answer as if search_after were not there
    bool mgetDropLast = false;      // the next _mget answer leaves out its last document
    std::string requireHeader;      // "Name: value" lines (joined by '\n') every request must carry, 401 otherwise
    int partialSearchPages = 0;     // the next N search pages time out on one of two shards
    size_t maxBulkBytes = 0;        // a _bulk body over this many bytes answers 413 (0: no limit)
  };

  struct Stats {
    size_t openPits = 0, openScrolls = 0;
    size_t pitsOpened = 0, scrollsOpened = 0;
    size_t requests = 0, bulkRequests = 0, bulkItems = 0, searchRequests = 0, mgetRequests = 0;
    std::string lastBulkContentType, lastBulkContentEncoding, lastBulkQuery;
    size_t tooLargeBulks = 0; // _bulk requests refused with 413
    size_t bulkBytes = 0;     // _bulk bodies as they came (compressed ones compressed)
  };

  ElasticEmulator();
  ~ElasticEmulator(); // stops the server
  ElasticEmulator(const ElasticEmulator&) = delete;
  ElasticEmulator& operator=(const ElasticEmulator&) = delete;

  // Binds 127.0.0.1 on `port` (0: a free one) and serves on threads of its own; false (see
  // lastError()) when it cannot listen.
  bool start(int port = 0);
  void stop();
  // Serves on the calling thread until stop() (for the standalone program).
  bool listenBlocking(int port, const std::function<void(int)>& onBound);
  const std::string& lastError() const { return m_error; }
  int port() const { return m_port; }
  std::string baseUrl() const;

  void setFaults(const Faults& faults);
  Faults faults() const;
  Stats stats() const;
  size_t docCount(const std::string& index) const;
  void reset(); // drops every index, PIT, scroll, fault and counter

  // OpenSearch mode, for `version` ("1.3.14", "2.11.0"...; "" back to Elasticsearch): no product
  // header, version.distribution "opensearch" at GET /, no /IDX/_pit; from 2.4 on, point in time
  // at POST /IDX/_search/point_in_time, GET /_search/point_in_time/_all and DELETE
  // /_search/point_in_time[/_all]. Set it before requests arrive; reset() keeps it.
  void setOpenSearch(const std::string& version);

  struct State;

private:
  void install();

  httplib::Server m_server;
  std::thread m_thread;
  int m_port = 0;
  std::string m_error;
  std::unique_ptr<State> m_state;
};

} // namespace qztest
