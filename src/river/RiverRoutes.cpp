// Routed rivers: suffix indices made on demand, and a document's copies elsewhere removed.
#include <HttpTools/river/RiverIndices_p.h>
#include <HttpTools/river/RiverPipeline_p.h>

#include <HttpTools/platform/qzJson.h>

#include <algorithm>
#include <map>
#include <set>

namespace qz::river::detail {

std::string RiverIndexOf(const std::string& alias, const std::string& index) {
  if (index.size() <= alias.size() + 1 || index.compare(0, alias.size() + 1, alias + "-") != 0)
    return {};
  size_t end = alias.size() + 1;
  while (end < index.size() && index[end] >= '0' && index[end] <= '9')
    ++end;
  if (end == alias.size() + 1 || (end < index.size() && (index[end] != '-' || end + 1 == index.size())))
    return {};
  return index.substr(0, end);
}

namespace {

struct Place {
  std::string index, routing;
  bool operator==(const Place&) const = default;
};

class RoutedSender final : public BulkSender {
public:
  RoutedSender(http::HttpConnectionPool& pool, qz::elasticsearch::ElasticConnectionParameters elastic,
               const RiverDefinition& def, std::unique_ptr<BulkSender> inner)
      : m_pool(pool), m_elastic(std::move(elastic)), m_alias(def.index),
        m_indices(pool, m_elastic, def.index, def.mappingJson), m_inner(std::move(inner)) {}

  RiverOutcome send(std::vector<BulkOp>& ops, const bool* cancel) override {
    // Another river index (a build started or swapped) may have dropped suffix indices made before.
    if (!ops.empty() && RiverIndexOf(m_alias, ops.front().index) != m_base) {
      m_base = RiverIndexOf(m_alias, ops.front().index);
      m_made.clear();
    }
    for (const auto& op : ops)
      if (auto made = makeIndex(op, cancel); !made.ok())
        return made;
    std::vector<BulkOp> routed;
    routed.reserve(ops.size());
    if (auto placed = place(ops, routed, cancel); !placed.ok())
      return placed;
    ops.clear();
    return m_inner->send(routed, cancel);
  }

private:
  // The suffix index `op` writes to, with the alias when its river index has it.
  RiverOutcome makeIndex(const BulkOp& op, const bool* cancel) {
    const std::string base = RiverIndexOf(m_alias, op.index);
    if (base.empty() || base == op.index || m_made.count(op.index))
      return RiverOutcome::Done();
    const std::string suffix = op.index.substr(base.size() + 1);
    if (suffix.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_-.") != std::string::npos ||
        op.index.size() > 255)
      return RiverOutcome::Failure(Side::Elastic, true,
                                   "document " + op.id + ": its route's index suffix \"" + suffix +
                                       "\" makes no valid index name");
    const auto aliases = CallElastic(m_pool, "GET", m_elastic.toApiUrl({base, "_alias", m_alias}, {}), nullptr, cancel);
    if (aliases.status != 200 && aliases.status != 404)
      return ElasticFailure("reading the aliases of " + base, aliases);
    bool existed = false;
    if (auto created = m_indices.create(op.index, aliases.status == 200, existed, cancel); !created.ok())
      return created;
    m_made.insert(op.index);
    return RiverOutcome::Done();
  }

  // `ops` into `routed`: each document's copies at other places deleted before it is written;
  // a delete sent to every place the document is held (and dropped where none is, unless it
  // goes to a river index, where it keeps its version).
  RiverOutcome place(std::vector<BulkOp>& ops, std::vector<BulkOp>& routed, const bool* cancel) {
    std::map<std::string, std::set<std::string>> idsByIndex; // river index (or the alias) -> ids
    for (const auto& op : ops) {
      const std::string base = RiverIndexOf(m_alias, op.index);
      idsByIndex[base.empty() ? m_alias : base].insert(op.id);
    }
    std::map<std::string, std::vector<Place>> held;
    for (const auto& [where, ids] : idsByIndex)
      if (auto found = lookUp(where, ids, held, cancel); !found.ok())
        return found;
    for (auto& op : ops) {
      const auto it = held.find(op.id);
      const std::vector<Place> none;
      const std::vector<Place>& places = it == held.end() ? none : it->second;
      const Place target{op.index, op.routing};
      bool counted = false;
      for (const auto& at : places) {
        if (!op.remove && at == target)
          continue;
        // Versioned in the document's own index: a delete sent again must not remove the new
        // copy where both routings lead to one shard. Elsewhere nothing newer can be held.
        BulkOp gone{at.index, op.id, op.rev, at.index == op.index ? op.version : -1, true, {}, op.seq, at.routing};
        gone.relocation = !op.remove || counted;
        counted = true;
        routed.push_back(std::move(gone));
      }
      if (!op.remove || (!counted && !RiverIndexOf(m_alias, op.index).empty()))
        routed.push_back(std::move(op));
    }
    return RiverOutcome::Done();
  }

  // Where `ids` are held in `where`'s river index and its suffix indices (in the indices of
  // the alias when `where` is the alias), after a refresh: search sees only refreshed writes.
  RiverOutcome lookUp(const std::string& where, const std::set<std::string>& ids,
                      std::map<std::string, std::vector<Place>>& held, const bool* cancel) {
    const std::string expr = where == m_alias ? where : where + "," + where + "-*";
    const auto refreshed = CallElastic(m_pool, "POST", m_elastic.toApiUrl({expr, "_refresh"}, {}), nullptr, cancel);
    if (refreshed.status == 404)
      return RiverOutcome::Done();
    if (refreshed.status != 200)
      return ElasticFailure("refreshing " + where, refreshed);
    constexpr size_t kChunk = 1000;
    for (auto from = ids.begin(); from != ids.end();) {
      qzVariantListImpl values;
      for (; from != ids.end() && values.size() < kChunk; ++from)
        values.emplace_back(*from);
      const std::string body =
          JsonText(qzVariantMapImpl{{"query", qzVariantMapImpl{{"ids", qzVariantMapImpl{{"values", values}}}}},
                                    {"size", int64_t(values.size() * 4)},
                                    {"_source", false}});
      const auto resp = CallElastic(m_pool, "POST", m_elastic.toApiUrl({expr, "_search"}, {}), &body, cancel);
      qzVariantMapImpl answer;
      if (resp.status != 200 || !qz::json::Json2Variant::Convert(resp.body, answer))
        return ElasticFailure("finding where documents are held in " + where, resp);
      const qzVariant hits = qzVariant(answer["hits"]).asMap()["hits"]; // kept: the loop reads into it
      for (const auto& hit : hits.toList()) {
        qzVariantMapImpl h = hit.toMap();
        held[h["_id"].toString()].push_back({h["_index"].toString(), h["_routing"].toString()});
      }
    }
    return RiverOutcome::Done();
  }

  http::HttpConnectionPool& m_pool;
  const qz::elasticsearch::ElasticConnectionParameters m_elastic;
  const std::string m_alias;
  IndexManager m_indices;
  std::unique_ptr<BulkSender> m_inner;
  std::set<std::string> m_made; // suffix indices known to exist
  std::string m_base;           // the river index of the last batch
};

} // namespace

std::unique_ptr<BulkSender> MakeRoutedSender(http::HttpConnectionPool& pool,
                                             qz::elasticsearch::ElasticConnectionParameters elastic,
                                             const RiverDefinition& def, std::unique_ptr<BulkSender> inner) {
  return std::make_unique<RoutedSender>(pool, std::move(elastic), def, std::move(inner));
}

RiverOutcome WriteIndex(http::HttpConnectionPool& pool, const RiverDefinition& def, std::string& index,
                        const bool* cancel) {
  index = def.index;
  if (!def.route)
    return RiverOutcome::Done();
  IndexManager indices(pool, def.elastic, def.index, def.mappingJson);
  if (auto found = indices.findLive(index, cancel); !found.ok())
    return found;
  if (index.empty())
    return RiverOutcome::Failure(Side::Elastic, true, "the alias " + def.index + " points to no index");
  return RiverOutcome::Done();
}

std::unique_ptr<BulkSender> RouteIfNeeded(http::HttpConnectionPool& pool, const RiverDefinition& def,
                                          std::unique_ptr<BulkSender> inner) {
  return def.route ? MakeRoutedSender(pool, def.elastic, def, std::move(inner)) : std::move(inner);
}

} // namespace qz::river::detail
