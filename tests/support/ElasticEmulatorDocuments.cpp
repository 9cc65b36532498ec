#include "support/ElasticEmulatorState.h"

#include <chrono>

namespace qztest::emu {

namespace {

const std::set<std::string> kIgnoredMeta = {"retry_on_conflict",      "pipeline",          "require_alias",
                                            "require_data_stream",    "dynamic_templates", "_source",
                                            "list_executed_pipelines"};
const char* const kUpdateVersioning =
    "Update requests do not support versioning. Please use `if_seq_no` and `if_primary_term` instead";

// An index without an id creates a document with a generated one (so data streams take it).
std::string writeOp(const std::string& op, const std::string& id) {
  return op == "index" && id.empty() ? "create" : op;
}

bool knownVersionType(const std::string& t) { return t == "internal" || t == "external" || t == "external_gte"; }

// Reads one write option, from a query parameter or a _bulk metadata member; false for another name.
bool setOption(WriteOptions& o, const std::string& name, const std::string& v) {
  auto number = [&](int64_t& field) {
    char* end = nullptr;
    const long long n = std::strtoll(v.c_str(), &end, 10);
    if (!v.empty() && !*end)
      field = n;
    return true;
  };
  if (name == "if_seq_no" || name == "if_primary_term" || name == "version")
    return number(name == "version" ? o.version : name == "if_seq_no" ? o.ifSeqNo : o.ifPrimaryTerm);
  if (name == "version_type")
    o.versionType = v;
  else if (name == "routing")
    o.routing = v;
  return name == "version_type" || name == "routing";
}

// The partial document and doc_as_upsert of an update's body; null without a "doc" object.
const Value* updateDoc(const Value& body, bool& upsert) {
  upsert = body.HasMember("doc_as_upsert") && body["doc_as_upsert"].IsBool() && body["doc_as_upsert"].GetBool();
  return body.HasMember("doc") && body["doc"].IsObject() ? &body["doc"] : nullptr;
}

WriteOptions optionsOf(const Req& req) {
  WriteOptions o;
  for (const auto& [name, value] : req.params)
    setOption(o, name, value);
  return o;
}

void writeMissingDoc(Writer& w, const std::string& index, const std::string& id) {
  put(w, "_index", index);
  put(w, "_id", id);
  putBool(w, "found", false);
}

// A document write's answer: its result, or its error with the error's status.
void answerWrite(State& st, Res& res, const std::string& index, const std::string& id, const WriteResult& r) {
  if (!r.errorType.empty())
    return st.fail(res, r.status, r.errorType, r.errorReason, index);
  StringBuffer sb;
  Writer w(sb);
  w.StartObject();
  writeWriteResult(w, index, id, r, false);
  w.EndObject();
  st.reply(res, r.status, sb.GetString());
}

void bulk(State& st, const Req& req, Res& res, const std::string& defaultIndex) {
  const auto t0 = std::chrono::steady_clock::now();
  struct Item {
    std::string action, index, id, source;
    WriteOptions opts;
    std::unique_ptr<Document> parsed;
    const Value* doc = nullptr; // the source, or an update's partial document
    bool upsert = false;
    std::string parseError;
  };
  std::vector<Item> items;
  const std::string& text = req.body;
  {
    std::lock_guard<std::mutex> lock(st.mu);
    if (st.faults.maxBulkBytes && text.size() > st.faults.maxBulkBytes) {
      ++st.stats.tooLargeBulks;
      return st.fail(res, 413, "request_entity_too_large",
                     "bulk body of " + std::to_string(text.size()) + " bytes is over the limit");
    }
  }
  size_t at = 0;
  auto nextLine = [&](const char*& p, size_t& n) {
    while (at < text.size() && (text[at] == '\n' || text[at] == '\r'))
      ++at;
    if (at >= text.size())
      return false;
    size_t end = text.find('\n', at);
    if (end == std::string::npos)
      end = text.size();
    p = text.data() + at;
    n = end - at;
    if (n && p[n - 1] == '\r')
      --n;
    at = end + 1;
    return true;
  };
  const char* p;
  size_t n;
  std::vector<std::string> invalid;
  for (int line = 1; nextLine(p, n); ++line) {
    Document action;
    action.Parse(p, n);
    if (action.HasParseError() || !action.IsObject() || action.MemberCount() != 1 ||
        !action.MemberBegin()->value.IsObject())
      return st.fail(res, 400, "illegal_argument_exception", "Malformed action/metadata line");
    Item item;
    item.action = action.MemberBegin()->name.GetString();
    const Value& meta = action.MemberBegin()->value;
    if (item.action != "index" && item.action != "create" && item.action != "delete" && item.action != "update")
      return st.fail(res, 400, "illegal_argument_exception",
                     "Malformed action/metadata line, expected one of [create, delete, index, update] but found [" +
                         item.action + "]");
    std::string badParameter;
    for (const auto& f : meta.GetObject()) {
      const std::string k = f.name.GetString(), v = f.value.IsString() ? f.value.GetString() : toJson(f.value);
      if (k == "_index" || k == "_id")
        (k == "_id" ? item.id : item.index) = v;
      else if (!setOption(item.opts, k, v) && !kIgnoredMeta.count(k) && badParameter.empty())
        badParameter = k;
    }
    if (!badParameter.empty())
      return st.fail(res, 400, "illegal_argument_exception",
                     "Action/metadata line [" + std::to_string(line) + "] contains an unknown parameter [" +
                         badParameter + "]");
    if (!knownVersionType(item.opts.versionType))
      return st.fail(res, 400, "illegal_argument_exception", "No version type match [" + item.opts.versionType + "]");
    if (item.action == "update" && (item.opts.version != kAnyVersion || item.opts.versionType != "internal"))
      return st.fail(res, 400, "illegal_argument_exception", kUpdateVersioning);
    if (item.index.empty())
      item.index = defaultIndex;
    for (auto& e : validateWrite(item.action, item.opts, !item.id.empty()))
      invalid.push_back(std::move(e));
    if (item.action != "delete") {
      if (!nextLine(p, n) || !++line)
        return st.fail(res, 400, "illegal_argument_exception",
                       "The bulk request must be terminated by a newline [\\n]");
      item.parsed = std::make_unique<Document>();
      item.parsed->Parse(p, n);
      item.doc = item.parsed.get();
      if (item.parsed->HasParseError() || !item.parsed->IsObject())
        item.parseError = "failed to parse";
      else if (item.action == "update" && !(item.doc = updateDoc(*item.parsed, item.upsert)))
        item.parseError = "[update] requires [doc]";
      else
        item.source = item.action == "update" ? toJson(*item.doc) : std::string(p, n);
    }
    if (item.index.empty())
      invalid.push_back("index is missing");
    items.push_back(std::move(item));
  }
  if (items.empty())
    invalid.insert(invalid.begin(), "no requests added");
  // Elasticsearch validates every item before running any: one invalid item refuses the request.
  if (!invalid.empty())
    return st.invalid(res, invalid);

  StringBuffer sb;
  Writer w(sb);
  bool errors = false;
  std::vector<WriteResult> results(items.size());
  {
    std::lock_guard<std::mutex> lock(st.mu);
    ++st.stats.bulkRequests;
    st.stats.bulkItems += items.size();
    st.stats.lastBulkContentType = req.get_header_value("Content-Type");
    st.stats.lastBulkContentEncoding = req.get_header_value("Content-Encoding");
    st.stats.bulkBytes += req.has_header("Content-Length")
                              ? size_t(std::strtoull(req.get_header_value("Content-Length").c_str(), nullptr, 10))
                              : text.size();
    st.stats.lastBulkQuery = httplib::detail::params_to_query_str(req.params);
    for (size_t i = 0; i < items.size(); ++i) {
      Item& item = items[i];
      WriteResult& r = results[i];
      int status = 400;
      std::string err;
      Index* ix = nullptr;
      std::vector<Index*> none;
      if (st.faults.rejectItems > 0 && st.faults.rejectItems--)
        r = WriteResult::error(429, "es_rejected_execution_exception",
                               "rejected execution of coordinating operation [coordinating_and_primary_bytes=0, "
                               "replica_bytes=0, all_bytes=0, coordinating_operation_bytes=1024, "
                               "max_coordinating_and_primary_bytes=0]");
      else if (!item.parseError.empty())
        r = WriteResult::error(400, "mapper_parsing_exception", item.parseError);
      else if (item.action == "delete" && item.opts.versionType == "internal" && !st.resolve(item.index, none, err))
        r = WriteResult::error(404, "index_not_found_exception", "no such index [" + item.index + "]"); // not created
      else if (!(ix = st.writeIndex(item.index, writeOp(item.action, item.id), status, err)))
        r = WriteResult::error(status, status == 404 ? "index_not_found_exception" : "illegal_argument_exception", err);
      if (!ix)
        continue;
      item.index = ix->name;
      if (item.id.empty())
        item.id = randomId(20, ++st.counter).substr(0, 20);
      r = st.write(*ix, item.action, item.id, item.source, item.doc, item.opts, item.upsert);
    }
  }
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0);
  for (const auto& r : results)
    errors = errors || !r.errorType.empty();
  w.StartObject();
  putInt(w, "took", took.count());
  putBool(w, "errors", errors);
  w.Key("items");
  w.StartArray();
  for (size_t i = 0; i < items.size(); ++i) {
    w.StartObject();
    writeString(w, items[i].action);
    w.StartObject();
    writeWriteResult(w, items[i].index, items[i].id, results[i], true);
    w.EndObject();
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  st.reply(res, 200, std::string(sb.GetString(), sb.GetSize()));
}

void writeDocument(State& st, const Req& req, Res& res, const std::string& indexName, std::string id,
                   const std::string& action) {
  const WriteOptions o = optionsOf(req);
  if (!knownVersionType(o.versionType))
    return st.fail(res, 400, "illegal_argument_exception", "No version type match [" + o.versionType + "]");
  std::string op = action;
  if (op == "index" && req.get_param_value("op_type") == "create")
    op = "create";
  std::vector<std::string> invalid =
      op == "update" && (req.has_param("version") || req.has_param("version_type"))
          ? std::vector<std::string>{"internal versioning can not be used for optimistic concurrency control. Please "
                                     "use `if_seq_no` and `if_primary_term` instead"}
          : validateWrite(op, o, !id.empty());
  if (!invalid.empty())
    return st.invalid(res, invalid);
  Document parsed;
  if (!parseBody(req, parsed))
    return st.fail(res, 400, "mapper_parsing_exception", "failed to parse");
  bool upsert = false;
  const Value* source = op == "update" ? updateDoc(parsed, upsert) : &parsed;
  if (!source)
    return st.invalid(res, {"script or doc is missing"});
  const std::string docText = op == "update" ? toJson(*source) : req.body;
  std::unique_lock<std::mutex> lock(st.mu);
  int status = 400;
  std::string err;
  Index* ix = st.writeIndex(indexName, writeOp(op, id), status, err);
  if (!ix)
    return st.fail(res, status, status == 404 ? "index_not_found_exception" : "illegal_argument_exception", err);
  if (id.empty())
    id = randomId(20, ++st.counter).substr(0, 20);
  const WriteResult r = st.write(*ix, op, id, docText, source, o, upsert);
  const std::string name = ix->name;
  lock.unlock();
  answerWrite(st, res, name, id, r);
}

void deleteDocument(State& st, const Req& req, Res& res, const std::string& indexName, const std::string& id) {
  const WriteOptions o = optionsOf(req);
  std::unique_lock<std::mutex> lock(st.mu);
  std::vector<Index*> found;
  std::string err;
  if (!st.resolve(indexName, found, err) || found.size() != 1)
    return st.reply(res, 404, err.empty() ? errorBody(404, "index_not_found_exception", indexName) : err);
  const WriteResult r = st.write(*found[0], "delete", id, "", nullptr, o, false);
  const std::string name = found[0]->name;
  lock.unlock();
  answerWrite(st, res, name, id, r);
}

void getDocument(State& st, const Req&, Res& res, const std::string& indexName, const std::string& id) {
  std::unique_lock<std::mutex> lock(st.mu);
  std::vector<Index*> found;
  std::string err;
  if (!st.resolve(indexName, found, err))
    return st.reply(res, 404, err);
  StringBuffer sb;
  Writer w(sb);
  w.StartObject();
  const Doc* d = found.size() == 1 ? st.current(*found[0], id) : nullptr;
  if (d) {
    writeFoundDoc(w, found[0]->name, *d);
  } else {
    writeMissingDoc(w, found.empty() ? indexName : found[0]->name, id);
  }
  w.EndObject();
  lock.unlock();
  st.reply(res, d ? 200 : 404, sb.GetString());
}

void mget(State& st, const Req& req, Res& res, const std::string& defaultIndex) {
  Document body;
  if (!parseBody(req, body))
    return st.fail(res, 400, "parsing_exception", "request body is required");
  std::vector<std::pair<std::string, std::string>> wanted;
  if (body.HasMember("ids") && body["ids"].IsArray()) {
    if (defaultIndex.empty())
      return st.invalid(res, {"index is missing for doc 0"});
    for (const auto& v : body["ids"].GetArray())
      wanted.emplace_back(defaultIndex, v.IsString() ? v.GetString() : toJson(v));
  } else if (body.HasMember("docs") && body["docs"].IsArray()) {
    for (const auto& v : body["docs"].GetArray()) {
      if (!v.IsObject() || !v.HasMember("_id"))
        return st.invalid(res, {"id is missing"});
      const std::string index =
          v.HasMember("_index") && v["_index"].IsString() ? v["_index"].GetString() : defaultIndex;
      wanted.emplace_back(index, v["_id"].IsString() ? v["_id"].GetString() : toJson(v["_id"]));
    }
  } else {
    return st.invalid(res, {"no documents to get"});
  }
  StringBuffer sb;
  Writer w(sb);
  {
    std::lock_guard<std::mutex> lock(st.mu);
    ++st.stats.mgetRequests;
    if (st.faults.mgetDropLast && !wanted.empty()) {
      wanted.pop_back();
      st.faults.mgetDropLast = false;
    }
    w.StartObject();
    w.Key("docs");
    w.StartArray();
    for (const auto& [index, id] : wanted) {
      w.StartObject();
      std::vector<Index*> found;
      std::string err;
      if (!st.resolve(index, found, err) || found.size() != 1) {
        // as an item error, without root causes
        writeWriteResult(w, index, id,
                         WriteResult::error(404, "index_not_found_exception", "no such index [" + index + "]"), false);
      } else if (const Doc* d = st.current(*found[0], id)) {
        writeFoundDoc(w, found[0]->name, *d);
      } else {
        writeMissingDoc(w, found[0]->name, id);
      }
      w.EndObject();
    }
    w.EndArray();
    w.EndObject();
  }
  st.reply(res, 200, std::string(sb.GetString(), sb.GetSize()));
}

} // namespace

bool serveDocuments(State& st, const Req& req, Res& res, const Path& s) {
  const std::string& m = req.method;
  const bool get = m == "GET" || m == "HEAD";
  const std::string& first = s[0];
  if (first == "_bulk" || (s.size() == 2 && s[1] == "_bulk")) {
    m == "POST" || m == "PUT" ? bulk(st, req, res, s.size() == 2 ? first : "") : st.badMethod(req, res);
    return true;
  }
  if (first == "_mget" || (s.size() == 2 && s[1] == "_mget")) {
    mget(st, req, res, s.size() == 2 ? first : "");
    return true;
  }
  if (first[0] == '_' || s.size() < 2)
    return false;
  const std::string& op = s[1];
  const std::string id = s.size() > 2 ? s[2] : "";
  if (op == "_doc") {
    if (s.size() == 2)
      m == "POST" ? writeDocument(st, req, res, first, "", "index") : st.badMethod(req, res);
    else if (m == "PUT" || m == "POST")
      writeDocument(st, req, res, first, id, "index");
    else if (m == "DELETE")
      deleteDocument(st, req, res, first, id);
    else
      getDocument(st, req, res, first, id);
  } else if (op == "_create" && s.size() == 3) {
    m == "PUT" || m == "POST" ? writeDocument(st, req, res, first, id, "create") : st.badMethod(req, res);
  } else if (op == "_update" && s.size() == 3) {
    m == "POST" ? writeDocument(st, req, res, first, id, "update") : st.badMethod(req, res);
  } else if (op == "_source" && s.size() == 3 && get) {
    std::lock_guard<std::mutex> lock(st.mu);
    auto it = st.indices.find(first);
    const Doc* d = it == st.indices.end() ? nullptr : st.current(it->second, id);
    d ? st.reply(res, 200, d->source) : st.fail(res, 404, "resource_not_found_exception", "Document not found");
  } else {
    return false;
  }
  return true;
}

} // namespace qztest::emu
