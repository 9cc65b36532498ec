#include "support/ElasticEmulatorState.h"

namespace qztest::emu {

namespace {

void collectFieldTypes(const Value& properties, const std::string& prefix, std::map<std::string, std::string>& out) {
  if (!properties.IsObject())
    return;
  for (const auto& m : properties.GetObject()) {
    const std::string name = prefix + m.name.GetString();
    if (!m.value.IsObject())
      continue;
    if (m.value.HasMember("type") && m.value["type"].IsString())
      out[name] = m.value["type"].GetString();
    if (m.value.HasMember("properties"))
      collectFieldTypes(m.value["properties"], name + ".", out);
  }
}

void writeIndexInfo(Writer& w, const Index& ix, bool aliases, bool mappings, bool settings) {
  w.Key(ix.name.c_str());
  w.StartObject();
  if (aliases) {
    w.Key("aliases");
    w.StartObject();
    for (const auto& a : ix.aliases) {
      writeString(w, a);
      w.StartObject();
      w.EndObject();
    }
    w.EndObject();
  }
  if (mappings) {
    w.Key("mappings");
    w.RawValue(ix.mappings.data(), ix.mappings.size(), rapidjson::kObjectType);
  }
  if (settings) {
    const std::string text =
        R"({"index":{"number_of_shards":"1","number_of_replicas":"1","provided_name":)" + quote(ix.name) + "}}";
    w.Key("settings");
    w.RawValue(text.data(), text.size(), rapidjson::kObjectType);
  }
  w.EndObject();
}

void putIndex(State& st, const Req& req, Res& res, const std::string& name) {
  Document body;
  if (!parseBody(req, body, true))
    return st.fail(res, 400, "parsing_exception", "request body must be a JSON object");
  std::unique_lock<std::mutex> lock(st.mu);
  if (st.indices.count(name))
    return st.fail(res, 400, "resource_already_exists_exception", "index [" + name + "/emulated] already exists", name);
  if (name.empty() || name[0] == '_' || name != lower(name))
    return st.fail(res, 400, "invalid_index_name_exception", "Invalid index name [" + name + "], must be lowercase",
                   name);
  Index& ix = st.createIndex(name);
  std::string err;
  if (body.HasMember("mappings") && !applyMappings(ix, body["mappings"], err)) {
    st.indices.erase(name);
    return st.fail(res, 400, "mapper_parsing_exception", err, name);
  }
  if (body.HasMember("aliases") && body["aliases"].IsObject())
    for (const auto& a : body["aliases"].GetObject())
      ix.aliases.insert(a.name.GetString());
  lock.unlock();
  st.reply(res, 200, "{\"acknowledged\":true,\"shards_acknowledged\":true,\"index\":\"" + name + "\"}");
}

void aliasActions(State& st, const Req& req, Res& res) {
  Document body;
  if (!parseBody(req, body) || !body.HasMember("actions") || !body["actions"].IsArray())
    return st.invalid(res, {"Must specify at least one alias action"});
  struct Action {
    std::string kind, index, alias;
  };
  std::vector<Action> actions;
  auto names = [](const Value& o, const char* one, const char* many) {
    std::vector<std::string> out;
    if (o.HasMember(one) && o[one].IsString())
      out.push_back(o[one].GetString());
    if (o.HasMember(many) && o[many].IsArray())
      for (const auto& v : o[many].GetArray())
        if (v.IsString())
          out.push_back(v.GetString());
    return out;
  };
  for (const auto& a : body["actions"].GetArray()) {
    if (!a.IsObject() || a.MemberCount() != 1 || !a.MemberBegin()->value.IsObject())
      return st.fail(res, 400, "parsing_exception", "malformed alias action");
    const std::string kind = a.MemberBegin()->name.GetString();
    const Value& o = a.MemberBegin()->value;
    for (const auto& index : names(o, "index", "indices")) {
      if (kind == "remove_index") {
        actions.push_back({kind, index, ""});
        continue;
      }
      for (const auto& alias : names(o, "alias", "aliases"))
        actions.push_back({kind, index, alias});
    }
  }
  std::unique_lock<std::mutex> lock(st.mu);
  // Checked first, applied after: the actions take effect together or not at all.
  for (const auto& a : actions) {
    if (!st.indices.count(a.index))
      return st.fail(res, 404, "index_not_found_exception", "no such index [" + a.index + "]", a.index);
    if (a.kind == "remove" && !st.indices[a.index].aliases.count(a.alias))
      return st.fail(res, 404, "aliases_not_found_exception", "aliases [" + a.alias + "] missing");
    if (a.kind != "add" && a.kind != "remove" && a.kind != "remove_index")
      return st.fail(res, 400, "parsing_exception", "unknown alias action " + a.kind);
  }
  for (const auto& a : actions) {
    if (a.kind == "add")
      st.indices[a.index].aliases.insert(a.alias);
    else if (a.kind == "remove")
      st.indices[a.index].aliases.erase(a.alias);
    else
      st.indices.erase(a.index);
  }
  lock.unlock();
  st.reply(res, 200, "{\"acknowledged\":true,\"errors\":false}");
}

void getAliases(State& st, Res& res, const std::string& expr, const std::string& alias, bool head) {
  std::unique_lock<std::mutex> lock(st.mu);
  std::vector<Index*> found;
  std::string err;
  if (!st.resolve(expr.empty() ? "_all" : expr, found, err))
    return st.reply(res, 404, err);
  StringBuffer sb;
  Writer w(sb);
  w.StartObject();
  bool any = false;
  for (Index* ix : found) {
    if (!alias.empty() && !ix->aliases.count(alias))
      continue;
    any = true;
    Index view;
    view.name = ix->name;
    if (alias.empty())
      view.aliases = ix->aliases;
    else
      view.aliases.insert(alias);
    writeIndexInfo(w, view, true, false, false);
  }
  w.EndObject();
  lock.unlock();
  if (!alias.empty() && !any)
    return st.reply(res, 404, head ? "" : "{\"error\":\"alias [" + alias + "] missing\",\"status\":404}");
  st.reply(res, 200, sb.GetString());
}

// PUT, DELETE, GET and HEAD of one index (or of the indices an expression names).
void indexItself(State& st, const Req& req, Res& res, const std::string& name) {
  const std::string& m = req.method;
  if (m == "PUT")
    return putIndex(st, req, res, name);
  std::lock_guard<std::mutex> lock(st.mu);
  std::vector<Index*> found;
  std::string err;
  if (!st.resolve(name, found, err))
    return st.reply(res, 404, m == "HEAD" ? "" : err);
  if (m == "DELETE") {
    for (Index* ix : found)
      if (!ix->dataStream.empty()) // only DELETE /_data_stream/NAME drops them
        return st.fail(res, 400, "illegal_argument_exception",
                       "index [" + ix->name + "] is the write index for data stream [" + ix->dataStream +
                           "] and cannot be deleted");
    for (Index* ix : found)
      st.indices.erase(std::string(ix->name));
    return st.reply(res, 200, "{\"acknowledged\":true}");
  }
  if (m != "GET" && m != "HEAD")
    return st.badMethod(req, res);
  StringBuffer sb;
  Writer w(sb);
  w.StartObject();
  for (Index* ix : found)
    writeIndexInfo(w, *ix, true, true, true);
  w.EndObject();
  st.reply(res, 200, sb.GetString());
}

void mapping(State& st, const Req& req, Res& res, const std::string& expr) {
  std::lock_guard<std::mutex> lock(st.mu);
  std::vector<Index*> found;
  if (!st.resolveOrReply(expr, found, res))
    return;
  if (req.method == "PUT" || req.method == "POST") {
    Document body;
    if (!parseBody(req, body))
      return st.fail(res, 400, "parsing_exception", "mappings must be an object");
    std::string err;
    for (Index* ix : found)
      if (!applyMappings(*ix, body, err))
        return st.fail(res, 400, "illegal_argument_exception", err, ix->name);
    return st.reply(res, 200, "{\"acknowledged\":true}");
  }
  StringBuffer sb;
  Writer w(sb);
  w.StartObject();
  for (Index* ix : found)
    writeIndexInfo(w, *ix, false, true, false);
  w.EndObject();
  st.reply(res, 200, sb.GetString());
}

// PUT and DELETE /IDX/_alias/NAME.
void putOrDeleteAlias(State& st, const Req& req, Res& res, const std::string& expr, const std::string& alias) {
  std::lock_guard<std::mutex> lock(st.mu);
  std::vector<Index*> found;
  if (!st.resolveOrReply(expr, found, res))
    return;
  const bool remove = req.method == "DELETE";
  for (Index* ix : found) {
    if (remove && !ix->aliases.count(alias))
      return st.fail(res, 404, "aliases_not_found_exception", "aliases [" + alias + "] missing");
    if (remove)
      ix->aliases.erase(alias);
    else
      ix->aliases.insert(alias);
  }
  st.reply(res, 200, "{\"acknowledged\":true}");
}

} // namespace

bool applyMappings(Index& ix, const Value& mappings, std::string& err) {
  Document merged;
  merged.Parse(ix.mappings.c_str());
  if (!mappings.IsObject()) {
    err = "mappings must be an object";
    return false;
  }
  auto& a = merged.GetAllocator();
  for (const auto& m : mappings.GetObject()) {
    const std::string name = m.name.GetString();
    if (name == "properties" && m.value.IsObject()) {
      if (!merged.HasMember("properties"))
        merged.AddMember("properties", Value(rapidjson::kObjectType), a);
      Value& props = merged["properties"];
      for (const auto& p : m.value.GetObject()) {
        auto existing = props.FindMember(p.name.GetString());
        if (existing != props.MemberEnd()) {
          const Value& oldType = existing->value.HasMember("type") ? existing->value["type"] : Value().Move();
          const bool sameType =
              p.value.IsObject() && p.value.HasMember("type") && oldType.IsString() && oldType == p.value["type"];
          if (!sameType && oldType.IsString()) {
            err = std::string("mapper [") + p.name.GetString() + "] cannot be changed from type [" +
                  oldType.GetString() + "]";
            return false;
          }
          props.RemoveMember(p.name.GetString());
        }
        props.AddMember(Value(p.name, a), Value(p.value, a), a);
      }
    } else {
      merged.RemoveMember(name.c_str());
      merged.AddMember(Value(m.name, a), Value(m.value, a), a);
    }
  }
  ix.mappings = toJson(merged);
  const Value* routing = fieldOf(merged, "_routing.required");
  ix.routingRequired = routing && routing->IsBool() && routing->GetBool();
  ix.fieldTypes.clear();
  if (merged.HasMember("properties"))
    collectFieldTypes(merged["properties"], "", ix.fieldTypes);
  return true;
}

bool serveIndices(State& st, const Req& req, Res& res, const Path& s) {
  const std::string& m = req.method;
  const bool get = m == "GET" || m == "HEAD";
  const std::string& first = s[0];
  const std::string third = s.size() > 2 ? s[2] : "";
  if (first == "_aliases")
    m == "POST" ? aliasActions(st, req, res) : st.badMethod(req, res);
  else if (first == "_alias")
    get ? getAliases(st, res, "", s.size() > 1 ? s[1] : "", m == "HEAD") : st.badMethod(req, res);
  else if (first == "_refresh")
    st.reply(res, 200, "{\"_shards\":{\"total\":1,\"successful\":1,\"failed\":0}}");
  else if (first[0] == '_')
    return false;
  else if (s.size() == 1)
    indexItself(st, req, res, first);
  else if (s[1] == "_refresh" || s[1] == "_flush") {
    std::lock_guard<std::mutex> lock(st.mu);
    std::vector<Index*> found;
    if (st.resolveOrReply(first, found, res))
      st.reply(res, 200, "{\"_shards\":{\"total\":1,\"successful\":1,\"failed\":0}}");
  } else if (s[1] == "_mapping")
    mapping(st, req, res, first);
  else if ((s[1] == "_alias" || s[1] == "_aliases") && get)
    getAliases(st, res, first, third, m == "HEAD");
  else if (s[1] == "_alias" || s[1] == "_aliases")
    third.empty() ? st.badMethod(req, res) : putOrDeleteAlias(st, req, res, first, third);
  else
    return false;
  return true;
}

} // namespace qztest::emu
