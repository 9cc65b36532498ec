#pragma once

// The emulator's state and the helpers its API areas share; only the emulator's own files include
// this. One area per file:
//   ElasticEmulator.cpp           server, dispatch, cluster info, fault and statistics control
//   ElasticEmulatorWrites.cpp     write semantics: versions, concurrency control, mappings
//   ElasticEmulatorDocuments.cpp  document routes, _bulk, _mget
//   ElasticEmulatorQuery.cpp      query matching and sort values
//   ElasticEmulatorSearch.cpp     _search, scroll, point in time, _count
//   ElasticEmulatorIndices.cpp    indices, mappings, aliases, refresh
//   ElasticEmulatorDataStreams.cpp index templates and data streams
#include "support/ElasticEmulator.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <map>
#include <set>
#include <unordered_map>
#include <vector>

namespace qztest {

namespace emu {

using rapidjson::Document;
using rapidjson::SizeType;
using rapidjson::StringBuffer;
using rapidjson::Value;
using Writer = rapidjson::Writer<StringBuffer>;
using Req = httplib::Request;
using Res = httplib::Response;
using Path = std::vector<std::string>;

struct Doc {
  std::string id;
  std::string source; // as the client sent it
  std::string routing;
  int64_t version = 1;
  int64_t seqNo = 0;
};
using DocPtr = std::shared_ptr<const Doc>;

struct Index {
  std::string name, uuid;
  std::vector<DocPtr> slots; // insertion order; a deleted document leaves an empty slot
  std::unordered_map<std::string, size_t> byId;
  std::unordered_map<std::string, int64_t> deleted; // the version of each deleted id, kept for good
  int64_t nextSeqNo = 0;
  std::string mappings = "{}"; // the mappings object as JSON
  std::map<std::string, std::string> fieldTypes;
  bool routingRequired = false;
  std::set<std::string> aliases;
  size_t live = 0;
  std::string dataStream; // the stream this index backs, if any
};

struct IndexTemplate {
  std::string body; // as the client sent it
  std::vector<std::string> patterns;
  int64_t priority = 0;
  bool dataStream = false;
};

struct DataStream {
  std::string templateName;
  std::vector<std::string> backing; // oldest first; the last one takes writes
};

struct Pit;    // ElasticEmulatorSearch.cpp
struct Scroll; // ElasticEmulatorSearch.cpp

// Per-write options, with Elasticsearch's sentinels for "not given".
constexpr int64_t kNoSeqNo = -2, kNoTerm = 0, kAnyVersion = -3;
struct WriteOptions {
  int64_t ifSeqNo = kNoSeqNo, ifPrimaryTerm = kNoTerm;
  int64_t version = kAnyVersion;
  std::string versionType = "internal";
  std::string routing;
};

struct WriteResult {
  int status = 200;
  std::string result;
  std::string errorType, errorReason;
  int64_t version = 0, seqNo = 0;
  bool noop = false;
  static WriteResult error(int status, std::string type, std::string reason) {
    WriteResult r;
    r.status = status;
    r.errorType = std::move(type);
    r.errorReason = std::move(reason);
    return r;
  }
};

std::string toJson(const Value& v);
void writeString(Writer& w, const std::string& s);
inline constexpr const char* kOneShard = R"("_shards":{"total":1,"successful":1,"skipped":0,"failed":0})";
// Parses a request's body; true when it is a JSON object, or empty and `emptyIsObject` (then {}).
inline bool parseBody(const Req& req, Document& body, bool emptyIsObject = false) {
  if (req.body.empty() && emptyIsObject)
    return body.SetObject(), true;
  body.Parse(req.body.data(), req.body.size());
  return !body.HasParseError() && body.IsObject();
}
// One member of the object being written.
inline void put(Writer& w, const char* key, const std::string& s) {
  w.Key(key);
  writeString(w, s);
}
inline void putInt(Writer& w, const char* key, int64_t n) {
  w.Key(key);
  w.Int64(n);
}
inline void putBool(Writer& w, const char* key, bool b) {
  w.Key(key);
  w.Bool(b);
}
std::string quote(const std::string& s); // as a JSON string
std::string errorBody(int status, const std::string& type, const std::string& reason, const std::string& index = "");
const Value* fieldOf(const Value& source, const std::string& path);
std::string lower(std::string s);
std::string randomId(size_t bytes, uint64_t counter);
int64_t numberParam(const Req& req, const char* name, int64_t fallback);
// `_shards` of an answer: a search's reached the one shard; a write's counts 2 copies (the
// replica unassigned, as on one node), a no-op's none.
void writeShards(Writer& w, int total = 1, int successful = 1, bool skipped = true);

// The validation errors of one write, in Elasticsearch's order and wording; empty when valid.
// `op`: index, create, delete or update.
std::vector<std::string> validateWrite(const std::string& op, const WriteOptions& o, bool hasId);
// "Validation Failed: 1: a;2: b;"
std::string validationReason(const std::vector<std::string>& errors);
// One write result as the document APIs and the _bulk items lay it out.
void writeWriteResult(Writer& w, const std::string& index, const std::string& id, const WriteResult& r,
                      bool withStatus);
// A found document's metadata and source, as GET and _mget give it.
void writeFoundDoc(Writer& w, const std::string& index, const Doc& d);
// Merges a mappings object into the index's; false with a reason when it is not an object.
bool applyMappings(Index& ix, const Value& mappings, std::string& err);

} // namespace emu

struct ElasticEmulator::State {
  mutable std::mutex mu; // guards everything below but productHeader and stopping
  std::map<std::string, emu::Index> indices;
  std::map<std::string, std::shared_ptr<emu::Pit>> pits;
  std::map<std::string, std::shared_ptr<emu::Scroll>> scrolls;
  std::map<std::string, emu::IndexTemplate> templates;
  std::map<std::string, emu::DataStream> dataStreams;
  Faults faults;
  Stats stats;
  uint64_t counter = 0;
  std::atomic<bool> productHeader{true};
  std::atomic<bool> stopping{false};
  std::string openSearchVersion; // "": Elasticsearch; set before serving, never cleared by reset

  void setFaults(const Faults& f) {
    faults = f;
    productHeader = !f.noProductHeader && openSearchVersion.empty();
  }
  void clear() {
    indices.clear();
    pits.clear();
    scrolls.clear();
    templates.clear();
    dataStreams.clear();
    setFaults(Faults());
    stats = Stats();
  }

  // Answers with the product header unless a fault removes it; never takes `mu`.
  void reply(emu::Res& res, int status, const std::string& body) const {
    res.status = status;
    if (productHeader)
      res.set_header("X-Elastic-Product", "Elasticsearch");
    res.set_content(body, "application/json; charset=UTF-8");
  }
  // An error answer as Elasticsearch lays it out, its type repeated as the only root cause.
  void fail(emu::Res& res, int status, const std::string& type, const std::string& reason,
            const std::string& index = "") const {
    reply(res, status, emu::errorBody(status, type, reason, index));
  }
  void invalid(emu::Res& res, const std::vector<std::string>& errors) const {
    fail(res, 400, "action_request_validation_exception", emu::validationReason(errors));
  }
  void badMethod(const emu::Req& req, emu::Res& res) const;

  // Indices named by an expression (comma list, aliases, `*` patterns, _all). False with a
  // 404 body when a concrete name is unknown.
  bool resolve(const std::string& expr, std::vector<emu::Index*>& out, std::string& err);
  // As resolve(), answering the 404 itself.
  bool resolveOrReply(const std::string& expr, std::vector<emu::Index*>& out, emu::Res& res);
  // The one index a write of `op` goes to: a data stream's write index (create only), or the
  // index, created when the name is neither an index nor an alias (a stream when a data-stream
  // template matches it).
  emu::Index* writeIndex(const std::string& name, const std::string& op, int& status, std::string& err);
  // The highest-priority template matching `name` when it makes data streams, else "".
  std::string dataStreamTemplate(const std::string& name) const;
  // Creates data stream `name` (its template must exist) and returns its first backing index.
  emu::Index* createDataStream(const std::string& name);
  emu::Index& createIndex(const std::string& name);

  const emu::Doc* current(const emu::Index& ix, const std::string& id) const {
    auto it = ix.byId.find(id);
    return it == ix.byId.end() ? nullptr : ix.slots[it->second].get();
  }
  // Applies one validated write. `parsed` is the source (update: the partial document).
  emu::WriteResult write(emu::Index& ix, const std::string& op, const std::string& id, const std::string& text,
                         const emu::Value* parsed, const emu::WriteOptions& o, bool upsert);
};

namespace emu {

using State = ElasticEmulator::State;

// The routes of each area: true when the request was theirs (and is answered).
bool serveDocuments(State& st, const Req& req, Res& res, const Path& path);
bool serveSearch(State& st, const Req& req, Res& res, const Path& path);
bool serveIndices(State& st, const Req& req, Res& res, const Path& path);
bool serveDataStreams(State& st, const Req& req, Res& res, const Path& path);
// OpenSearch mode's point in time routes (ElasticEmulatorOpenSearch.cpp).
bool serveOpenSearch(State& st, const Req& req, Res& res, const Path& path);
// POST /IDX/_pit, or in OpenSearch mode POST /IDX/_search/point_in_time.
void openPit(State& st, const Req& req, Res& res, const std::string& expr);
// OpenSearch's answer to a route it does not have.
std::string noHandler(const Req& req);

} // namespace emu

} // namespace qztest
