#include "support/ElasticEmulator.h"

#include "support/ElasticEmulatorState.h"

#include <chrono>
#include <sys/resource.h>

namespace qztest {

namespace emu {

std::string toJson(const Value& v) {
  StringBuffer sb;
  Writer w(sb);
  v.Accept(w);
  return std::string(sb.GetString(), sb.GetSize());
}

void writeString(Writer& w, const std::string& s) { w.String(s.data(), SizeType(s.size())); }

std::string quote(const std::string& s) {
  StringBuffer sb;
  Writer w(sb);
  writeString(w, s);
  return sb.GetString();
}

std::string errorBody(int status, const std::string& type, const std::string& reason, const std::string& index) {
  // The error object repeats its own fields as its only root cause.
  const std::string fields =
      "\"type\":" + quote(type) + ",\"reason\":" + quote(reason) + (index.empty() ? "" : ",\"index\":" + quote(index));
  return "{\"error\":{\"root_cause\":[{" + fields + "}]," + fields + "},\"status\":" + std::to_string(status) + "}";
}

const Value* fieldOf(const Value& source, const std::string& path) {
  const Value* v = &source;
  size_t at = 0;
  while (v && v->IsObject()) {
    const size_t dot = path.find('.', at);
    const std::string name = path.substr(at, dot == std::string::npos ? std::string::npos : dot - at);
    auto m = v->FindMember(name.c_str());
    if (m == v->MemberEnd())
      return nullptr;
    v = &m->value;
    if (dot == std::string::npos)
      return v;
    at = dot + 1;
  }
  return nullptr;
}

std::string lower(std::string s) {
  for (char& c : s)
    c = char(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string randomId(size_t bytes, uint64_t counter) {
  static const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  static std::atomic<uint64_t> seed{0x9e3779b97f4a7c15ull};
  uint64_t x = seed.fetch_add(0x9e3779b97f4a7c15ull) ^ (counter * 0xbf58476d1ce4e5b9ull);
  std::string out;
  for (size_t i = 0; i < bytes; ++i) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    out += alphabet[x % 64];
  }
  return out + "==";
}

int64_t numberParam(const Req& req, const char* name, int64_t fallback) {
  if (!req.has_param(name))
    return fallback;
  try {
    return std::stoll(req.get_param_value(name));
  } catch (...) {
    return fallback;
  }
}

void writeShards(Writer& w, int total, int successful, bool skipped) {
  const std::string shards = "{\"total\":" + std::to_string(total) + ",\"successful\":" + std::to_string(successful) +
                             (skipped ? ",\"skipped\":0" : "") + ",\"failed\":0}";
  w.Key("_shards");
  w.RawValue(shards.data(), shards.size(), rapidjson::kObjectType);
}

namespace {

Path splitPath(const std::string& path) {
  Path out;
  size_t at = 0;
  while (at < path.size()) {
    const size_t slash = path.find('/', at);
    const size_t end = slash == std::string::npos ? path.size() : slash;
    if (end > at)
      out.push_back(path.substr(at, end - at));
    at = end + 1;
  }
  return out;
}

int64_t cpuMicros() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  return int64_t(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1000000 + ru.ru_utime.tv_usec + ru.ru_stime.tv_usec;
}

// GET /: Elasticsearch's, or in OpenSearch mode OpenSearch's with its distribution and version.
std::string clusterInfo(State& st) {
  std::string os;
  {
    std::lock_guard<std::mutex> lock(st.mu);
    os = st.openSearchVersion;
  }
  const bool es = os.empty();
  return std::string(
             R"({"name":"emulator","cluster_name":"httptools-emulator","cluster_uuid":"q3cQ3CqUSSmtK3bEBjdTjg",)") +
         (es ? R"("version":{"number":"8.11.0","build_flavor":"default","build_type":"tar",)"
               R"("build_hash":"d9ec3fa628c7b0ba3d25692e277ba26814820b20","build_date":"2023-11-04T10:04:57.184859352Z",)"
               R"("build_snapshot":false,"lucene_version":"9.8.0","minimum_wire_compatibility_version":"7.17.0",)"
             : R"("version":{"distribution":"opensearch","number":")" + os +
                   R"(","build_type":"tar","build_hash":"6adc0bf476e1624190564d7fbe4aba00ccf49ad8",)"
                   R"("build_date":"2023-10-13T02:55:55.511945994Z","build_snapshot":false,"lucene_version":"9.7.0",)"
                   R"("minimum_wire_compatibility_version":"7.10.0",)") +
         R"("minimum_index_compatibility_version":"7.0.0"},"tagline":")" +
         (es ? "You Know, for Search" : "The OpenSearch Project") + "\"}";
}

// PUT /_emulator/faults, GET /_emulator/stats, POST /_emulator/reset.
void control(State& st, const Req& req, Res& res, const std::string& what) {
  auto acknowledged = [&res](const std::string& body) {
    res.status = 200;
    res.set_header("X-Elastic-Product", "Elasticsearch");
    res.set_content(body, "application/json");
  };
  std::lock_guard<std::mutex> lock(st.mu);
  if (what == "faults" && (req.method == "PUT" || req.method == "POST")) {
    Document body;
    if (!parseBody(req, body))
      return st.fail(res, 400, "parsing_exception", "faults must be an object");
    ElasticEmulator::Faults f = st.faults;
    auto integer = [&](const char* name, auto& field) {
      if (body.HasMember(name) && body[name].IsInt64())
        field = decltype(field + 0)(body[name].GetInt64());
    };
    auto boolean = [&](const char* name, bool& field) {
      if (body.HasMember(name) && body[name].IsBool())
        field = body[name].GetBool();
    };
    integer("reject_items", f.rejectItems);
    integer("unavailable", f.unavailable);
    integer("fail_search_pages", f.failSearchPages);
    integer("cut_search_after", f.cutSearchAfter);
    integer("stall_search_ms", f.stallSearchMs);
    integer("partial_search_pages", f.partialSearchPages);
    integer("max_bulk_bytes", f.maxBulkBytes);
    if (body.HasMember("unavailable_path") && body["unavailable_path"].IsString())
      f.unavailablePath = body["unavailable_path"].GetString();
    if (body.HasMember("require_header") && body["require_header"].IsString())
      f.requireHeader = body["require_header"].GetString();
    boolean("no_pit", f.noPit);
    boolean("no_product_header", f.noProductHeader);
    boolean("no_auto_create", f.noAutoCreate);
    boolean("ignore_search_after", f.ignoreSearchAfter);
    boolean("mget_drop_last", f.mgetDropLast);
    st.setFaults(f);
    return acknowledged("{\"acknowledged\":true}");
  }
  if (what == "stats") {
    size_t docs = 0;
    for (const auto& [n, ix] : st.indices)
      docs += ix.live;
    return acknowledged("{\"open_pits\":" + std::to_string(st.pits.size()) + ",\"open_scrolls\":" +
                        std::to_string(st.scrolls.size()) + ",\"pits_opened\":" + std::to_string(st.stats.pitsOpened) +
                        ",\"scrolls_opened\":" + std::to_string(st.stats.scrollsOpened) +
                        ",\"requests\":" + std::to_string(st.stats.requests) +
                        ",\"bulk_requests\":" + std::to_string(st.stats.bulkRequests) + ",\"bulk_items\":" +
                        std::to_string(st.stats.bulkItems) + ",\"bulk_bytes\":" + std::to_string(st.stats.bulkBytes) +
                        ",\"docs\":" + std::to_string(docs) + ",\"cpu_us\":" + std::to_string(cpuMicros()) + "}");
  }
  if (what == "reset" && req.method == "POST") {
    st.clear();
    return acknowledged("{\"acknowledged\":true}");
  }
  st.fail(res, 404, "resource_not_found_exception", "unknown emulator control [" + what + "]");
}

// True (and answered) when an `unavailable` fault takes this request.
bool unavailable(State& st, const Req& req, Res& res) {
  std::lock_guard<std::mutex> lock(st.mu);
  ++st.stats.requests;
  ElasticEmulator::Faults& f = st.faults;
  if (f.unavailable <= 0 || (!f.unavailablePath.empty() && req.path.find(f.unavailablePath) == std::string::npos))
    return false;
  --f.unavailable;
  st.fail(res, 503, "unavailable_shards_exception",
          "[emulated][0] primary shard is not active Timeout: [1m] (injected fault)");
  return true;
}

// True (and answered 401) when the request lacks the header the emulator requires.
bool unauthorised(State& st, const Req& req, Res& res) {
  std::string required;
  {
    std::lock_guard<std::mutex> lock(st.mu);
    required = st.faults.requireHeader;
  }
  bool carried = true;
  for (size_t at = 0; at < required.size() && carried;) {
    const size_t end = std::min(required.find('\n', at), required.size());
    const std::string line = required.substr(at, end - at);
    at = end + 1;
    const size_t colon = line.find(':');
    if (colon == std::string::npos)
      continue;
    const std::string name = line.substr(0, colon);
    const size_t start = line.find_first_not_of(' ', colon + 1);
    const std::string value = start == std::string::npos ? "" : line.substr(start);
    carried = req.get_header_value_count(name) == 1 && req.get_header_value(name) == value;
  }
  if (carried)
    return false;
  res.set_header("WWW-Authenticate", "Basic realm=\"security\" charset=\"UTF-8\"");
  st.fail(res, 401, "security_exception", "missing authentication credentials for REST request [" + req.path + "]");
  return true;
}

void dispatch(State& st, const Req& req, Res& res) {
  const Path s = splitPath(req.path);
  const bool get = req.method == "GET" || req.method == "HEAD";
  if (!s.empty() && s[0] == "_emulator")
    return control(st, req, res, s.size() > 1 ? s[1] : "");
  if (unauthorised(st, req, res) || unavailable(st, req, res))
    return;
  if (s.empty())
    return get ? st.reply(res, 200, clusterInfo(st)) : st.badMethod(req, res);
  if (s[0] == "_cluster")
    return st.reply(res, 200,
                    "{\"cluster_name\":\"httptools-emulator\",\"status\":\"green\",\"timed_out\":false,\"number_of_"
                    "nodes\":1,\"number_of_data_nodes\":1}");
  if (serveOpenSearch(st, req, res, s) || serveDocuments(st, req, res, s) || serveSearch(st, req, res, s) ||
      serveDataStreams(st, req, res, s) || serveIndices(st, req, res, s))
    return;
  st.fail(res, 400, "illegal_argument_exception", "request [" + req.path + "] is not supported by the emulator");
}

} // namespace

} // namespace emu

using emu::Index;

void ElasticEmulator::State::badMethod(const emu::Req& req, emu::Res& res) const {
  fail(res, 405, "method_not_allowed",
       "Incorrect HTTP method for uri [" + req.path + "] and method [" + req.method + "]");
}

bool ElasticEmulator::State::resolve(const std::string& expr, std::vector<Index*>& out, std::string& err) {
  std::set<std::string> names;
  size_t at = 0;
  while (at <= expr.size()) {
    const size_t comma = expr.find(',', at);
    const std::string part = expr.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
    at = comma == std::string::npos ? expr.size() + 1 : comma + 1;
    if (part.empty())
      continue;
    if (part == "_all" || part.find('*') != std::string::npos) {
      const std::string prefix = part == "_all" ? "" : part.substr(0, part.find('*'));
      for (auto& [name, ix] : indices)
        if (name.compare(0, prefix.size(), prefix) == 0)
          names.insert(name);
      for (auto& [name, ds] : dataStreams)
        if (name.compare(0, prefix.size(), prefix) == 0)
          names.insert(ds.backing.begin(), ds.backing.end());
      continue;
    }
    if (auto ds = dataStreams.find(part); ds != dataStreams.end()) {
      names.insert(ds->second.backing.begin(), ds->second.backing.end());
      continue;
    }
    if (indices.count(part)) {
      names.insert(part);
      continue;
    }
    bool alias = false;
    for (auto& [name, ix] : indices)
      if (ix.aliases.count(part)) {
        names.insert(name);
        alias = true;
      }
    if (!alias) {
      err = emu::errorBody(404, "index_not_found_exception", "no such index [" + part + "]", part);
      return false;
    }
  }
  if (expr.empty())
    for (auto& [name, ix] : indices)
      names.insert(name);
  for (const auto& n : names)
    out.push_back(&indices[n]);
  return true;
}

bool ElasticEmulator::State::resolveOrReply(const std::string& expr, std::vector<Index*>& out, emu::Res& res) {
  std::string err;
  if (resolve(expr, out, err))
    return true;
  reply(res, 404, err);
  return false;
}

Index& ElasticEmulator::State::createIndex(const std::string& name) {
  Index& ix = indices[name];
  ix.name = name;
  ix.uuid = emu::randomId(20, ++counter).substr(0, 22);
  return ix;
}

Index* ElasticEmulator::State::writeIndex(const std::string& name, const std::string& op, int& status,
                                          std::string& err) {
  auto createOnly = [&] {
    status = 400;
    err = "only write ops with an op_type of create are allowed in data streams";
    return nullptr;
  };
  if (auto stream = dataStreams.find(name); stream != dataStreams.end())
    return op == "create" ? &indices[stream->second.backing.back()] : createOnly();
  auto it = indices.find(name);
  if (it != indices.end())
    return &it->second;
  Index* found = nullptr;
  int count = 0;
  for (auto& [n, ix] : indices)
    if (ix.aliases.count(name)) {
      found = &ix;
      ++count;
    }
  if (count > 1) {
    status = 400;
    err = "no write index is defined for alias [" + name +
          "]. The write index may be explicitly disabled using is_write_index=false or the alias points to multiple "
          "indices without one being designated as a write index";
    return nullptr;
  }
  if (found)
    return found;
  if (name.empty() || name[0] == '_' || name != emu::lower(name)) {
    status = 400;
    err = "Invalid index name [" + name + "], must be lowercase and must not start with '_'";
    return nullptr;
  }
  if (faults.noAutoCreate) {
    status = 404;
    err = "no such index [" + name + "] and [action.auto_create_index] is [false]";
    return nullptr;
  }
  if (!dataStreamTemplate(name).empty())
    return op == "create" ? createDataStream(name) : createOnly();
  return &createIndex(name);
}

ElasticEmulator::ElasticEmulator() : m_state(std::make_unique<State>()) {
  m_server.set_tcp_nodelay(true);
  m_server.set_keep_alive_max_count(1000000);
  m_server.set_keep_alive_timeout(30);
  m_server.set_read_timeout(30);
  m_server.set_write_timeout(30);
  m_server.new_task_queue = [] { return new httplib::ThreadPool(16); };
  install();
}

ElasticEmulator::~ElasticEmulator() { stop(); }

bool ElasticEmulator::start(int port) {
  m_state->stopping = false;
  if (!listenBlocking(port, nullptr))
    return false;
  m_thread = std::thread([this] { m_server.listen_after_bind(); });
  for (int i = 0; i < 500 && !m_server.is_running(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  return true;
}

bool ElasticEmulator::listenBlocking(int port, const std::function<void(int)>& onBound) {
  const int bound =
      port ? (m_server.bind_to_port("127.0.0.1", port) ? port : -1) : m_server.bind_to_any_port("127.0.0.1");
  if (bound <= 0) {
    m_error = "cannot bind 127.0.0.1";
    return false;
  }
  m_port = bound;
  if (!onBound) // start(): served by a thread of its own
    return true;
  onBound(bound);
  return m_server.listen_after_bind();
}

void ElasticEmulator::stop() {
  m_state->stopping = true;
  m_server.stop();
  if (m_thread.joinable())
    m_thread.join();
}

std::string ElasticEmulator::baseUrl() const { return "http://127.0.0.1:" + std::to_string(m_port); }

void ElasticEmulator::setFaults(const Faults& faults) {
  std::lock_guard<std::mutex> lock(m_state->mu);
  m_state->setFaults(faults);
}

ElasticEmulator::Faults ElasticEmulator::faults() const {
  std::lock_guard<std::mutex> lock(m_state->mu);
  return m_state->faults;
}

ElasticEmulator::Stats ElasticEmulator::stats() const {
  std::lock_guard<std::mutex> lock(m_state->mu);
  Stats s = m_state->stats;
  s.openPits = m_state->pits.size();
  s.openScrolls = m_state->scrolls.size();
  return s;
}

size_t ElasticEmulator::docCount(const std::string& index) const {
  std::lock_guard<std::mutex> lock(m_state->mu);
  auto it = m_state->indices.find(index);
  return it == m_state->indices.end() ? 0 : it->second.live;
}

void ElasticEmulator::setOpenSearch(const std::string& version) {
  std::lock_guard<std::mutex> lock(m_state->mu);
  m_state->openSearchVersion = version;
  m_state->setFaults(m_state->faults);
}

void ElasticEmulator::reset() {
  std::lock_guard<std::mutex> lock(m_state->mu);
  m_state->clear();
}

void ElasticEmulator::install() {
  auto handler = [st = m_state.get()](const emu::Req& req, emu::Res& res) { emu::dispatch(*st, req, res); };
  m_server.Get(".*", handler);
  m_server.Post(".*", handler);
  m_server.Put(".*", handler);
  m_server.Delete(".*", handler);
  m_server.Patch(".*", handler);
}

} // namespace qztest
