#include "support/ElasticEmulator.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <map>
#include <set>
#include <sys/resource.h>
#include <unordered_map>
#include <vector>

namespace qztest {

namespace {

using rapidjson::Document;
using rapidjson::SizeType;
using rapidjson::StringBuffer;
using rapidjson::Value;
using Writer = rapidjson::Writer<StringBuffer>;

struct Doc {
  std::string id;
  std::string source; // as the client sent it
  int64_t version = 1;
  int64_t seqNo = 0;
};
using DocPtr = std::shared_ptr<const Doc>;

struct Index {
  std::string name;
  std::vector<DocPtr> slots; // insertion order; a deleted document leaves an empty slot
  std::unordered_map<std::string, size_t> byId;
  int64_t nextSeqNo = 0;
  std::string mappings = "{}"; // the mappings object as JSON
  std::map<std::string, std::string> fieldTypes;
  std::set<std::string> aliases;
  size_t live = 0;
};

// One value of a hit's sort tuple.
struct SortValue {
  enum Kind { Null, Int, Dbl, Str } kind = Null;
  int64_t i = 0;
  double d = 0;
  std::string s;
  double num() const { return kind == Int ? double(i) : d; }
};

int compareValues(const SortValue& a, const SortValue& b) {
  if (a.kind == SortValue::Null || b.kind == SortValue::Null)
    return (a.kind == SortValue::Null) - (b.kind == SortValue::Null); // missing values sort last
  if (a.kind == SortValue::Str || b.kind == SortValue::Str) {
    if (a.kind != b.kind)
      return a.kind == SortValue::Str ? 1 : -1;
    return a.s.compare(b.s) < 0 ? -1 : (a.s == b.s ? 0 : 1);
  }
  if (a.kind == SortValue::Int && b.kind == SortValue::Int)
    return a.i < b.i ? -1 : (a.i > b.i ? 1 : 0);
  return a.num() < b.num() ? -1 : (a.num() > b.num() ? 1 : 0);
}

struct SortKey {
  std::string field; // _shard_doc, _doc, _id, _score or a source field
  bool desc = false;
};

struct Entry {
  std::string index;
  DocPtr doc;
  int64_t position;
  std::vector<SortValue> sort;
};

struct Pit {
  std::vector<std::pair<std::string, DocPtr>> docs;
  std::string cacheKey; // query and sort of the cached order
  std::vector<Entry> sorted;
};

struct Scroll {
  std::vector<Entry> entries;
  std::vector<SortKey> keys;
  size_t position = 0;
  size_t size = 10;
};

std::string toJson(const Value& v) {
  StringBuffer sb;
  Writer w(sb);
  v.Accept(w);
  return std::string(sb.GetString(), sb.GetSize());
}

void writeString(Writer& w, const std::string& s) { w.String(s.data(), SizeType(s.size())); }
void writeKey(Writer& w, const char* k) { w.Key(k); }

std::string errorBody(int status, const std::string& type, const std::string& reason, const std::string& index = "") {
  StringBuffer sb;
  Writer w(sb);
  // The error object repeats its own fields as its only root cause.
  auto fields = [&] {
    w.Key("type");
    writeString(w, type);
    w.Key("reason");
    writeString(w, reason);
    if (!index.empty()) {
      w.Key("index");
      writeString(w, index);
    }
  };
  w.StartObject();
  w.Key("error");
  w.StartObject();
  w.Key("root_cause");
  w.StartArray();
  w.StartObject();
  fields();
  w.EndObject();
  w.EndArray();
  fields();
  w.EndObject();
  w.Key("status");
  w.Int(status);
  w.EndObject();
  return sb.GetString();
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

SortValue toSortValue(const Value* v) {
  SortValue out;
  if (!v)
    return out;
  if (v->IsArray())
    return v->Empty() ? out : toSortValue(&(*v)[0]);
  if (v->IsInt64()) {
    out.kind = SortValue::Int;
    out.i = v->GetInt64();
  } else if (v->IsNumber()) {
    out.kind = SortValue::Dbl;
    out.d = v->GetDouble();
  } else if (v->IsString()) {
    out.kind = SortValue::Str;
    out.s.assign(v->GetString(), v->GetStringLength());
  } else if (v->IsBool()) {
    out.kind = SortValue::Int;
    out.i = v->GetBool() ? 1 : 0;
  }
  return out;
}

void writeSortValue(Writer& w, const SortValue& v) {
  switch (v.kind) {
  case SortValue::Null:
    w.Null();
    break;
  case SortValue::Int:
    w.Int64(v.i);
    break;
  case SortValue::Dbl:
    w.Double(v.d);
    break;
  case SortValue::Str:
    writeString(w, v.s);
    break;
  }
}

std::string lower(std::string s) {
  for (char& c : s)
    c = char(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::vector<std::string> tokens(const std::string& text) {
  std::vector<std::string> out;
  std::string cur;
  for (char c : text) {
    if (std::isalnum(static_cast<unsigned char>(c))) {
      cur += char(std::tolower(static_cast<unsigned char>(c)));
    } else if (!cur.empty()) {
      out.push_back(cur);
      cur.clear();
    }
  }
  if (!cur.empty())
    out.push_back(cur);
  return out;
}

bool scalarEquals(const Value& a, const Value& b) {
  if (a.IsNumber() && b.IsNumber())
    return a.GetDouble() == b.GetDouble();
  if (a.IsString() && b.IsString())
    return a == b;
  if (a.IsBool() && b.IsBool())
    return a.GetBool() == b.GetBool();
  if (a.IsNumber() && b.IsString()) // a keyword query on a numeric field
    return std::to_string(a.GetInt64()) == b.GetString();
  return false;
}

// True when the field (or one element of an array field) equals `v`.
bool fieldEquals(const Value* field, const Value& v) {
  if (!field)
    return false;
  if (field->IsArray()) {
    for (const auto& e : field->GetArray())
      if (scalarEquals(e, v))
        return true;
    return false;
  }
  return scalarEquals(*field, v);
}

struct QueryError {
  std::string reason;
};

// Evaluates a query on one document; `source` is parsed on first need.
class Matcher {
public:
  Matcher(const Doc& doc) : m_doc(doc) {}

  bool match(const Value& q) {
    if (!q.IsObject() || q.MemberCount() != 1)
      throw QueryError{"query malformed, must start with start_object"};
    const std::string kind = q.MemberBegin()->name.GetString();
    const Value& body = q.MemberBegin()->value;
    if (kind == "match_all")
      return true;
    if (kind == "match_none")
      return false;
    if (kind == "ids") {
      if (!body.HasMember("values") || !body["values"].IsArray())
        throw QueryError{"[ids] requires values"};
      for (const auto& v : body["values"].GetArray())
        if (v.IsString() && m_doc.id == v.GetString())
          return true;
      return false;
    }
    if (kind == "bool")
      return matchBool(body);
    if (kind == "exists") {
      if (!body.HasMember("field") || !body["field"].IsString())
        throw QueryError{"[exists] requires field"};
      const Value* f = field(body["field"].GetString());
      return f && !f->IsNull();
    }
    if (kind != "term" && kind != "terms" && kind != "match" && kind != "range")
      throw QueryError{"unknown query [" + kind + "]"};
    if (!body.IsObject() || body.MemberCount() != 1)
      throw QueryError{"[" + kind + "] query doesn't support multiple fields"};
    const std::string name = body.MemberBegin()->name.GetString();
    const Value& arg = body.MemberBegin()->value;
    if (kind == "term") {
      const Value& v = arg.IsObject() && arg.HasMember("value") ? arg["value"] : arg;
      if (name == "_id")
        return v.IsString() && m_doc.id == v.GetString();
      return fieldEquals(field(name), v);
    }
    if (kind == "terms") {
      if (!arg.IsArray())
        throw QueryError{"[terms] query requires an array of values"};
      for (const auto& v : arg.GetArray())
        if (name == "_id" ? (v.IsString() && m_doc.id == v.GetString()) : fieldEquals(field(name), v))
          return true;
      return false;
    }
    if (kind == "match") {
      const Value& v = arg.IsObject() && arg.HasMember("query") ? arg["query"] : arg;
      const Value* f = field(name);
      if (!f)
        return false;
      if (!v.IsString())
        return fieldEquals(f, v);
      const auto wanted = tokens(v.GetString());
      auto has = [&](const Value& e) {
        if (!e.IsString())
          return false;
        const auto got = tokens(e.GetString());
        for (const auto& t : wanted)
          if (std::find(got.begin(), got.end(), t) != got.end())
            return true;
        return false;
      };
      if (f->IsArray()) {
        for (const auto& e : f->GetArray())
          if (has(e))
            return true;
        return false;
      }
      return has(*f);
    }
    if (kind == "range") {
      const Value* f = field(name);
      if (!f || !arg.IsObject())
        return false;
      const SortValue have = toSortValue(f);
      if (have.kind == SortValue::Null)
        return false;
      for (const auto& m : arg.GetObject()) {
        const std::string op = m.name.GetString();
        const int c = compareValues(have, toSortValue(&m.value));
        if ((op == "gt" && c <= 0) || (op == "gte" && c < 0) || (op == "lt" && c >= 0) || (op == "lte" && c > 0))
          return false;
      }
      return true;
    }
    throw QueryError{"unknown query [" + kind + "]"};
  }

  const Value* field(const std::string& path) {
    if (!m_parsed) {
      m_source.Parse(m_doc.source.data(), m_doc.source.size());
      m_parsed = true;
    }
    if (m_source.HasParseError())
      return nullptr;
    return fieldOf(m_source, path);
  }

private:
  bool matchBool(const Value& body) {
    auto each = [&](const char* name, auto&& test) {
      if (!body.HasMember(name))
        return true;
      const Value& v = body[name];
      if (v.IsArray()) {
        for (const auto& q : v.GetArray())
          if (!test(q))
            return false;
        return true;
      }
      return test(v);
    };
    if (!each("must", [&](const Value& q) { return match(q); }))
      return false;
    if (!each("filter", [&](const Value& q) { return match(q); }))
      return false;
    if (!each("must_not", [&](const Value& q) { return !match(q); }))
      return false;
    if (body.HasMember("should")) {
      const Value& v = body["should"];
      const bool required = !body.HasMember("must") && !body.HasMember("filter");
      if (!required)
        return true;
      if (v.IsArray()) {
        if (v.Empty())
          return true;
        for (const auto& q : v.GetArray())
          if (match(q))
            return true;
        return false;
      }
      return match(v);
    }
    return true;
  }

  const Doc& m_doc;
  Document m_source;
  bool m_parsed = false;
};

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

std::vector<std::string> splitPath(const std::string& path) {
  std::vector<std::string> out;
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

bool numericType(const std::string& t) {
  return t == "long" || t == "integer" || t == "short" || t == "byte" || t == "double" || t == "float" ||
         t == "half_float" || t == "scaled_float" || t == "unsigned_long";
}

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

int64_t cpuMicros() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  return int64_t(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1000000 + ru.ru_utime.tv_usec + ru.ru_stime.tv_usec;
}

} // namespace

struct ElasticEmulator::State {
  mutable std::mutex mu; // guards everything below
  std::map<std::string, Index> indices;
  std::map<std::string, std::shared_ptr<Pit>> pits;
  std::map<std::string, std::shared_ptr<Scroll>> scrolls;
  Faults faults;
  Stats stats;
  uint64_t counter = 0;
  std::atomic<bool> stopping{false};

  // --- names -------------------------------------------------------------------------------

  // Indices named by an expression (comma list, aliases, `*` patterns, _all). False with a
  // 404 body when a concrete name is unknown.
  bool resolve(const std::string& expr, std::vector<Index*>& out, std::string& err) {
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
        err = errorBody(404, "index_not_found_exception", "no such index [" + part + "]", part);
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

  // The one index a write goes to; creates it when the name is neither an index nor an alias.
  Index* writeIndex(const std::string& name, int& status, std::string& err) {
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
            "]. The write index may be explicitly disabled using is_write_index=false or the alias points to "
            "multiple indices without one being designated as a write index";
      return nullptr;
    }
    if (found)
      return found;
    if (name.empty() || name[0] == '_' || name != lower(name)) {
      status = 400;
      err = "Invalid index name [" + name + "], must be lowercase and must not start with '_'";
      return nullptr;
    }
    Index& ix = indices[name];
    ix.name = name;
    return &ix;
  }

  // --- documents -----------------------------------------------------------------------------

  struct WriteOptions {
    int64_t ifSeqNo = -1, ifPrimaryTerm = -1;
    int64_t version = -1;
    std::string versionType;
  };
  struct WriteResult {
    int status = 200;
    std::string result;
    std::string errorType, errorReason;
    int64_t version = 0, seqNo = 0;
  };

  std::string mappingError(const Index& ix, const std::string& id, const Value& source) {
    for (const auto& [field, type] : ix.fieldTypes) {
      const Value* v = fieldOf(source, field);
      if (!v || v->IsNull())
        continue;
      auto fits = [&](const Value& e) {
        if (numericType(type)) {
          if (e.IsNumber())
            return true;
          if (e.IsString()) {
            char* end = nullptr;
            const std::string s = e.GetString();
            std::strtod(s.c_str(), &end);
            return !s.empty() && *end == 0;
          }
          return false;
        }
        if (type == "boolean")
          return e.IsBool() || (e.IsString() &&
                                (std::strcmp(e.GetString(), "true") == 0 || std::strcmp(e.GetString(), "false") == 0));
        return true;
      };
      bool ok = true;
      if (v->IsArray()) {
        for (const auto& e : v->GetArray())
          ok = ok && fits(e);
      } else {
        ok = fits(*v);
      }
      if (!ok) {
        std::string preview = v->IsString() ? v->GetString() : toJson(*v);
        return "failed to parse field [" + field + "] of type [" + type + "] in document with id '" + id +
               "'. Preview of field's value: '" + preview + "'";
      }
    }
    return {};
  }

  bool versionConflict(const Index&, const Doc* cur, const std::string& id, const WriteOptions& o, WriteResult& r) {
    if (o.ifSeqNo >= 0 || o.ifPrimaryTerm >= 0) {
      if (!cur || cur->seqNo != o.ifSeqNo || o.ifPrimaryTerm != 1) {
        r.status = 409;
        r.errorType = "version_conflict_engine_exception";
        r.errorReason = "[" + id + "]: version conflict, required seqNo [" + std::to_string(o.ifSeqNo) +
                        "], primary term [" + std::to_string(o.ifPrimaryTerm) + "]. " +
                        (cur ? "current document has seqNo [" + std::to_string(cur->seqNo) + "] and primary term [1]"
                             : std::string("but no document was found"));
        return true;
      }
    }
    if (o.versionType == "external" || o.versionType == "external_gte") {
      const bool gte = o.versionType == "external_gte";
      if (cur && (gte ? o.version < cur->version : o.version <= cur->version)) {
        r.status = 409;
        r.errorType = "version_conflict_engine_exception";
        r.errorReason = "[" + id + "]: version conflict, current version [" + std::to_string(cur->version) +
                        "] is higher" + (gte ? "" : " or equal to") + " than the one provided [" +
                        std::to_string(o.version) + "]";
        return true;
      }
    }
    return false;
  }

  const Doc* current(const Index& ix, const std::string& id) const {
    auto it = ix.byId.find(id);
    return it == ix.byId.end() ? nullptr : ix.slots[it->second].get();
  }

  // op: index, create, delete, update. `source` holds the parsed body (update: its "doc").
  WriteResult write(Index& ix, const std::string& op, const std::string& id, const std::string& text,
                    const Value* parsed, const WriteOptions& o, bool upsert) {
    WriteResult r;
    const Doc* cur = current(ix, id);
    if (op == "create" && cur) {
      r.status = 409;
      r.errorType = "version_conflict_engine_exception";
      r.errorReason = "[" + id + "]: version conflict, document already exists (current version [" +
                      std::to_string(cur->version) + "])";
      return r;
    }
    if (versionConflict(ix, cur, id, o, r))
      return r;
    if (op == "delete") {
      if (!cur) {
        r.status = 404;
        r.result = "not_found";
        r.version = 1;
        r.seqNo = ix.nextSeqNo++;
        return r;
      }
      r.version = o.versionType.rfind("external", 0) == 0 ? o.version : cur->version + 1;
      r.seqNo = ix.nextSeqNo++;
      const size_t slot = ix.byId[id];
      ix.slots[slot].reset();
      ix.byId.erase(id);
      --ix.live;
      r.result = "deleted";
      return r;
    }
    std::string source = text;
    if (op == "update") {
      if (!cur && !upsert) {
        r.status = 404;
        r.errorType = "document_missing_exception";
        r.errorReason = "[" + id + "]: document missing";
        return r;
      }
      if (cur) {
        Document merged;
        merged.Parse(cur->source.data(), cur->source.size());
        if (merged.IsObject() && parsed && parsed->IsObject())
          for (const auto& m : parsed->GetObject()) {
            Value name(m.name, merged.GetAllocator());
            Value value(m.value, merged.GetAllocator());
            merged.RemoveMember(m.name.GetString());
            merged.AddMember(name, value, merged.GetAllocator());
          }
        source = toJson(merged);
      }
    }
    if (parsed) {
      const std::string mapping = mappingError(ix, id, *parsed);
      if (!mapping.empty()) {
        r.status = 400;
        r.errorType = "mapper_parsing_exception";
        r.errorReason = mapping;
        return r;
      }
    }
    auto doc = std::make_shared<Doc>();
    doc->id = id;
    doc->source = std::move(source);
    doc->version = o.versionType.rfind("external", 0) == 0 ? o.version : (cur ? cur->version + 1 : 1);
    doc->seqNo = ix.nextSeqNo++;
    r.version = doc->version;
    r.seqNo = doc->seqNo;
    if (cur) {
      ix.slots[ix.byId[id]] = std::move(doc);
      r.result = "updated";
      r.status = 200;
    } else {
      ix.byId.emplace(id, ix.slots.size());
      ix.slots.push_back(std::move(doc));
      ++ix.live;
      r.result = "created";
      r.status = 201;
    }
    return r;
  }
};

namespace {

using Req = httplib::Request;
using Res = httplib::Response;

int64_t numberParam(const Req& req, const char* name, int64_t fallback) {
  if (!req.has_param(name))
    return fallback;
  try {
    return std::stoll(req.get_param_value(name));
  } catch (...) {
    return fallback;
  }
}

void writeShards(Writer& w) {
  w.Key("_shards");
  w.StartObject();
  w.Key("total");
  w.Int(1);
  w.Key("successful");
  w.Int(1);
  w.Key("skipped");
  w.Int(0);
  w.Key("failed");
  w.Int(0);
  w.EndObject();
}

void writeWriteResult(Writer& w, const std::string& index, const std::string& id,
                      const ElasticEmulator::State::WriteResult& r, bool withStatus) {
  w.Key("_index");
  writeString(w, index);
  w.Key("_id");
  writeString(w, id);
  if (!r.errorType.empty()) {
    if (withStatus) {
      w.Key("status");
      w.Int(r.status);
    }
    w.Key("error");
    w.StartObject();
    w.Key("type");
    writeString(w, r.errorType);
    w.Key("reason");
    writeString(w, r.errorReason);
    w.Key("index");
    writeString(w, index);
    w.EndObject();
    return;
  }
  w.Key("_version");
  w.Int64(r.version);
  w.Key("result");
  writeString(w, r.result);
  w.Key("_shards");
  w.StartObject();
  w.Key("total");
  w.Int(2);
  w.Key("successful");
  w.Int(1);
  w.Key("failed");
  w.Int(0);
  w.EndObject();
  w.Key("_seq_no");
  w.Int64(r.seqNo);
  w.Key("_primary_term");
  w.Int(1);
  if (withStatus) {
    w.Key("status");
    w.Int(r.status);
  }
}

std::vector<SortKey> parseSort(const Value* sort) {
  std::vector<SortKey> keys;
  if (!sort)
    return keys;
  auto one = [&](const Value& v) {
    SortKey k;
    if (v.IsString()) {
      k.field = v.GetString();
      k.desc = k.field == "_score";
    } else if (v.IsObject() && v.MemberCount() == 1) {
      k.field = v.MemberBegin()->name.GetString();
      const Value& o = v.MemberBegin()->value;
      const Value* order = o.IsObject() && o.HasMember("order") ? &o["order"] : &o;
      k.desc = order->IsString() && std::strcmp(order->GetString(), "desc") == 0;
    } else {
      return;
    }
    keys.push_back(k);
  };
  if (sort->IsArray())
    for (const auto& v : sort->GetArray())
      one(v);
  else
    one(*sort);
  return keys;
}

int compareEntries(const Entry& a, const Entry& b, const std::vector<SortKey>& keys) {
  for (size_t i = 0; i < keys.size(); ++i) {
    int c = compareValues(a.sort[i], b.sort[i]);
    if (keys[i].desc && a.sort[i].kind != SortValue::Null && b.sort[i].kind != SortValue::Null)
      c = -c;
    if (c)
      return c;
  }
  return 0;
}

} // namespace

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
  const int bound =
      port ? (m_server.bind_to_port("127.0.0.1", port) ? port : -1) : m_server.bind_to_any_port("127.0.0.1");
  if (bound <= 0) {
    m_error = "cannot bind 127.0.0.1";
    return false;
  }
  m_port = bound;
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
  m_state->faults = faults;
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

void ElasticEmulator::reset() {
  std::lock_guard<std::mutex> lock(m_state->mu);
  m_state->indices.clear();
  m_state->pits.clear();
  m_state->scrolls.clear();
  m_state->faults = Faults();
  m_state->stats = Stats();
}

void ElasticEmulator::install() {
  State& st = *m_state;

  auto reply = [&st](Res& res, int status, const std::string& body) {
    res.status = status;
    bool product;
    {
      std::lock_guard<std::mutex> lock(st.mu);
      product = !st.faults.noProductHeader;
    }
    if (product)
      res.set_header("X-Elastic-Product", "Elasticsearch");
    res.set_content(body, "application/json; charset=UTF-8");
  };

  // --- search ------------------------------------------------------------------------------
  // Runs a search (or the next scroll page) and answers it, through the search faults.
  auto answerSearch = [&st, reply](Res& res, int status, std::string body) {
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
      if (status == 200 && st.faults.stallSearchMs) {
        stall = st.faults.stallSearchMs;
        st.faults.stallSearchMs = 0;
      }
    }
    if (fail)
      return reply(res, 500, errorBody(500, "search_phase_execution_exception", "all shards failed (injected fault)"));
    if (!cut && !stall)
      return reply(res, status, body);
    reply(res, status, "");
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
  };

  // Orders `candidates` by the request's sort and filters them by its query.
  auto runQuery = [](std::vector<Entry>& out, const std::vector<std::pair<std::string, DocPtr>>& docs,
                     const Value* query, std::vector<SortKey>& keys) {
    for (size_t i = 0; i < docs.size(); ++i) {
      const Doc& d = *docs[i].second;
      Matcher m(d);
      if (query && !m.match(*query))
        continue;
      Entry e{docs[i].first, docs[i].second, int64_t(i), {}};
      for (const auto& k : keys) {
        if (k.field == "_doc" || k.field == "_shard_doc") {
          e.sort.push_back(SortValue{SortValue::Int, int64_t(i), 0, {}});
        } else if (k.field == "_id") {
          SortValue v;
          v.kind = SortValue::Str;
          v.s = d.id;
          e.sort.push_back(v);
        } else if (k.field == "_score") {
          e.sort.push_back(SortValue{SortValue::Dbl, 0, 1.0, {}});
        } else {
          e.sort.push_back(toSortValue(m.field(k.field)));
        }
      }
      out.push_back(std::move(e));
    }
    if (!keys.empty())
      std::stable_sort(out.begin(), out.end(),
                       [&](const Entry& a, const Entry& b) { return compareEntries(a, b, keys) < 0; });
  };

  auto writeHits = [](Writer& w, const std::vector<Entry>& entries, size_t from, size_t size, bool sorted,
                      const Value* trackTotal, size_t total) {
    w.Key("timed_out");
    w.Bool(false);
    writeShards(w);
    w.Key("hits");
    w.StartObject();
    if (!(trackTotal && trackTotal->IsBool() && !trackTotal->GetBool())) {
      w.Key("total");
      w.StartObject();
      w.Key("value");
      w.Uint64(total);
      w.Key("relation");
      w.String("eq");
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
      w.Key("_index");
      writeString(w, e.index);
      w.Key("_id");
      writeString(w, e.doc->id);
      w.Key("_score");
      if (sorted)
        w.Null();
      else
        w.Double(1.0);
      w.Key("_source");
      w.RawValue(e.doc->source.data(), e.doc->source.size(), rapidjson::kObjectType);
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
  };

  auto search = [&st, reply, answerSearch, runQuery, writeHits](const Req& req, Res& res, const std::string& expr) {
    Document body;
    if (!req.body.empty()) {
      body.Parse(req.body.data(), req.body.size());
      if (body.HasParseError() || !body.IsObject())
        return reply(res, 400, errorBody(400, "parsing_exception", "request body is not a JSON object"));
    } else {
      body.SetObject();
    }
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

    std::unique_lock<std::mutex> lock(st.mu);
    ++st.stats.searchRequests;
    st.stats.lastSearchBody = req.body;
    std::vector<Entry> own;
    const std::vector<Entry>* view = &own;
    std::shared_ptr<Pit> pitHold;
    std::string pitId;
    try {
      if (pitMember) {
        if (!expr.empty())
          return lock.unlock(),
                 reply(res, 400,
                       errorBody(400, "action_request_validation_exception",
                                 "Validation Failed: 1: [indices] cannot be used with point in time. Do not specify "
                                 "any index with point in time.;"));
        if (scroll)
          return lock.unlock(), reply(res, 400,
                                      errorBody(400, "action_request_validation_exception",
                                                "Validation Failed: 1: using [point in time] is not allowed in a "
                                                "scroll context;"));
        pitId = pitMember->IsObject() && pitMember->HasMember("id") && (*pitMember)["id"].IsString()
                    ? (*pitMember)["id"].GetString()
                    : "";
        auto it = st.pits.find(pitId);
        if (it == st.pits.end())
          return lock.unlock(), reply(res, 404,
                                      errorBody(404, "search_context_missing_exception",
                                                "No search context found for id [" + pitId + "]"));
        bool hasTiebreak = false;
        for (const auto& k : keys)
          hasTiebreak = hasTiebreak || k.field == "_shard_doc";
        if (!hasTiebreak)
          keys.push_back(SortKey{"_shard_doc", false});
        pitHold = it->second;
        Pit& pit = *pitHold;
        // Pages of one pit repeat the query and sort: the ordered hits are kept with the pit.
        const std::string cacheKey =
            (query ? toJson(*query) : "") + "|" + (member("sort") ? toJson(*member("sort")) : std::string());
        if (pit.cacheKey != cacheKey) {
          pit.sorted.clear();
          runQuery(pit.sorted, pit.docs, query, keys);
          pit.cacheKey = cacheKey;
        }
        view = &pit.sorted;
      } else {
        std::vector<Index*> found;
        std::string err;
        if (!st.resolve(expr, found, err))
          return lock.unlock(), reply(res, 404, err);
        std::vector<std::pair<std::string, DocPtr>> docs;
        for (Index* ix : found)
          for (const auto& d : ix->slots)
            if (d)
              docs.emplace_back(ix->name, d);
        runQuery(own, docs, query, keys);
      }
    } catch (const QueryError& e) {
      return lock.unlock(), reply(res, 400, errorBody(400, "parsing_exception", e.reason));
    }
    const std::vector<Entry>& entries = *view;
    const size_t total = entries.size();
    size_t start = size_t(std::max<int64_t>(0, from));
    if (after && after->IsArray()) {
      if (after->Size() != keys.size())
        return lock.unlock(), reply(res, 400,
                                    errorBody(400, "illegal_argument_exception",
                                              "search_after has " + std::to_string(after->Size()) +
                                                  " value(s) but sort has " + std::to_string(keys.size()) + "."));
      Entry probe{{}, nullptr, 0, {}};
      for (const auto& v : after->GetArray())
        probe.sort.push_back(toSortValue(&v));
      start = size_t(std::upper_bound(entries.begin(), entries.end(), probe,
                                      [&](const Entry& a, const Entry& b) { return compareEntries(a, b, keys) < 0; }) -
                     entries.begin());
    }
    const bool sorted = !keys.empty();
    StringBuffer sb;
    Writer w(sb);
    w.StartObject();
    std::string scrollId;
    if (scroll) {
      auto sc = std::make_shared<Scroll>();
      sc->entries.assign(entries.begin() + long(std::min(start, entries.size())), entries.end());
      sc->keys = keys;
      sc->size = size_t(size);
      sc->position = size_t(size);
      scrollId = randomId(96, ++st.counter);
      st.scrolls[scrollId] = sc;
      ++st.stats.scrollsOpened;
      w.Key("_scroll_id");
      writeString(w, scrollId);
    }
    if (!pitId.empty()) {
      w.Key("pit_id");
      writeString(w, pitId);
    }
    w.Key("took");
    w.Int(1);
    writeHits(w, entries, start, size_t(std::max<int64_t>(0, size)), sorted, member("track_total_hits"), total);
    w.EndObject();
    lock.unlock();
    answerSearch(res, 200, std::string(sb.GetString(), sb.GetSize()));
  };

  auto scrollNext = [&st, reply, answerSearch, writeHits](const Req& req, Res& res) {
    std::string id = req.has_param("scroll_id") ? req.get_param_value("scroll_id") : "";
    if (!req.body.empty()) {
      Document body;
      body.Parse(req.body.data(), req.body.size());
      if (body.IsObject() && body.HasMember("scroll_id") && body["scroll_id"].IsString())
        id = body["scroll_id"].GetString();
    }
    std::unique_lock<std::mutex> lock(st.mu);
    ++st.stats.searchRequests;
    auto it = st.scrolls.find(id);
    if (it == st.scrolls.end())
      return lock.unlock(),
             reply(res, 404,
                   errorBody(404, "search_context_missing_exception", "No search context found for id [" + id + "]"));
    Scroll& sc = *it->second;
    StringBuffer sb;
    Writer w(sb);
    w.StartObject();
    w.Key("_scroll_id");
    writeString(w, id);
    w.Key("took");
    w.Int(1);
    writeHits(w, sc.entries, sc.position, sc.size, !sc.keys.empty(), nullptr, sc.entries.size());
    w.EndObject();
    sc.position += sc.size;
    lock.unlock();
    answerSearch(res, 200, std::string(sb.GetString(), sb.GetSize()));
  };

  auto clearScroll = [&st, reply](const Req& req, Res& res, bool all) {
    std::vector<std::string> ids;
    if (req.has_param("scroll_id"))
      ids.push_back(req.get_param_value("scroll_id"));
    Document body;
    if (!req.body.empty()) {
      body.Parse(req.body.data(), req.body.size());
      if (body.IsObject() && body.HasMember("scroll_id")) {
        const Value& v = body["scroll_id"];
        if (v.IsString())
          ids.push_back(v.GetString());
        else if (v.IsArray())
          for (const auto& e : v.GetArray())
            if (e.IsString())
              ids.push_back(e.GetString());
      }
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
    reply(res, freed || all ? 200 : 404, "{\"succeeded\":true,\"num_freed\":" + std::to_string(freed) + "}");
  };

  auto openPit = [&st, reply](const Req& req, Res& res, const std::string& expr) {
    std::unique_lock<std::mutex> lock(st.mu);
    if (st.faults.noPit)
      return lock.unlock(), reply(res, 400,
                                  errorBody(400, "illegal_argument_exception",
                                            "request [/" + expr +
                                                "/_pit] contains unrecognized parameter: "
                                                "[keep_alive]"));
    if (!req.has_param("keep_alive"))
      return lock.unlock(), reply(res, 400,
                                  errorBody(400, "action_request_validation_exception",
                                            "Validation Failed: 1: [keep_alive] is not specified;"));
    std::vector<Index*> found;
    std::string err;
    if (!st.resolve(expr, found, err))
      return lock.unlock(), reply(res, 404, err);
    auto pit = std::make_shared<Pit>();
    for (Index* ix : found)
      for (const auto& d : ix->slots)
        if (d)
          pit->docs.emplace_back(ix->name, d);
    const std::string id = randomId(160, ++st.counter);
    st.pits[id] = pit;
    ++st.stats.pitsOpened;
    lock.unlock();
    reply(res, 200, "{\"id\":\"" + id + "\",\"_shards\":{\"total\":1,\"successful\":1,\"skipped\":0,\"failed\":0}}");
  };

  auto closePit = [&st, reply](const Req& req, Res& res) {
    Document body;
    body.Parse(req.body.data(), req.body.size());
    if (body.HasParseError() || !body.IsObject() || !body.HasMember("id") || !body["id"].IsString())
      return reply(res, 400,
                   errorBody(400, "action_request_validation_exception", "Validation Failed: 1: [id] is missing;"));
    size_t freed;
    {
      std::lock_guard<std::mutex> lock(st.mu);
      freed = st.pits.erase(body["id"].GetString());
    }
    reply(res, freed ? 200 : 404, "{\"succeeded\":true,\"num_freed\":" + std::to_string(freed) + "}");
  };

  // --- bulk ----------------------------------------------------------------------------------
  auto bulk = [&st, reply](const Req& req, Res& res, const std::string& defaultIndex) {
    const auto t0 = std::chrono::steady_clock::now();
    struct Item {
      std::string action, index, id;
      State::WriteOptions opts;
      const char* source = nullptr;
      size_t sourceLength = 0;
      std::unique_ptr<Document> parsed;
      bool upsert = false;
      std::string parseError;
    };
    std::vector<Item> items;
    const std::string& text = req.body;
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
    while (nextLine(p, n)) {
      Document action;
      action.Parse(p, n);
      if (action.HasParseError() || !action.IsObject() || action.MemberCount() != 1 ||
          !action.MemberBegin()->value.IsObject())
        return reply(res, 400, errorBody(400, "illegal_argument_exception", "Malformed action/metadata line"));
      Item item;
      item.action = action.MemberBegin()->name.GetString();
      const Value& meta = action.MemberBegin()->value;
      if (item.action != "index" && item.action != "create" && item.action != "delete" && item.action != "update")
        return reply(res, 400,
                     errorBody(400, "illegal_argument_exception",
                               "Malformed action/metadata line, expected one of [create, delete, index, update] but "
                               "found [" +
                                   item.action + "]"));
      item.index = meta.HasMember("_index") && meta["_index"].IsString() ? meta["_index"].GetString() : defaultIndex;
      if (meta.HasMember("_id") && meta["_id"].IsString())
        item.id = meta["_id"].GetString();
      if (meta.HasMember("if_seq_no") && meta["if_seq_no"].IsInt64())
        item.opts.ifSeqNo = meta["if_seq_no"].GetInt64();
      if (meta.HasMember("if_primary_term") && meta["if_primary_term"].IsInt64())
        item.opts.ifPrimaryTerm = meta["if_primary_term"].GetInt64();
      if (meta.HasMember("version") && meta["version"].IsInt64())
        item.opts.version = meta["version"].GetInt64();
      if (meta.HasMember("version_type") && meta["version_type"].IsString())
        item.opts.versionType = meta["version_type"].GetString();
      if (item.index.empty())
        return reply(res, 400,
                     errorBody(400, "action_request_validation_exception", "Validation Failed: 1: index is missing;"));
      if (item.action != "delete") {
        if (!nextLine(p, n))
          return reply(
              res, 400,
              errorBody(400, "illegal_argument_exception", "The bulk request must be terminated by a newline [\\n]"));
        item.parsed = std::make_unique<Document>();
        item.parsed->Parse(p, n);
        if (item.parsed->HasParseError() || !item.parsed->IsObject()) {
          item.parseError = "failed to parse";
        } else if (item.action == "update") {
          Document& d = *item.parsed;
          item.upsert = d.HasMember("doc_as_upsert") && d["doc_as_upsert"].IsBool() && d["doc_as_upsert"].GetBool();
          if (!d.HasMember("doc") || !d["doc"].IsObject()) {
            item.parseError = "[update] requires [doc]";
          } else {
            std::string docText = toJson(d["doc"]);
            auto parsedDoc = std::make_unique<Document>();
            parsedDoc->Parse(docText.data(), docText.size());
            item.parsed = std::move(parsedDoc);
          }
        } else {
          item.source = p;
          item.sourceLength = n;
        }
      } else if (item.id.empty()) {
        return reply(res, 400,
                     errorBody(400, "action_request_validation_exception", "Validation Failed: 1: id is missing;"));
      }
      items.push_back(std::move(item));
    }
    if (items.empty())
      return reply(res, 400,
                   errorBody(400, "action_request_validation_exception", "Validation Failed: 1: no requests added;"));

    StringBuffer sb;
    Writer w(sb);
    bool errors = false;
    std::vector<State::WriteResult> results(items.size());
    {
      std::lock_guard<std::mutex> lock(st.mu);
      ++st.stats.bulkRequests;
      st.stats.bulkItems += items.size();
      st.stats.lastBulkContentType = req.get_header_value("Content-Type");
      for (size_t i = 0; i < items.size(); ++i) {
        Item& item = items[i];
        State::WriteResult& r = results[i];
        if (st.faults.rejectItems > 0) {
          --st.faults.rejectItems;
          r.status = 429;
          r.errorType = "es_rejected_execution_exception";
          r.errorReason = "rejected execution of coordinating operation [coordinating_and_primary_bytes=0, "
                          "replica_bytes=0, all_bytes=0, coordinating_operation_bytes=1024, "
                          "max_coordinating_and_primary_bytes=0]";
          continue;
        }
        if (!item.parseError.empty()) {
          r.status = 400;
          r.errorType = "mapper_parsing_exception";
          r.errorReason = item.parseError;
          continue;
        }
        int status = 400;
        std::string err;
        Index* ix = st.writeIndex(item.index, status, err);
        if (!ix) {
          r.status = status;
          r.errorType = "illegal_argument_exception";
          r.errorReason = err;
          continue;
        }
        item.index = ix->name;
        if (item.id.empty())
          item.id = randomId(20, ++st.counter).substr(0, 20);
        const std::string source = item.source ? std::string(item.source, item.sourceLength) : std::string();
        r = st.write(*ix, item.action, item.id, source, item.parsed.get(), item.opts, item.upsert);
      }
    }
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0);
    for (const auto& r : results)
      errors = errors || !r.errorType.empty();
    w.StartObject();
    w.Key("took");
    w.Int64(took.count());
    w.Key("errors");
    w.Bool(errors);
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
    reply(res, 200, std::string(sb.GetString(), sb.GetSize()));
  };

  // --- documents -----------------------------------------------------------------------------
  auto writeDocument = [&st, reply](const Req& req, Res& res, const std::string& indexName, std::string id,
                                    const std::string& action) {
    State::WriteOptions o;
    o.ifSeqNo = numberParam(req, "if_seq_no", -1);
    o.ifPrimaryTerm = numberParam(req, "if_primary_term", -1);
    o.version = numberParam(req, "version", -1);
    o.versionType = req.get_param_value("version_type");
    if (!o.versionType.empty() && o.versionType != "internal" && o.version < 0)
      return reply(res, 400,
                   errorBody(400, "action_request_validation_exception",
                             "Validation Failed: 1: an external version is required;"));
    std::string op = action;
    if (op == "index" && req.get_param_value("op_type") == "create")
      op = "create";
    Document parsed;
    parsed.Parse(req.body.data(), req.body.size());
    if (parsed.HasParseError() || !parsed.IsObject())
      return reply(res, 400, errorBody(400, "mapper_parsing_exception", "failed to parse"));
    const Value* source = &parsed;
    bool upsert = false;
    std::string docText = req.body;
    if (op == "update") {
      if (!parsed.HasMember("doc") || !parsed["doc"].IsObject())
        return reply(res, 400,
                     errorBody(400, "action_request_validation_exception",
                               "Validation Failed: 1: script or doc is "
                               "missing;"));
      source = &parsed["doc"];
      upsert =
          parsed.HasMember("doc_as_upsert") && parsed["doc_as_upsert"].IsBool() && parsed["doc_as_upsert"].GetBool();
      docText = toJson(*source);
    }
    std::unique_lock<std::mutex> lock(st.mu);
    int status = 400;
    std::string err;
    Index* ix = st.writeIndex(indexName, status, err);
    if (!ix)
      return lock.unlock(), reply(res, status, errorBody(status, "illegal_argument_exception", err));
    if (id.empty())
      id = randomId(20, ++st.counter).substr(0, 20);
    const State::WriteResult r = st.write(*ix, op, id, docText, source, o, upsert);
    const std::string name = ix->name;
    lock.unlock();
    if (!r.errorType.empty())
      return reply(res, r.status, errorBody(r.status, r.errorType, r.errorReason, name));
    StringBuffer sb;
    Writer w(sb);
    w.StartObject();
    writeWriteResult(w, name, id, r, false);
    w.EndObject();
    reply(res, r.status, sb.GetString());
  };

  auto deleteDocument = [&st, reply](const Req& req, Res& res, const std::string& indexName, const std::string& id) {
    State::WriteOptions o;
    o.ifSeqNo = numberParam(req, "if_seq_no", -1);
    o.ifPrimaryTerm = numberParam(req, "if_primary_term", -1);
    o.version = numberParam(req, "version", -1);
    o.versionType = req.get_param_value("version_type");
    std::unique_lock<std::mutex> lock(st.mu);
    std::vector<Index*> found;
    std::string err;
    if (!st.resolve(indexName, found, err) || found.size() != 1)
      return lock.unlock(), reply(res, 404, err.empty() ? errorBody(404, "index_not_found_exception", indexName) : err);
    const State::WriteResult r = st.write(*found[0], "delete", id, "", nullptr, o, false);
    const std::string name = found[0]->name;
    lock.unlock();
    if (!r.errorType.empty())
      return reply(res, r.status, errorBody(r.status, r.errorType, r.errorReason, name));
    StringBuffer sb;
    Writer w(sb);
    w.StartObject();
    writeWriteResult(w, name, id, r, false);
    w.EndObject();
    reply(res, r.status == 404 ? 404 : 200, sb.GetString());
  };

  auto writeFoundDoc = [](Writer& w, const std::string& index, const Doc& d) {
    w.Key("_index");
    writeString(w, index);
    w.Key("_id");
    writeString(w, d.id);
    w.Key("_version");
    w.Int64(d.version);
    w.Key("_seq_no");
    w.Int64(d.seqNo);
    w.Key("_primary_term");
    w.Int(1);
    w.Key("found");
    w.Bool(true);
    w.Key("_source");
    w.RawValue(d.source.data(), d.source.size(), rapidjson::kObjectType);
  };

  auto getDocument = [&st, reply, writeFoundDoc](const Req&, Res& res, const std::string& indexName,
                                                 const std::string& id) {
    std::unique_lock<std::mutex> lock(st.mu);
    std::vector<Index*> found;
    std::string err;
    if (!st.resolve(indexName, found, err))
      return lock.unlock(), reply(res, 404, err);
    StringBuffer sb;
    Writer w(sb);
    w.StartObject();
    const Doc* d = found.size() == 1 ? st.current(*found[0], id) : nullptr;
    if (d) {
      writeFoundDoc(w, found[0]->name, *d);
    } else {
      w.Key("_index");
      writeString(w, found.empty() ? indexName : found[0]->name);
      w.Key("_id");
      writeString(w, id);
      w.Key("found");
      w.Bool(false);
    }
    w.EndObject();
    lock.unlock();
    reply(res, d ? 200 : 404, sb.GetString());
  };

  auto mget = [&st, reply, writeFoundDoc](const Req& req, Res& res, const std::string& defaultIndex) {
    Document body;
    body.Parse(req.body.data(), req.body.size());
    if (body.HasParseError() || !body.IsObject())
      return reply(res, 400, errorBody(400, "parsing_exception", "request body is required"));
    std::vector<std::pair<std::string, std::string>> wanted;
    if (body.HasMember("ids") && body["ids"].IsArray()) {
      if (defaultIndex.empty())
        return reply(res, 400,
                     errorBody(400, "action_request_validation_exception",
                               "Validation Failed: 1: index is missing "
                               "for doc 0;"));
      for (const auto& v : body["ids"].GetArray())
        wanted.emplace_back(defaultIndex, v.IsString() ? v.GetString() : toJson(v));
    } else if (body.HasMember("docs") && body["docs"].IsArray()) {
      for (const auto& v : body["docs"].GetArray()) {
        if (!v.IsObject() || !v.HasMember("_id"))
          return reply(res, 400,
                       errorBody(400, "action_request_validation_exception", "Validation Failed: 1: id is missing;"));
        const std::string index =
            v.HasMember("_index") && v["_index"].IsString() ? v["_index"].GetString() : defaultIndex;
        wanted.emplace_back(index, v["_id"].IsString() ? v["_id"].GetString() : toJson(v["_id"]));
      }
    } else {
      return reply(res, 400,
                   errorBody(400, "action_request_validation_exception",
                             "Validation Failed: 1: no documents to "
                             "get;"));
    }
    StringBuffer sb;
    Writer w(sb);
    {
      std::lock_guard<std::mutex> lock(st.mu);
      ++st.stats.mgetRequests;
      w.StartObject();
      w.Key("docs");
      w.StartArray();
      for (const auto& [index, id] : wanted) {
        w.StartObject();
        std::vector<Index*> found;
        std::string err;
        if (!st.resolve(index, found, err) || found.size() != 1) {
          w.Key("_index");
          writeString(w, index);
          w.Key("_id");
          writeString(w, id);
          w.Key("error");
          w.StartObject();
          w.Key("root_cause");
          w.StartArray();
          w.EndArray();
          w.Key("type");
          w.String("index_not_found_exception");
          w.Key("reason");
          writeString(w, "no such index [" + index + "]");
          w.Key("index");
          writeString(w, index);
          w.EndObject();
        } else if (const Doc* d = st.current(*found[0], id)) {
          writeFoundDoc(w, found[0]->name, *d);
        } else {
          w.Key("_index");
          writeString(w, found[0]->name);
          w.Key("_id");
          writeString(w, id);
          w.Key("found");
          w.Bool(false);
        }
        w.EndObject();
      }
      w.EndArray();
      w.EndObject();
    }
    reply(res, 200, std::string(sb.GetString(), sb.GetSize()));
  };

  // --- indices, mappings, aliases --------------------------------------------------------------
  auto applyMappings = [](Index& ix, const Value& mappings, std::string& err) {
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
    ix.fieldTypes.clear();
    if (merged.HasMember("properties"))
      collectFieldTypes(merged["properties"], "", ix.fieldTypes);
    return true;
  };

  auto writeIndexInfo = [](Writer& w, const Index& ix, bool aliases, bool mappings, bool settings) {
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
      w.Key("settings");
      w.StartObject();
      w.Key("index");
      w.StartObject();
      w.Key("number_of_shards");
      w.String("1");
      w.Key("number_of_replicas");
      w.String("1");
      w.Key("provided_name");
      writeString(w, ix.name);
      w.EndObject();
      w.EndObject();
    }
    w.EndObject();
  };

  auto createIndex = [&st, reply, applyMappings](const Req& req, Res& res, const std::string& name) {
    Document body;
    if (!req.body.empty())
      body.Parse(req.body.data(), req.body.size());
    else
      body.SetObject();
    if (body.HasParseError() || !body.IsObject())
      return reply(res, 400, errorBody(400, "parsing_exception", "request body must be a JSON object"));
    std::unique_lock<std::mutex> lock(st.mu);
    if (st.indices.count(name))
      return lock.unlock(), reply(res, 400,
                                  errorBody(400, "resource_already_exists_exception",
                                            "index [" + name + "/emulated] already exists", name));
    if (name.empty() || name[0] == '_' || name != lower(name))
      return lock.unlock(), reply(res, 400,
                                  errorBody(400, "invalid_index_name_exception",
                                            "Invalid index name [" + name + "], must be lowercase", name));
    Index ix;
    ix.name = name;
    std::string err;
    if (body.HasMember("mappings") && !applyMappings(ix, body["mappings"], err))
      return lock.unlock(), reply(res, 400, errorBody(400, "mapper_parsing_exception", err, name));
    if (body.HasMember("aliases") && body["aliases"].IsObject())
      for (const auto& a : body["aliases"].GetObject())
        ix.aliases.insert(a.name.GetString());
    st.indices[name] = std::move(ix);
    lock.unlock();
    reply(res, 200, "{\"acknowledged\":true,\"shards_acknowledged\":true,\"index\":\"" + name + "\"}");
  };

  auto aliasActions = [&st, reply](const Req& req, Res& res) {
    Document body;
    body.Parse(req.body.data(), req.body.size());
    if (body.HasParseError() || !body.IsObject() || !body.HasMember("actions") || !body["actions"].IsArray())
      return reply(res, 400,
                   errorBody(400, "action_request_validation_exception",
                             "Validation Failed: 1: Must specify at least one alias action;"));
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
        return reply(res, 400, errorBody(400, "parsing_exception", "malformed alias action"));
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
        return lock.unlock(),
               reply(res, 404, errorBody(404, "index_not_found_exception", "no such index [" + a.index + "]", a.index));
      if (a.kind == "remove" && !st.indices[a.index].aliases.count(a.alias))
        return lock.unlock(),
               reply(res, 404, errorBody(404, "aliases_not_found_exception", "aliases [" + a.alias + "] missing"));
      if (a.kind != "add" && a.kind != "remove" && a.kind != "remove_index")
        return lock.unlock(), reply(res, 400, errorBody(400, "parsing_exception", "unknown alias action " + a.kind));
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
    reply(res, 200, "{\"acknowledged\":true,\"errors\":false}");
  };

  auto getAliases = [&st, reply, writeIndexInfo](Res& res, const std::string& expr, const std::string& alias,
                                                 bool head) {
    std::unique_lock<std::mutex> lock(st.mu);
    std::vector<Index*> found;
    std::string err;
    if (!st.resolve(expr.empty() ? "_all" : expr, found, err))
      return lock.unlock(), reply(res, 404, err);
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
      return reply(res, 404, head ? "" : "{\"error\":\"alias [" + alias + "] missing\",\"status\":404}");
    reply(res, 200, sb.GetString());
  };

  auto count = [&st, reply](const Req& req, Res& res, const std::string& expr) {
    Document body;
    if (!req.body.empty())
      body.Parse(req.body.data(), req.body.size());
    const Value* query = body.IsObject() && body.HasMember("query") ? &body["query"] : nullptr;
    std::unique_lock<std::mutex> lock(st.mu);
    std::vector<Index*> found;
    std::string err;
    if (!st.resolve(expr, found, err))
      return lock.unlock(), reply(res, 404, err);
    size_t n = 0;
    try {
      for (Index* ix : found)
        for (const auto& d : ix->slots)
          if (d) {
            Matcher m(*d);
            n += !query || m.match(*query);
          }
    } catch (const QueryError& e) {
      return lock.unlock(), reply(res, 400, errorBody(400, "parsing_exception", e.reason));
    }
    lock.unlock();
    reply(res, 200,
          "{\"count\":" + std::to_string(n) +
              ",\"_shards\":{\"total\":1,\"successful\":1,\"skipped\":0,\"failed\":0}}");
  };

  auto control = [&st, reply](const Req& req, Res& res, const std::string& what) {
    res.set_header("X-Elastic-Product", "Elasticsearch");
    if (what == "faults" && (req.method == "PUT" || req.method == "POST")) {
      Document body;
      body.Parse(req.body.data(), req.body.size());
      if (body.HasParseError() || !body.IsObject())
        return reply(res, 400, errorBody(400, "parsing_exception", "faults must be an object"));
      std::lock_guard<std::mutex> lock(st.mu);
      Faults& f = st.faults;
      auto integer = [&](const char* name, auto& field) {
        if (body.HasMember(name) && body[name].IsInt64())
          field = decltype(field + 0)(body[name].GetInt64());
      };
      integer("reject_items", f.rejectItems);
      integer("unavailable", f.unavailable);
      integer("fail_search_pages", f.failSearchPages);
      integer("cut_search_after", f.cutSearchAfter);
      integer("stall_search_ms", f.stallSearchMs);
      if (body.HasMember("unavailable_path") && body["unavailable_path"].IsString())
        f.unavailablePath = body["unavailable_path"].GetString();
      if (body.HasMember("no_pit") && body["no_pit"].IsBool())
        f.noPit = body["no_pit"].GetBool();
      if (body.HasMember("no_product_header") && body["no_product_header"].IsBool())
        f.noProductHeader = body["no_product_header"].GetBool();
      res.status = 200;
      res.set_content("{\"acknowledged\":true}", "application/json");
      return;
    }
    if (what == "stats") {
      std::lock_guard<std::mutex> lock(st.mu);
      size_t docs = 0;
      for (const auto& [n, ix] : st.indices)
        docs += ix.live;
      const std::string body = "{\"open_pits\":" + std::to_string(st.pits.size()) +
                               ",\"open_scrolls\":" + std::to_string(st.scrolls.size()) +
                               ",\"pits_opened\":" + std::to_string(st.stats.pitsOpened) +
                               ",\"scrolls_opened\":" + std::to_string(st.stats.scrollsOpened) +
                               ",\"requests\":" + std::to_string(st.stats.requests) +
                               ",\"bulk_requests\":" + std::to_string(st.stats.bulkRequests) +
                               ",\"bulk_items\":" + std::to_string(st.stats.bulkItems) +
                               ",\"docs\":" + std::to_string(docs) + ",\"cpu_us\":" + std::to_string(cpuMicros()) + "}";
      res.status = 200;
      res.set_content(body, "application/json");
      return;
    }
    if (what == "reset" && req.method == "POST") {
      std::lock_guard<std::mutex> lock(st.mu);
      st.indices.clear();
      st.pits.clear();
      st.scrolls.clear();
      st.faults = Faults();
      st.stats = Stats();
      res.status = 200;
      res.set_content("{\"acknowledged\":true}", "application/json");
      return;
    }
    reply(res, 404, errorBody(404, "resource_not_found_exception", "unknown emulator control [" + what + "]"));
  };

  auto dispatch = [=, &st](const Req& req, Res& res) {
    const std::vector<std::string> s = splitPath(req.path);
    const std::string& m = req.method;
    const bool get = m == "GET" || m == "HEAD";
    if (!s.empty() && s[0] == "_emulator")
      return control(req, res, s.size() > 1 ? s[1] : "");
    {
      std::unique_lock<std::mutex> lock(st.mu);
      ++st.stats.requests;
      Faults& f = st.faults;
      if (f.unavailable > 0 && (f.unavailablePath.empty() || req.path.find(f.unavailablePath) != std::string::npos)) {
        --f.unavailable;
        lock.unlock();
        return reply(res, 503,
                     errorBody(503, "unavailable_shards_exception",
                               "[emulated][0] primary shard is not active Timeout: [1m] (injected fault)"));
      }
    }
    auto bad = [&] {
      reply(res, 405,
            errorBody(405, "method_not_allowed",
                      "Incorrect HTTP method for uri [" + req.path + "] and method [" + m + "]"));
    };
    if (s.empty()) {
      if (!get)
        return bad();
      return reply(res, 200,
                   "{\"name\":\"emulator\",\"cluster_name\":\"httptools-emulator\",\"cluster_uuid\":"
                   "\"q3cQ3CqUSSmtK3bEBjdTjg\",\"version\":{\"number\":\"8.11.0\",\"build_flavor\":\"default\","
                   "\"build_type\":\"tar\",\"build_hash\":\"d9ec3fa628c7b0ba3d25692e277ba26814820b20\","
                   "\"build_date\":\"2023-11-04T10:04:57.184859352Z\",\"build_snapshot\":false,"
                   "\"lucene_version\":\"9.8.0\",\"minimum_wire_compatibility_version\":\"7.17.0\","
                   "\"minimum_index_compatibility_version\":\"7.0.0\"},\"tagline\":\"You Know, for Search\"}");
    }
    const std::string& first = s[0];
    if (first == "_bulk")
      return m == "POST" || m == "PUT" ? bulk(req, res, "") : bad();
    if (first == "_mget")
      return mget(req, res, "");
    if (first == "_search") {
      if (s.size() == 1)
        return m == "POST" || get ? search(req, res, "") : bad();
      if (s[1] == "scroll") {
        if (m == "DELETE")
          return clearScroll(req, res, s.size() > 2 && s[2] == "_all");
        return scrollNext(req, res);
      }
    }
    if (first == "_pit")
      return m == "DELETE" ? closePit(req, res) : bad();
    if (first == "_aliases")
      return m == "POST" ? aliasActions(req, res) : bad();
    if (first == "_alias")
      return get ? getAliases(res, "", s.size() > 1 ? s[1] : "", m == "HEAD") : bad();
    if (first == "_cluster")
      return reply(res, 200,
                   "{\"cluster_name\":\"httptools-emulator\",\"status\":\"green\",\"timed_out\":false,"
                   "\"number_of_nodes\":1,\"number_of_data_nodes\":1}");
    if (first == "_refresh")
      return reply(res, 200, "{\"_shards\":{\"total\":1,\"successful\":1,\"failed\":0}}");
    if (first == "_count")
      return count(req, res, "");
    if (first[0] == '_')
      return reply(
          res, 400,
          errorBody(400, "illegal_argument_exception", "request [" + req.path + "] is not supported by the emulator"));

    if (s.size() == 1) {
      if (m == "PUT")
        return createIndex(req, res, first);
      if (m == "DELETE") {
        std::unique_lock<std::mutex> lock(st.mu);
        std::vector<Index*> found;
        std::string err;
        if (!st.resolve(first, found, err))
          return lock.unlock(), reply(res, 404, err);
        for (Index* ix : found)
          st.indices.erase(std::string(ix->name));
        lock.unlock();
        return reply(res, 200, "{\"acknowledged\":true}");
      }
      if (get) {
        std::unique_lock<std::mutex> lock(st.mu);
        std::vector<Index*> found;
        std::string err;
        if (!st.resolve(first, found, err))
          return lock.unlock(), reply(res, 404, m == "HEAD" ? "" : err);
        StringBuffer sb;
        Writer w(sb);
        w.StartObject();
        for (Index* ix : found)
          writeIndexInfo(w, *ix, true, true, true);
        w.EndObject();
        lock.unlock();
        return reply(res, 200, sb.GetString());
      }
      return bad();
    }
    const std::string& op = s[1];
    const std::string third = s.size() > 2 ? s[2] : "";
    if (op == "_doc") {
      if (s.size() == 2)
        return m == "POST" ? writeDocument(req, res, first, "", "index") : bad();
      if (m == "PUT" || m == "POST")
        return writeDocument(req, res, first, third, "index");
      if (m == "DELETE")
        return deleteDocument(req, res, first, third);
      return getDocument(req, res, first, third);
    }
    if (op == "_create" && s.size() == 3)
      return m == "PUT" || m == "POST" ? writeDocument(req, res, first, third, "create") : bad();
    if (op == "_update" && s.size() == 3)
      return m == "POST" ? writeDocument(req, res, first, third, "update") : bad();
    if (op == "_source" && s.size() == 3 && get) {
      std::unique_lock<std::mutex> lock(st.mu);
      auto it = st.indices.find(first);
      const Doc* d = it == st.indices.end() ? nullptr : st.current(it->second, third);
      const std::string source = d ? d->source : "";
      lock.unlock();
      return d ? reply(res, 200, source)
               : reply(res, 404, errorBody(404, "resource_not_found_exception", "Document not found"));
    }
    if (op == "_bulk")
      return m == "POST" || m == "PUT" ? bulk(req, res, first) : bad();
    if (op == "_mget")
      return mget(req, res, first);
    if (op == "_search")
      return m == "POST" || get ? search(req, res, first) : bad();
    if (op == "_pit")
      return m == "POST" ? openPit(req, res, first) : bad();
    if (op == "_count")
      return count(req, res, first);
    if (op == "_refresh" || op == "_flush") {
      std::unique_lock<std::mutex> lock(st.mu);
      std::vector<Index*> found;
      std::string err;
      if (!st.resolve(first, found, err))
        return lock.unlock(), reply(res, 404, err);
      lock.unlock();
      return reply(res, 200, "{\"_shards\":{\"total\":1,\"successful\":1,\"failed\":0}}");
    }
    if (op == "_mapping") {
      std::unique_lock<std::mutex> lock(st.mu);
      std::vector<Index*> found;
      std::string err;
      if (!st.resolve(first, found, err))
        return lock.unlock(), reply(res, 404, err);
      if (m == "PUT" || m == "POST") {
        Document body;
        body.Parse(req.body.data(), req.body.size());
        if (body.HasParseError() || !body.IsObject())
          return lock.unlock(), reply(res, 400, errorBody(400, "parsing_exception", "mappings must be an object"));
        for (Index* ix : found)
          if (!applyMappings(*ix, body, err))
            return lock.unlock(), reply(res, 400, errorBody(400, "illegal_argument_exception", err, ix->name));
        lock.unlock();
        return reply(res, 200, "{\"acknowledged\":true}");
      }
      StringBuffer sb;
      Writer w(sb);
      w.StartObject();
      for (Index* ix : found)
        writeIndexInfo(w, *ix, false, true, false);
      w.EndObject();
      lock.unlock();
      return reply(res, 200, sb.GetString());
    }
    if (op == "_alias" || op == "_aliases") {
      if (get)
        return getAliases(res, first, third, m == "HEAD");
      if (third.empty())
        return bad();
      std::unique_lock<std::mutex> lock(st.mu);
      std::vector<Index*> found;
      std::string err;
      if (!st.resolve(first, found, err))
        return lock.unlock(), reply(res, 404, err);
      for (Index* ix : found) {
        if (m == "DELETE" && !ix->aliases.count(third))
          return lock.unlock(),
                 reply(res, 404, errorBody(404, "aliases_not_found_exception", "aliases [" + third + "] missing"));
        if (m == "DELETE")
          ix->aliases.erase(third);
        else
          ix->aliases.insert(third);
      }
      lock.unlock();
      return reply(res, 200, "{\"acknowledged\":true}");
    }
    reply(res, 400,
          errorBody(400, "illegal_argument_exception", "request [" + req.path + "] is not supported by the emulator"));
  };

  m_server.Get(".*", dispatch);
  m_server.Post(".*", dispatch);
  m_server.Put(".*", dispatch);
  m_server.Delete(".*", dispatch);
  m_server.Patch(".*", dispatch);
}

} // namespace qztest
