#include <HttpTools/river/RiverCheckpoint_p.h>

#include <HttpTools/platform/qzJson.h>

#include <atomic>

namespace qz::river::detail {

RiverOutcome CheckpointStore::read(RiverState& out, bool& found, const bool* cancel) {
  const auto resp =
      CallElastic(m_pool, "GET", m_where.elastic.toDocumentUrl(m_where.stateIndex, m_where.river, {}), nullptr, cancel);
  found = resp.status == 200;
  if (resp.status == 404) {
    m_seqNo = m_primaryTerm = -1;
    return RiverOutcome::Done();
  }
  if (resp.status != 200)
    return ElasticFailure("reading the river state", resp);
  qzVariantMapImpl doc;
  if (!qz::json::Json2Variant::Convert(resp.body, doc) || !doc["_source"].isMap())
    return RiverOutcome::Failure(Side::Elastic, false, "reading the river state: malformed answer");
  m_seqNo = doc["_seq_no"].toInt64();
  m_primaryTerm = doc["_primary_term"].toInt64();
  auto& src = doc["_source"].asMap();
  auto seqOf = [&](const char* key) { return src[key].isNull() ? std::string("0") : src[key].toString(); };
  out.owner = src["owner"].toString();
  out.expires = src["expires"].toInt64();
  out.index = src["index"].toString();
  out.seq = seqOf("seq");
  out.building = src["building"].toString();
  out.buildSeq = seqOf("buildSeq");
  out.marker = src["marker"].toString();
  out.recreated = src["recreated"].toBool();
  return RiverOutcome::Done();
}

RiverOutcome CheckpointStore::createIndex(const bool* cancel) {
  auto keyword = [] { return qzVariant(qzVariantMapImpl{{"type", "keyword"}}); };
  qzVariantMapImpl properties{{"expires", qzVariantMapImpl{{"type", "long"}}},
                              {"recreated", qzVariantMapImpl{{"type", "boolean"}}}};
  for (const char* field : {"owner", "alias", "database", "index", "seq", "building", "buildSeq", "marker"})
    properties[field] = keyword();
  const std::string body = JsonText(
      qzVariantMapImpl{{"mappings", qzVariantMapImpl{{"dynamic", false}, {"properties", std::move(properties)}}}});
  const auto resp = CallElastic(m_pool, "PUT", m_where.elastic.toIndexUrl(m_where.stateIndex, {}), &body, cancel);
  if (resp.status == 200 || (resp.status == 400 && ElasticErrorType(resp) == "resource_already_exists_exception"))
    return RiverOutcome::Done();
  return ElasticFailure("creating the state index " + m_where.stateIndex, resp);
}

RiverOutcome CheckpointStore::readBack(const RiverState& state, RiverOutcome failure, const bool* cancel) {
  const int64_t seqNo = m_seqNo, primaryTerm = m_primaryTerm;
  RiverState stored;
  bool found = false;
  if (read(stored, found, cancel).ok() && found && stored.owner == state.owner && stored.expires == state.expires &&
      stored.index == state.index && stored.seq == state.seq && stored.building == state.building &&
      stored.buildSeq == state.buildSeq && stored.marker == state.marker && stored.recreated == state.recreated)
    return RiverOutcome::Done(); // it went through: the version read is ours
  m_seqNo = seqNo;               // not ours: the next write must still name the version last known
  m_primaryTerm = primaryTerm;
  return failure;
}

RiverOutcome CheckpointStore::write(const RiverState& state, const bool* cancel) {
  if (!knowsVersion() && !m_indexCreated) {
    if (auto created = createIndex(cancel); !created.ok())
      return created;
    m_indexCreated = true;
  }
  const std::string body = JsonText(qzVariantMapImpl{{"owner", state.owner},
                                                     {"expires", state.expires},
                                                     {"alias", m_where.alias},
                                                     {"database", m_where.database},
                                                     {"index", state.index},
                                                     {"seq", state.seq},
                                                     {"building", state.building},
                                                     {"buildSeq", state.buildSeq},
                                                     {"marker", state.marker},
                                                     {"recreated", state.recreated}});
  const auto& es = m_where.elastic;
  const qz::elasticsearch::ElasticConnectionParameters url =
      knowsVersion() ? es.toDocumentUrl(
                           m_where.stateIndex, m_where.river,
                           {{"if_seq_no", std::to_string(m_seqNo)}, {"if_primary_term", std::to_string(m_primaryTerm)}})
                     : es.toApiUrl({m_where.stateIndex, "_create", m_where.river}, {});
  const auto resp = CallElastic(m_pool, "PUT", url, &body, cancel);
  if (resp.status == 0 && !(cancel && std::atomic_ref<bool>(const_cast<bool&>(*cancel)).load()))
    return readBack(state, ElasticFailure("writing the river state", resp), cancel);
  if (resp.status == 409)
    return RiverOutcome::Idle("the river state was written by another process");
  if (resp.status != 200 && resp.status != 201)
    return ElasticFailure("writing the river state", resp);
  qzVariantMapImpl doc;
  qz::json::Json2Variant::Convert(resp.body, doc);
  m_seqNo = doc["_seq_no"].toInt64();
  m_primaryTerm = doc["_primary_term"].toInt64();
  return RiverOutcome::Done();
}

} // namespace qz::river::detail
