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

// DELETE /_search/point_in_time with {"pit_id":[...]}, or DELETE /_search/point_in_time/_all.
void deletePits(State& st, const Req& req, Res& res, bool all) {
  std::vector<std::string> ids;
  if (!all) {
    Document body;
    if (!parseBody(req, body) || !body.HasMember("pit_id") || !body["pit_id"].IsArray())
      return st.invalid(res, {"no pit ids specified"});
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
      putBool(w, "successful", st.pits.erase(id) == 1);
      put(w, "pit_id", id.c_str());
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
      put(w, "pit_id", id.c_str());
      putInt(w, "keep_alive", 60000);
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
    openPit(st, req, res, s[0]);
  else if (at == 0 && req.method == "DELETE" && (s.size() == 2 || all))
    deletePits(st, req, res, all);
  else if (at == 0 && req.method == "GET" && all)
    listPits(st, res);
  else
    st.badMethod(req, res);
  return true;
}

} // namespace qztest::emu
