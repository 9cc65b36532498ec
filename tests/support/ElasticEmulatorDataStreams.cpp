#include "support/ElasticEmulatorState.h"

#include <ctime>

namespace qztest {

namespace emu {

namespace {

bool matches(const std::string& pattern, const std::string& name) {
  const size_t star = pattern.find('*');
  if (star == std::string::npos)
    return pattern == name;
  const std::string head = pattern.substr(0, star), tail = pattern.substr(star + 1);
  return name.size() >= head.size() + tail.size() && name.compare(0, head.size(), head) == 0 &&
         name.compare(name.size() - tail.size(), tail.size(), tail) == 0;
}

// PUT /_index_template/NAME: index_patterns, priority, data_stream and template.mappings.
void putTemplate(State& st, const Req& req, Res& res, const std::string& name) {
  Document body;
  if (!parseBody(req, body))
    return st.fail(res, 400, "parse_exception", "request body is required");
  IndexTemplate t;
  t.body = req.body;
  const Value* patterns = fieldOf(body, "index_patterns");
  if (patterns && patterns->IsString())
    t.patterns.push_back(patterns->GetString());
  else if (patterns && patterns->IsArray())
    for (const auto& p : patterns->GetArray())
      if (p.IsString())
        t.patterns.push_back(p.GetString());
  if (t.patterns.empty())
    return st.invalid(res, {"index patterns are missing"});
  if (const Value* p = fieldOf(body, "priority"); p && p->IsInt64())
    t.priority = p->GetInt64();
  t.dataStream = body.HasMember("data_stream") && body["data_stream"].IsObject();
  std::lock_guard<std::mutex> lock(st.mu);
  st.templates[name] = std::move(t);
  st.reply(res, 200, "{\"acknowledged\":true}");
}

void getTemplates(State& st, Res& res, const std::string& name) {
  std::lock_guard<std::mutex> lock(st.mu);
  std::string out;
  for (const auto& [n, t] : st.templates)
    if (name.empty() || matches(name, n))
      out += (out.empty() ? "" : ",") + std::string("{\"name\":") + quote(n) + ",\"index_template\":" + t.body + "}";
  if (out.empty() && !name.empty())
    return st.fail(res, 404, "resource_not_found_exception", "index template matching [" + name + "] not found");
  st.reply(res, 200, "{\"index_templates\":[" + out + "]}");
}

void writeStream(Writer& w, const State& st, const std::string& name, const DataStream& ds) {
  w.StartObject();
  put(w, "name", name);
  w.Key("timestamp_field");
  w.StartObject();
  put(w, "name", "@timestamp");
  w.EndObject();
  w.Key("indices");
  w.StartArray();
  for (const auto& b : ds.backing) {
    w.StartObject();
    put(w, "index_name", b);
    put(w, "index_uuid", st.indices.at(b).uuid);
    w.EndObject();
  }
  w.EndArray();
  putInt(w, "generation", int64_t(ds.backing.size()));
  put(w, "status", "GREEN");
  put(w, "template", ds.templateName);
  putBool(w, "hidden", false);
  putBool(w, "system", false);
  putBool(w, "allow_custom_routing", false);
  putBool(w, "replicated", false);
  w.EndObject();
}

// /_data_stream[/NAME]: PUT creates, GET describes (NAME may hold a `*`), DELETE drops the
// stream with its backing indices.
void dataStream(State& st, const Req& req, Res& res, const std::string& name) {
  std::lock_guard<std::mutex> lock(st.mu);
  auto it = st.dataStreams.find(name);
  if (req.method == "PUT") {
    if (it != st.dataStreams.end())
      return st.fail(res, 400, "resource_already_exists_exception", "data_stream [" + name + "] already exists");
    if (st.indices.count(name))
      return st.fail(res, 400, "resource_already_exists_exception", "index [" + name + "] already exists");
    if (st.dataStreamTemplate(name).empty())
      return st.fail(res, 400, "illegal_argument_exception",
                     "no matching index template found for data stream [" + name + "]");
    st.createDataStream(name);
    return st.reply(res, 200, "{\"acknowledged\":true}");
  }
  const bool wildcard = name.empty() || name.find('*') != std::string::npos;
  if (!wildcard && it == st.dataStreams.end())
    return st.fail(res, 404, "index_not_found_exception", "no such index [" + name + "]", name);
  if (req.method == "DELETE") {
    for (auto i = st.dataStreams.begin(); i != st.dataStreams.end();) {
      if (!matches(name, i->first)) {
        ++i;
        continue;
      }
      for (const auto& b : i->second.backing)
        st.indices.erase(b);
      i = st.dataStreams.erase(i);
    }
    return st.reply(res, 200, "{\"acknowledged\":true}");
  }
  if (req.method != "GET" && req.method != "HEAD")
    return st.badMethod(req, res);
  StringBuffer sb;
  Writer w(sb);
  w.StartObject();
  w.Key("data_streams");
  w.StartArray();
  for (const auto& [n, ds] : st.dataStreams)
    if (name.empty() || matches(name, n))
      writeStream(w, st, n, ds);
  w.EndArray();
  w.EndObject();
  st.reply(res, 200, sb.GetString());
}

} // namespace

bool serveDataStreams(State& st, const Req& req, Res& res, const Path& s) {
  const std::string name = s.size() > 1 ? s[1] : "";
  if (s[0] == "_data_stream" && s.size() <= 2) {
    dataStream(st, req, res, name);
  } else if (s[0] == "_index_template" && s.size() <= 2) {
    if (req.method == "GET" || req.method == "HEAD")
      return getTemplates(st, res, name), true;
    if (name.empty())
      return st.badMethod(req, res), true;
    if (req.method == "PUT" || req.method == "POST")
      return putTemplate(st, req, res, name), true;
    if (req.method != "DELETE")
      return st.badMethod(req, res), true;
    std::lock_guard<std::mutex> lock(st.mu);
    st.templates.erase(name)
        ? st.reply(res, 200, "{\"acknowledged\":true}")
        : st.fail(res, 404, "index_template_missing_exception", "index_template [" + name + "] missing");
  } else {
    return false;
  }
  return true;
}

} // namespace emu

std::string ElasticEmulator::State::dataStreamTemplate(const std::string& name) const {
  const std::pair<const std::string, emu::IndexTemplate>* best = nullptr;
  for (const auto& entry : templates)
    for (const auto& p : entry.second.patterns)
      if (emu::matches(p, name) && (!best || entry.second.priority > best->second.priority))
        best = &entry;
  return best && best->second.dataStream ? best->first : "";
}

emu::Index* ElasticEmulator::State::createDataStream(const std::string& name) {
  const std::string templateName = dataStreamTemplate(name);
  const std::time_t now = std::time(nullptr);
  std::tm day{};
  gmtime_r(&now, &day);
  char date[16];
  std::strftime(date, sizeof date, "%Y.%m.%d", &day);
  emu::Index& ix = createIndex(".ds-" + name + "-" + date + "-000001");
  ix.dataStream = name;
  emu::Document body;
  body.Parse(templates.at(templateName).body.c_str());
  const emu::Value* mappings = emu::fieldOf(body, "template.mappings");
  std::string err;
  if (mappings && mappings->IsObject())
    emu::applyMappings(ix, *mappings, err);
  dataStreams[name] = emu::DataStream{templateName, {ix.name}};
  return &ix;
}

} // namespace qztest
