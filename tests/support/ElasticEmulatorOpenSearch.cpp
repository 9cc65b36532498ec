// The emulator's OpenSearch mode: point in time at /_search/point_in_time (OpenSearch 2.4 on),
// with OpenSearch's answer layouts; before 2.4, and for Elasticsearch's /IDX/_pit, no route.
#include "ElasticEmulatorState.h"

#include <chrono>
#include <cstdio>

namespace qztest::emu {

namespace {

// "2.11.0" -> {2, 11}; what does not parse counts as 0.
std::pair<int, int> majorMinor(const std::string& version) {
  int major = 0, minor = 0;
  std::sscanf(version.c_str(), "%d.%d", &major, &minor);
  return {major, minor};
}

int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// POST /IDX/_search/point_in_time?keep_alive=
void createPit(State& st, const Req& req, Res& res, const std::string& expr) {
  if (!req.has_param("keep_alive"))
    return st.reply(
        res, 400,
        errorBody(400, "action_request_validation_exception", "Validation Failed: 1: keep alive not specified;"));
  std::unique_lock<std::mutex> lock(st.mu);
  std::vector<Index*> found;
  if (!st.resolveOrReply(expr, found, res))
    return;
  const std::string id = addPit(st, found);
  lock.unlock();
  st.reply(res, 200,
           "{\"pit_id\":\"" + id +
               "\",\"_shards\":{\"total\":1,\"successful\":1,\"skipped\":0,\"failed\":0},\"creation_time\":" +
               std::to_string(nowMs()) + "}");
}

// DELETE /_search/point_in_time with {"pit_id":[...]}, or DELETE /_search/point_in_time/_all.
void deletePits(State& st, const Req& req, Res& res, bool all) {
  std::vector<std::string> ids;
  if (!all) {
    Document body;
    body.Parse(req.body.data(), req.body.size());
    const bool listed =
        !body.HasParseError() && body.IsObject() && body.HasMember("pit_id") && body["pit_id"].IsArray();
    if (!listed)
      return st.reply(
          res, 400,
          errorBody(400, "action_request_validation_exception", "Validation Failed: 1: no pit ids specified;"));
    for (const auto& v : body["pit_id"].GetArray())
      if (v.IsString())
        ids.emplace_back(v.GetString());
  }
  StringBuffer out;
  Writer w(out);
  w.StartObject();
  w.Key("pits");
  w.StartArray();
  {
    std::lock_guard<std::mutex> lock(st.mu);
    if (all)
      for (const auto& [id, pit] : st.pits)
        ids.push_back(id);
    for (const auto& id : ids) {
      w.StartObject();
      w.Key("successful");
      w.Bool(st.pits.erase(id) == 1);
      w.Key("pit_id");
      w.String(id.c_str());
      w.EndObject();
    }
  }
  w.EndArray();
  w.EndObject();
  st.reply(res, 200, out.GetString());
}

// GET /_search/point_in_time/_all
void listPits(State& st, Res& res) {
  StringBuffer out;
  Writer w(out);
  w.StartObject();
  w.Key("pits");
  w.StartArray();
  {
    std::lock_guard<std::mutex> lock(st.mu);
    for (const auto& [id, pit] : st.pits) {
      w.StartObject();
      w.Key("pit_id");
      w.String(id.c_str());
      w.Key("keep_alive");
      w.Int64(60000);
      w.EndObject();
    }
  }
  w.EndArray();
  w.EndObject();
  st.reply(res, 200, out.GetString());
}

} // namespace

std::string noHandler(const Req& req) {
  return "{\"error\":\"no handler found for uri [" + req.target + "] and method [" + req.method + "]\"}";
}

bool serveOpenSearch(State& st, const Req& req, Res& res, const Path& s) {
  std::string version;
  {
    std::lock_guard<std::mutex> lock(st.mu);
    version = st.openSearchVersion;
  }
  if (version.empty())
    return false;
  // [IDX/]_search/point_in_time[/_all]
  const size_t at = s.size() >= 2 && s[0] == "_search" ? 0 : s.size() >= 3 && s[1] == "_search" ? 1 : s.size();
  if (at == s.size() || s[at + 1] != "point_in_time")
    return false;
  const auto [major, minor] = majorMinor(version);
  if (major < 2 || (major == 2 && minor < 4)) {
    st.reply(res, 400, noHandler(req));
    return true;
  }
  const bool all = s.size() == at + 3 && s[at + 2] == "_all";
  if (at == 1 && s.size() == 3 && req.method == "POST")
    createPit(st, req, res, s[0]);
  else if (at == 0 && req.method == "DELETE" && (s.size() == 2 || all))
    deletePits(st, req, res, all);
  else if (at == 0 && req.method == "GET" && all)
    listPits(st, res);
  else
    st.badMethod(req, res);
  return true;
}

} // namespace qztest::emu
