#include "support/ElasticEmulatorQuery.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fnmatch.h>

namespace qztest::emu {

using Docs = std::vector<std::pair<std::string, DocPtr>>;

struct Pit {
  Docs docs;
  // The ordered hits per query, sort and slice; never changed once made, so read unlocked.
  std::map<std::string, std::vector<Entry>> sorted;
};

// _source: false, a pattern or a list of them, or {includes, excludes}; matched on dotted paths.
struct SourceFilter {
  bool none = false;
  std::vector<std::string> includes, excludes;

  explicit SourceFilter(const Value* v = nullptr) {
    auto names = [](const Value* list, std::vector<std::string>& out) {
      if (list && list->IsString())
        out.emplace_back(list->GetString());
      else if (list && list->IsArray())
        for (const auto& n : list->GetArray())
          if (n.IsString())
            out.emplace_back(n.GetString());
    };
    if (v && v->IsBool())
      none = !v->GetBool();
    else if (v && v->IsObject()) {
      names(v->HasMember("includes") ? &(*v)["includes"] : nullptr, includes);
      names(v->HasMember("excludes") ? &(*v)["excludes"] : nullptr, excludes);
    } else
      names(v, includes);
  }
  bool active() const { return none || !includes.empty() || !excludes.empty(); }

  static bool matches(const std::vector<std::string>& patterns, const std::string& path) {
    for (const auto& p : patterns)
      if (fnmatch(p.c_str(), path.c_str(), 0) == 0)
        return true;
    return false;
  }
  // Whether an include pattern may match below `path`.
  bool includesBelow(const std::string& path) const {
    for (const auto& p : includes)
      if (p.compare(0, path.size() + 1, path + ".") == 0 || p.find('*') != std::string::npos)
        return true;
    return false;
  }
  // Writes the kept members of `object`; `all` once an include matched an enclosing object.
  void write(Writer& w, const Value& object, const std::string& prefix, bool all) const {
    w.StartObject();
    for (const auto& m : object.GetObject()) {
      const std::string path = prefix + std::string(m.name.GetString(), m.name.GetStringLength());
      if (matches(excludes, path))
        continue;
      const bool kept = all || includes.empty() || matches(includes, path);
      if (m.value.IsObject() && (kept || includesBelow(path))) {
        w.Key(m.name.GetString(), m.name.GetStringLength());
        write(w, m.value, path + ".", kept);
      } else if (kept) {
        w.Key(m.name.GetString(), m.name.GetStringLength());
        m.value.Accept(w);
      }
    }
    w.EndObject();
  }
};

struct Scroll {
  SourceFilter source;
  std::vector<Entry> entries;
  std::vector<SortKey> keys;
  size_t position = 0;
  size_t size = 10;
};

namespace {

// "slice": {"id", "max"}; a document is in slice hash(_id) % max.
struct Slice {
  int64_t id = 0, max = 1;
  bool has(const std::string& docId) const {
    uint64_t h = 14695981039346656037ull; // FNV-1a
    for (unsigned char c : docId)
      h = (h ^ c) * 1099511628211ull;
    return max <= 1 || int64_t(h % uint64_t(max)) == id;
  }
  Docs of(const Docs& docs) const {
    if (max <= 1)
      return docs;
    Docs mine;
    for (const auto& d : docs)
      if (has(d.second->id))
        mine.push_back(d);
    return mine;
  }
};

Docs liveDocs(const std::vector<Index*>& found) {
  Docs docs;
  for (const Index* ix : found)
    for (const auto& d : ix->slots)
      if (d)
        docs.emplace_back(ix->name, d);
  return docs;
}

// Turns a whole answer into one that timed out with one of two shards failed, as Elasticsearch
// answers when a shard is lost during the search.
void partial(std::string& body) {
  static const std::string whole = std::string(R"("timed_out":false,)") + kOneShard;
  static const std::string broken =
      R"("timed_out":true,"_shards":{"total":2,"successful":1,"skipped":0,"failed":1,"failures":[{"shard":1,)"
      R"("index":"emulated","node":"emulator-2","reason":{"type":"node_disconnected_exception",)"
      R"x("reason":"[emulator-2] disconnected (injected fault)"}}]})x";
  const size_t at = body.find(whole);
  if (at != std::string::npos)
    body.replace(at, whole.size(), broken);
}

void answerSearch(State& st, Res& res, int status, std::string body) {
  size_t cut = 0;
  int stall = 0;
  bool fail = false;
  {
    std::lock_guard<std::mutex> lock(st.mu);
    if (status == 200 && st.faults.failSearchPages > 0) {
      --st.faults.failSearchPages;
      fail = true;
    }
    if (status == 200 && st.faults.cutSearchAfter) {
      cut = st.faults.cutSearchAfter;
      st.faults.cutSearchAfter = 0;
    }
    if (status == 200 && st.faults.partialSearchPages > 0) {
      --st.faults.partialSearchPages;
      partial(body);
    }
    if (status == 200 && st.faults.stallSearchMs) {
      stall = st.faults.stallSearchMs;
      st.faults.stallSearchMs = 0;
    }
  }
  if (fail)
    return st.fail(res, 500, "search_phase_execution_exception", "all shards failed (injected fault)");
  if (!cut && !stall)
    return st.reply(res, status, body);
  st.reply(res, status, "");
  auto text = std::make_shared<std::string>(std::move(body));
  res.set_chunked_content_provider(
      "application/json; charset=UTF-8", [text, cut, stall, &st](size_t, httplib::DataSink& sink) {
        const size_t first = cut ? std::min(cut, text->size()) : std::min<size_t>(text->size(), 64);
        sink.write(text->data(), first);
        if (cut)
          return false; // closes the connection mid-body
        for (int waited = 0; waited < stall && !st.stopping; waited += 10)
          std::this_thread::sleep_for(std::chrono::milliseconds(10));
        sink.write(text->data() + first, text->size() - first);
        sink.done();
        return true;
      });
}

void writeHits(Writer& w, const std::vector<Entry>& entries, size_t from, size_t size, bool sorted,
               const Value* trackTotal, size_t total, const SourceFilter& filter) {
  putBool(w, "timed_out", false);
  writeShards(w);
  w.Key("hits");
  w.StartObject();
  if (!(trackTotal && trackTotal->IsBool() && !trackTotal->GetBool())) {
    w.Key("total");
    w.StartObject();
    putInt(w, "value", total);
    put(w, "relation", "eq");
    w.EndObject();
  }
  w.Key("max_score");
  if (sorted || total == 0)
    w.Null();
  else
    w.Double(1.0);
  w.Key("hits");
  w.StartArray();
  for (size_t i = from; i < entries.size() && i < from + size; ++i) {
    const Entry& e = entries[i];
    w.StartObject();
    put(w, "_index", e.index);
    put(w, "_id", e.doc->id);
    w.Key("_score");
    if (sorted)
      w.Null();
    else
      w.Double(1.0);
    if (!e.doc->routing.empty()) {
      put(w, "_routing", e.doc->routing);
    }
    if (!filter.active()) {
      w.Key("_source");
      w.RawValue(e.doc->source.data(), e.doc->source.size(), rapidjson::kObjectType);
    } else if (!filter.none) {
      Document source;
      source.Parse(e.doc->source.data(), e.doc->source.size());
      w.Key("_source");
      filter.write(w, source, "", false);
    }
    if (sorted) {
      w.Key("sort");
      w.StartArray();
      for (const auto& v : e.sort)
        writeSortValue(w, v);
      w.EndArray();
    }
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
}

void search(State& st, const Req& req, Res& res, const std::string& expr) {
  Document body;
  if (!parseBody(req, body, true))
    return st.fail(res, 400, "parsing_exception", "request body is not a JSON object");
  auto member = [&](const char* name) -> const Value* {
    auto m = body.FindMember(name);
    return m == body.MemberEnd() ? nullptr : &m->value;
  };
  const int64_t size =
      member("size") && member("size")->IsInt64() ? member("size")->GetInt64() : numberParam(req, "size", 10);
  const int64_t from =
      member("from") && member("from")->IsInt64() ? member("from")->GetInt64() : numberParam(req, "from", 0);
  const Value* query = member("query");
  const Value* pitMember = member("pit");
  const Value* after = member("search_after");
  std::vector<SortKey> keys = parseSort(member("sort"));
  const bool scroll = req.has_param("scroll");
  Slice slice;
  if (const Value* v = member("slice")) {
    if (!v->IsObject() || !v->HasMember("id") || !v->HasMember("max") || !(*v)["id"].IsInt64() ||
        !(*v)["max"].IsInt64())
      return st.fail(res, 400, "x_content_parse_exception", "[slice] needs integers [id] and [max]");
    slice = Slice{(*v)["id"].GetInt64(), (*v)["max"].GetInt64()};
    const char* wrong = slice.id < 0            ? "id must be greater than or equal to 0"
                        : slice.max <= 1        ? "max must be greater than 1"
                        : slice.id >= slice.max ? "max must be greater than id"
                        : !pitMember && !scroll ? "[slice] can only be used with [scroll] or [point-in-time] requests"
                                                : nullptr;
    if (wrong)
      return st.fail(res, 400, "illegal_argument_exception", wrong);
  }

  std::unique_lock<std::mutex> lock(st.mu);
  if (st.faults.ignoreSearchAfter)
    after = nullptr;
  ++st.stats.searchRequests;
  std::vector<Entry> own;
  const std::vector<Entry>* view = &own;
  std::shared_ptr<Pit> pitHold;
  std::string pitId;
  try {
    if (pitMember) {
      if (!expr.empty())
        return st.invalid(
            res, {"[indices] cannot be used with point in time. Do not specify any index with point in time."});
      if (scroll)
        return st.invalid(res, {"using [point in time] is not allowed in a scroll context"});
      pitId = pitMember->IsObject() && pitMember->HasMember("id") && (*pitMember)["id"].IsString()
                  ? (*pitMember)["id"].GetString()
                  : "";
      auto it = st.pits.find(pitId);
      if (it == st.pits.end())
        return st.fail(res, 404, "search_context_missing_exception", "No search context found for id [" + pitId + "]");
      bool hasTiebreak = false;
      for (const auto& k : keys)
        hasTiebreak = hasTiebreak || k.field == "_shard_doc";
      if (!hasTiebreak)
        keys.push_back(SortKey{"_shard_doc", false});
      pitHold = it->second;
      Pit& pit = *pitHold;
      // Pages of one pit repeat the query, sort and slice: the ordered hits are kept with the pit.
      const std::string cacheKey = (query ? toJson(*query) : "") + "|" +
                                   (member("sort") ? toJson(*member("sort")) : std::string()) + "|" +
                                   std::to_string(slice.id) + "/" + std::to_string(slice.max);
      auto [cached, made] = pit.sorted.try_emplace(cacheKey);
      if (made)
        runQuery(cached->second, slice.of(pit.docs), query, keys);
      view = &cached->second;
    } else {
      std::vector<Index*> found;
      if (!st.resolveOrReply(expr, found, res))
        return;
      runQuery(own, slice.of(liveDocs(found)), query, keys);
    }
  } catch (const QueryError& e) {
    return st.fail(res, 400, "parsing_exception", e.reason);
  }
  const std::vector<Entry>& entries = *view;
  const size_t total = entries.size();
  size_t start = size_t(std::max<int64_t>(0, from));
  if (after && after->IsArray()) {
    if (after->Size() != keys.size())
      return st.fail(res, 400, "illegal_argument_exception",
                     "search_after has " + std::to_string(after->Size()) + " value(s) but sort has " +
                         std::to_string(keys.size()) + ".");
    Entry probe{{}, nullptr, 0, {}};
    for (const auto& v : after->GetArray())
      probe.sort.push_back(toSortValue(&v));
    start = size_t(std::upper_bound(entries.begin(), entries.end(), probe,
                                    [&](const Entry& a, const Entry& b) { return compareEntries(a, b, keys) < 0; }) -
                   entries.begin());
  }
  const bool sorted = !keys.empty();
  std::string scrollId;
  if (scroll) {
    auto sc = std::make_shared<Scroll>();
    sc->entries.assign(entries.begin() + long(std::min(start, entries.size())), entries.end());
    sc->keys = keys;
    sc->source = SourceFilter(member("_source"));
    sc->size = size_t(size);
    sc->position = size_t(size);
    scrollId = randomId(96, ++st.counter);
    st.scrolls[scrollId] = sc;
    ++st.stats.scrollsOpened;
  }
  lock.unlock(); // `entries` is the request's own or a pit's, which stays as it is
  StringBuffer sb;
  Writer w(sb);
  w.StartObject();
  if (scroll)
    put(w, "_scroll_id", scrollId);
  if (!pitId.empty()) {
    put(w, "pit_id", pitId);
  }
  putInt(w, "took", 1);
  writeHits(w, entries, start, size_t(std::max<int64_t>(0, size)), sorted, member("track_total_hits"), total,
            SourceFilter(member("_source")));
  w.EndObject();
  answerSearch(st, res, 200, std::string(sb.GetString(), sb.GetSize()));
}

void scrollNext(State& st, const Req& req, Res& res) {
  std::string id = req.has_param("scroll_id") ? req.get_param_value("scroll_id") : "";
  Document body;
  if (parseBody(req, body) && body.HasMember("scroll_id") && body["scroll_id"].IsString())
    id = body["scroll_id"].GetString();
  std::unique_lock<std::mutex> lock(st.mu);
  ++st.stats.searchRequests;
  auto it = st.scrolls.find(id);
  if (it == st.scrolls.end())
    return st.fail(res, 404, "search_context_missing_exception", "No search context found for id [" + id + "]");
  Scroll& sc = *it->second;
  StringBuffer sb;
  Writer w(sb);
  w.StartObject();
  put(w, "_scroll_id", id);
  putInt(w, "took", 1);
  writeHits(w, sc.entries, sc.position, sc.size, !sc.keys.empty(), nullptr, sc.entries.size(), sc.source);
  w.EndObject();
  sc.position += sc.size;
  lock.unlock();
  answerSearch(st, res, 200, std::string(sb.GetString(), sb.GetSize()));
}

void clearScroll(State& st, const Req& req, Res& res, bool all) {
  std::vector<std::string> ids;
  if (req.has_param("scroll_id"))
    ids.push_back(req.get_param_value("scroll_id"));
  Document body;
  if (parseBody(req, body) && body.HasMember("scroll_id")) {
    const Value& v = body["scroll_id"];
    if (v.IsString())
      ids.push_back(v.GetString());
    else if (v.IsArray())
      for (const auto& e : v.GetArray())
        if (e.IsString())
          ids.push_back(e.GetString());
  }
  size_t freed = 0;
  {
    std::lock_guard<std::mutex> lock(st.mu);
    if (all) {
      freed = st.scrolls.size();
      st.scrolls.clear();
    }
    for (const auto& id : ids)
      freed += st.scrolls.erase(id);
  }
  st.reply(res, freed || all ? 200 : 404, "{\"succeeded\":true,\"num_freed\":" + std::to_string(freed) + "}");
}

void closePit(State& st, const Req& req, Res& res) {
  Document body;
  if (!parseBody(req, body) || !body.HasMember("id") || !body["id"].IsString())
    return st.invalid(res, {"[id] is missing"});
  size_t freed;
  {
    std::lock_guard<std::mutex> lock(st.mu);
    freed = st.pits.erase(body["id"].GetString());
  }
  st.reply(res, freed ? 200 : 404, "{\"succeeded\":true,\"num_freed\":" + std::to_string(freed) + "}");
}

void count(State& st, const Req& req, Res& res, const std::string& expr) {
  Document body;
  const Value* query = parseBody(req, body) && body.HasMember("query") ? &body["query"] : nullptr;
  std::unique_lock<std::mutex> lock(st.mu);
  std::vector<Index*> found;
  if (!st.resolveOrReply(expr, found, res))
    return;
  size_t n = 0;
  try {
    for (Index* ix : found)
      for (const auto& d : ix->slots)
        if (d) {
          Matcher m(*d);
          n += !query || m.match(*query);
        }
  } catch (const QueryError& e) {
    return st.fail(res, 400, "parsing_exception", e.reason);
  }
  lock.unlock();
  st.reply(res, 200, "{\"count\":" + std::to_string(n) + "," + kOneShard + "}");
}

} // namespace

// The product may change between tests on a serving emulator: read it under the lock.
static bool openSearchMode(State& st) {
  std::lock_guard<std::mutex> lock(st.mu);
  return !st.openSearchVersion.empty();
}

void openPit(State& st, const Req& req, Res& res, const std::string& expr) {
  std::unique_lock<std::mutex> lock(st.mu);
  const bool os = !st.openSearchVersion.empty();
  if (st.faults.noPit && !os)
    return st.fail(res, 400, "illegal_argument_exception",
                   "request [/" + expr + "/_pit] contains unrecognized parameter: [keep_alive]");
  if (!req.has_param("keep_alive"))
    return st.invalid(res, {os ? "keep alive not specified" : "[keep_alive] is not specified"});
  std::vector<Index*> found;
  if (!st.resolveOrReply(expr, found, res))
    return;
  auto pit = std::make_shared<Pit>();
  pit->docs = liveDocs(found);
  const std::string id = randomId(160, ++st.counter);
  st.pits[id] = pit;
  ++st.stats.pitsOpened;
  lock.unlock();
  // OpenSearch names the id pit_id and adds the creation time.
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch());
  st.reply(res, 200,
           std::string(os ? "{\"pit_id\":\"" : "{\"id\":\"") + id + "\"," + kOneShard +
               (os ? ",\"creation_time\":" + std::to_string(ms.count()) : "") + "}");
}

bool serveSearch(State& st, const Req& req, Res& res, const Path& s) {
  const std::string& m = req.method;
  const bool get = m == "GET" || m == "HEAD";
  const std::string& first = s[0];
  const std::string op = first[0] == '_' ? first : s.size() > 1 ? s[1] : "";
  const std::string expr = first[0] == '_' ? "" : first;
  if (first == "_search" && s.size() > 1) {
    if (s[1] != "scroll")
      return false;
    if (m == "DELETE")
      clearScroll(st, req, res, s.size() > 2 && s[2] == "_all");
    else
      scrollNext(st, req, res);
  } else if (op == "_search" && s.size() > 2) {
    st.reply(res, 400, noHandler(req));
  } else if (op == "_search") {
    m == "POST" || get ? search(st, req, res, expr) : st.badMethod(req, res);
  } else if (op == "_pit") {
    if (expr.empty())
      m == "DELETE" ? closePit(st, req, res) : st.badMethod(req, res);
    else
      m != "POST"           ? st.badMethod(req, res)
      : !openSearchMode(st) ? openPit(st, req, res, expr)
                            : st.reply(res, 400, noHandler(req)); // OpenSearch has its own route
  } else if (op == "_count") {
    count(st, req, res, expr);
  } else {
    return false;
  }
  return true;
}

} // namespace qztest::emu
