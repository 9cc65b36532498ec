#include "support/ElasticEmulatorQuery.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace qztest::emu {

namespace {

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

// True when `test` holds for the field, or for one element of an array field.
template <typename Test> bool anyElement(const Value* field, Test&& test) {
  if (!field)
    return false;
  return field->IsArray() ? std::any_of(field->Begin(), field->End(), test) : test(*field);
}

bool fieldEquals(const Value* field, const Value& v) {
  return anyElement(field, [&](const Value& e) { return scalarEquals(e, v); });
}

} // namespace

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
  if (v.kind == SortValue::Int)
    w.Int64(v.i);
  else if (v.kind == SortValue::Dbl)
    w.Double(v.d);
  else if (v.kind == SortValue::Str)
    writeString(w, v.s);
  else
    w.Null();
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

bool Matcher::match(const Value& q) {
  if (!q.IsObject() || q.MemberCount() != 1)
    throw QueryError{"query malformed, must start with start_object"};
  const std::string kind = q.MemberBegin()->name.GetString();
  const Value& body = q.MemberBegin()->value;
  if (kind == "match_all")
    return true;
  if (kind == "match_none")
    return false;
  if (kind == "query_string") { // the FIELD:WORDS form only
    const std::string text = body.HasMember("query") && body["query"].IsString() ? body["query"].GetString() : "";
    const size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0)
      throw QueryError{"[query_string] supports FIELD:WORDS only"};
    const std::string words = text.substr(colon + 1);
    return matchText(field(text.substr(0, colon)), Value(rapidjson::StringRef(words.data(), words.size())));
  }
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
  auto equals = [&](const Value& v) {
    return name == "_id" ? v.IsString() && m_doc.id == v.GetString() : fieldEquals(field(name), v);
  };
  if (kind == "term")
    return equals(arg.IsObject() && arg.HasMember("value") ? arg["value"] : arg);
  if (kind == "terms") {
    if (!arg.IsArray())
      throw QueryError{"[terms] query requires an array of values"};
    return std::any_of(arg.Begin(), arg.End(), equals);
  }
  if (kind == "match")
    return matchText(field(name), arg.IsObject() && arg.HasMember("query") ? arg["query"] : arg);
  const Value* f = field(name); // range
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

// A match query: any of the query's tokens in the field's text. A number or boolean field reads
// the whole text as a value of its type, as Elasticsearch does.
bool Matcher::matchText(const Value* f, const Value& v) {
  if (!f)
    return false;
  if (!v.IsString())
    return fieldEquals(f, v);
  const std::string text = v.GetString();
  const auto wanted = tokens(text);
  return anyElement(f, [&](const Value& e) {
    if (e.IsNumber()) {
      char* end = nullptr;
      const double number = std::strtod(text.c_str(), &end);
      return !text.empty() && *end == '\0' && e.GetDouble() == number;
    }
    if (e.IsBool())
      return text == (e.GetBool() ? "true" : "false");
    if (!e.IsString())
      return false;
    const auto got = tokens(e.GetString());
    return std::any_of(wanted.begin(), wanted.end(),
                       [&](const std::string& t) { return std::find(got.begin(), got.end(), t) != got.end(); });
  });
}

const Value* Matcher::field(const std::string& path) {
  if (!m_parsed) {
    m_source.Parse(m_doc.source.data(), m_doc.source.size());
    m_parsed = true;
  }
  return m_source.HasParseError() ? nullptr : fieldOf(m_source, path);
}

bool Matcher::matchBool(const Value& body) {
  // Every clause of `name` passes `test` (a missing clause passes).
  auto all = [&](const char* name, auto&& test) {
    if (!body.HasMember(name))
      return true;
    const Value& v = body[name];
    return v.IsArray() ? std::all_of(v.Begin(), v.End(), test) : test(v);
  };
  auto matches = [&](const Value& q) { return match(q); };
  if (!all("must", matches) || !all("filter", matches) || !all("must_not", [&](const Value& q) { return !match(q); }))
    return false;
  if (!body.HasMember("should") || body.HasMember("must") || body.HasMember("filter"))
    return true;
  const Value& v = body["should"]; // required when nothing else is
  if (!v.IsArray())
    return match(v);
  return v.Empty() || std::any_of(v.Begin(), v.End(), matches);
}

void runQuery(std::vector<Entry>& out, const std::vector<std::pair<std::string, DocPtr>>& docs, const Value* query,
              const std::vector<SortKey>& keys) {
  for (size_t i = 0; i < docs.size(); ++i) {
    const Doc& d = *docs[i].second;
    Matcher m(d);
    if (query && !m.match(*query))
      continue;
    Entry e{docs[i].first, docs[i].second, int64_t(i), {}};
    for (const auto& k : keys) {
      if (k.field == "_doc" || k.field == "_shard_doc")
        e.sort.push_back(SortValue{SortValue::Int, int64_t(i), 0, {}});
      else if (k.field == "_id")
        e.sort.push_back(SortValue{SortValue::Str, 0, 0, d.id});
      else if (k.field == "_score")
        e.sort.push_back(SortValue{SortValue::Dbl, 0, 1.0, {}});
      else
        e.sort.push_back(toSortValue(m.field(k.field)));
    }
    out.push_back(std::move(e));
  }
  if (!keys.empty())
    std::stable_sort(out.begin(), out.end(),
                     [&](const Entry& a, const Entry& b) { return compareEntries(a, b, keys) < 0; });
}

} // namespace qztest::emu
