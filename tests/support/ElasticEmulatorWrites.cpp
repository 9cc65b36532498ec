#include "support/ElasticEmulatorState.h"

#include <algorithm>
#include <cstring>

namespace qztest {

namespace emu {

namespace {

bool numericType(const std::string& t) {
  return t == "long" || t == "integer" || t == "short" || t == "byte" || t == "double" || t == "float" ||
         t == "half_float" || t == "scaled_float" || t == "unsigned_long";
}

// Whether one value fits a mapped field type.
bool fits(const std::string& type, const Value& e) {
  if (numericType(type)) {
    if (e.IsNumber())
      return true;
    if (!e.IsString())
      return false;
    char* end = nullptr;
    const std::string s = e.GetString();
    std::strtod(s.c_str(), &end);
    return !s.empty() && *end == 0;
  }
  if (type == "boolean")
    return e.IsBool() ||
           (e.IsString() && (std::strcmp(e.GetString(), "true") == 0 || std::strcmp(e.GetString(), "false") == 0));
  return true;
}

std::string mappingError(const Index& ix, const std::string& id, const Value& source) {
  for (const auto& [field, type] : ix.fieldTypes) {
    const Value* v = fieldOf(source, field);
    if (!v || v->IsNull())
      continue;
    const bool ok = v->IsArray() ? std::all_of(v->Begin(), v->End(), [&t = type](const Value& e) { return fits(t, e); })
                                 : fits(type, *v);
    if (!ok)
      return "failed to parse field [" + field + "] of type [" + type + "] in document with id '" + id +
             "'. Preview of field's value: '" + (v->IsString() ? v->GetString() : toJson(*v)) + "'";
  }
  return {};
}

// Merges `patch` into `target` as a partial update does: objects field by field, anything else
// replaced.
void mergeInto(Value& target, const Value& patch, Document::AllocatorType& a) {
  for (const auto& m : patch.GetObject()) {
    auto existing = target.FindMember(m.name);
    if (existing != target.MemberEnd() && existing->value.IsObject() && m.value.IsObject())
      mergeInto(existing->value, m.value, a);
    else if (existing != target.MemberEnd())
      existing->value.CopyFrom(m.value, a);
    else
      target.AddMember(Value(m.name, a), Value(m.value, a), a);
  }
}

std::string upper(std::string s) {
  for (char& c : s)
    c = char(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

} // namespace

std::vector<std::string> validateWrite(const std::string& op, const WriteOptions& o, bool hasId) {
  const bool internal = o.versionType == "internal";
  if (op == "create") {
    if (!internal)
      return {"create operations only support internal versioning. use index instead"};
    if (o.version != kAnyVersion)
      return {"create operations do not support explicit versions. use index instead"};
    if (o.ifSeqNo != kNoSeqNo || o.ifPrimaryTerm != kNoTerm)
      return {"create operations do not support compare and set. use index instead"};
  }
  std::vector<std::string> e;
  if (!hasId && op != "index" && op != "create") // both generate one
    e.push_back("id is missing");
  if (!hasId && op == "index" && (!internal || o.version != kAnyVersion))
    e.push_back("an id must be provided if version type or value are set");
  if (internal ? o.version != kAnyVersion && o.version <= 0 : o.version < 0)
    e.push_back("illegal version value [" + std::to_string(o.version) + "] for version type [" + upper(o.versionType) +
                "]");
  if (internal && o.version != kAnyVersion)
    e.push_back("internal versioning can not be used for optimistic concurrency control. Please use `if_seq_no` and "
                "`if_primary_term` instead");
  if (o.ifSeqNo != kNoSeqNo && (!internal || o.version != kAnyVersion))
    e.push_back("compare and write operations can not use versioning");
  if (o.ifPrimaryTerm == kNoTerm && o.ifSeqNo != kNoSeqNo)
    e.push_back("ifSeqNo is set, but primary term is [0]");
  if (o.ifPrimaryTerm != kNoTerm && o.ifSeqNo == kNoSeqNo)
    e.push_back("ifSeqNo is unassigned, but primary term is [" + std::to_string(o.ifPrimaryTerm) + "]");
  return e;
}

std::string validationReason(const std::vector<std::string>& errors) {
  std::string out = "Validation Failed: ";
  for (size_t i = 0; i < errors.size(); ++i)
    out += std::to_string(i + 1) + ": " + errors[i] + ";";
  return out;
}

void writeWriteResult(Writer& w, const std::string& index, const std::string& id, const WriteResult& r,
                      bool withStatus) {
  put(w, "_index", index);
  put(w, "_id", id);
  if (!r.errorType.empty()) {
    if (withStatus) {
      putInt(w, "status", r.status);
    }
    w.Key("error");
    w.StartObject();
    put(w, "type", r.errorType);
    put(w, "reason", r.errorReason);
    put(w, "index", index);
    w.EndObject();
    return;
  }
  putInt(w, "_version", r.version);
  put(w, "result", r.result);
  writeShards(w, r.noop ? 0 : 2, r.noop ? 0 : 1, false);
  putInt(w, "_seq_no", r.seqNo);
  putInt(w, "_primary_term", 1);
  if (withStatus) {
    putInt(w, "status", r.status);
  }
}

void writeFoundDoc(Writer& w, const std::string& index, const Doc& d) {
  put(w, "_index", index);
  put(w, "_id", d.id);
  putInt(w, "_version", d.version);
  putInt(w, "_seq_no", d.seqNo);
  putInt(w, "_primary_term", 1);
  if (!d.routing.empty()) {
    put(w, "_routing", d.routing);
  }
  putBool(w, "found", true);
  w.Key("_source");
  w.RawValue(d.source.data(), d.source.size(), rapidjson::kObjectType);
}

} // namespace emu

using namespace emu;

// Versions: internal ones count up from the last known version of the id, deleted or not (a
// deleted id keeps its version, as within Elasticsearch's gc_deletes); external ones are the
// caller's and must rise (external_gte: must not fall).
WriteResult ElasticEmulator::State::write(Index& ix, const std::string& op, const std::string& id,
                                          const std::string& text, const Value* parsed, const WriteOptions& o,
                                          bool upsert) {
  WriteResult r;
  auto fail = WriteResult::error;
  auto conflict = [&](const std::string& what) {
    return fail(409, "version_conflict_engine_exception", "[" + id + "]: version conflict, " + what);
  };
  if (ix.routingRequired && o.routing.empty())
    return fail(400, "routing_missing_exception", "routing is required for [" + ix.name + "]/[" + id + "]");
  if (!ix.dataStream.empty() && (op == "create" || op == "index") && parsed && !fieldOf(*parsed, "@timestamp"))
    return fail(400, "mapper_parsing_exception",
                "failed to parse: data stream timestamp field [@timestamp] is missing");
  const Doc* cur = current(ix, id);
  auto tomb = ix.deleted.find(id);
  const int64_t known = cur ? cur->version : tomb != ix.deleted.end() ? tomb->second : 0; // 0: never seen
  if (op == "create" && cur)
    return conflict("document already exists (current version [" + std::to_string(cur->version) + "])");
  if (o.ifSeqNo != kNoSeqNo && (!cur || cur->seqNo != o.ifSeqNo || o.ifPrimaryTerm != 1))
    return conflict("required seqNo [" + std::to_string(o.ifSeqNo) + "], primary term [" +
                    std::to_string(o.ifPrimaryTerm) + "]. " +
                    (cur ? "current document has seqNo [" + std::to_string(cur->seqNo) + "] and primary term [1]"
                         : std::string("but no document was found")));
  const bool external = o.versionType != "internal";
  const bool gte = o.versionType == "external_gte";
  if (external && known && (gte ? o.version < known : o.version <= known))
    return conflict("current version [" + std::to_string(known) + "] is higher" + (gte ? "" : " or equal to") +
                    " than the one provided [" + std::to_string(o.version) + "]");
  const int64_t version = external ? o.version : known + 1;
  if (op == "delete") {
    r.version = version;
    r.seqNo = ix.nextSeqNo++;
    ix.deleted[id] = version;
    if (!cur) {
      r.status = 404;
      r.result = "not_found";
      return r;
    }
    ix.slots[ix.byId[id]].reset();
    ix.byId.erase(id);
    --ix.live;
    r.result = "deleted";
    return r;
  }
  std::string source = text;
  Document merged;
  if (op == "update") {
    if (!cur && !upsert)
      return fail(404, "document_missing_exception", "[" + id + "]: document missing");
    if (cur) {
      merged.Parse(cur->source.data(), cur->source.size());
      Document before;
      before.CopyFrom(merged, before.GetAllocator());
      if (merged.IsObject() && parsed && parsed->IsObject())
        mergeInto(merged, *parsed, merged.GetAllocator());
      if (merged == before) { // an update that changes nothing is a no-op, as with detect_noop
        r.noop = true;
        r.result = "noop";
        r.version = cur->version;
        r.seqNo = cur->seqNo;
        return r;
      }
      source = toJson(merged);
      parsed = &merged;
    }
  }
  if (parsed) {
    const std::string mapping = mappingError(ix, id, *parsed);
    if (!mapping.empty())
      return fail(400, "mapper_parsing_exception", mapping);
  }
  auto doc = std::make_shared<Doc>();
  doc->id = id;
  doc->source = std::move(source);
  doc->routing = o.routing;
  doc->version = r.version = version;
  doc->seqNo = r.seqNo = ix.nextSeqNo++;
  if (cur) {
    ix.slots[ix.byId[id]] = std::move(doc);
    r.result = "updated";
    r.status = 200;
  } else {
    ix.deleted.erase(id);
    ix.byId.emplace(id, ix.slots.size());
    ix.slots.push_back(std::move(doc));
    ++ix.live;
    r.result = "created";
    r.status = 201;
  }
  return r;
}

} // namespace qztest
