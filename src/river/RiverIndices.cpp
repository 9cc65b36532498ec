#include <HttpTools/river/RiverIndices_p.h>

#include <HttpTools/platform/qzJson.h>
#include <HttpTools/river/RiverMapping_p.h>
#include <HttpTools/river/RiverPipeline_p.h>

#include <algorithm>
#include <cstdlib>

namespace qz::river::detail {

namespace {
constexpr const char* kMetaKey = "httptools_river";

const qzVariantMapImpl& mapAt(const qzVariantMapImpl& map, const char* key) {
  static const qzVariantMapImpl empty;
  auto it = map.find(key);
  return it != map.end() && it->second.isMap() ? it->second.toMap() : empty;
}
} // namespace

IndexManager::IndexManager(http::HttpConnectionPool& pool, qz::elasticsearch::ElasticConnectionParameters elastic,
                           std::string alias, const std::string& mappingJson)
    : m_pool(pool), m_elastic(std::move(elastic)), m_alias(std::move(alias)) {
  if (ParseMapping(mappingJson, m_wanted, &m_mappingError))
    m_wantedPacked = PackMapping(m_wanted);
}

bool IndexManager::valid(std::string* error) const {
  if (error && !m_mappingError.empty())
    *error = m_mappingError;
  return m_mappingError.empty();
}

unsigned IndexManager::Generation(const std::string& alias, const std::string& index) {
  if (index.size() <= alias.size() + 1 || index.compare(0, alias.size() + 1, alias + "-") != 0)
    return 0;
  const std::string rest = index.substr(alias.size() + 1);
  if (rest.find_first_not_of("0123456789") != std::string::npos)
    return 0;
  return unsigned(std::strtoul(rest.c_str(), nullptr, 10));
}

RiverOutcome IndexManager::findLive(std::string& live, const bool* cancel) {
  live.clear();
  auto notAnAlias = [&] { return RiverOutcome::Failure(Side::Elastic, true, m_alias + " is an index, not an alias"); };
  const auto resp = CallElastic(m_pool, "GET", m_elastic.toApiUrl({"_alias", m_alias}, {}), nullptr, cancel);
  if (resp.status == 404) {
    const auto index = CallElastic(m_pool, "GET", m_elastic.toIndexUrl(m_alias, {}), nullptr, cancel);
    return index.status == 200 ? notAnAlias() : RiverOutcome::Done();
  }
  if (resp.status != 200)
    return ElasticFailure("reading the alias " + m_alias, resp);
  qzVariantMapImpl all;
  qz::json::Json2Variant::Convert(resp.body, all);
  std::vector<std::string> held;
  for (const auto& [name, info] : all)
    if (info.isMap() && mapAt(info.toMap(), "aliases").count(m_alias))
      held.push_back(name);
  if (held.empty())
    return all.count(m_alias) ? notAnAlias() : RiverOutcome::Done();
  // One river index, and suffix indices of that one only.
  live = RiverIndexOf(m_alias, held.front());
  for (const auto& name : held)
    if (live.empty() || RiverIndexOf(m_alias, name) != live || !std::count(held.begin(), held.end(), live)) {
      live.clear();
      return RiverOutcome::Failure(Side::Elastic, true, "the alias " + m_alias + " points to more than one index");
    }
  return RiverOutcome::Done();
}

RiverOutcome IndexManager::compare(const std::string& index, Match& match, const bool* cancel) {
  const auto resp = CallElastic(m_pool, "GET", m_elastic.toApiUrl({index, "_mapping"}, {}), nullptr, cancel);
  match = Match::Missing;
  if (resp.status == 404)
    return RiverOutcome::Done();
  if (resp.status != 200)
    return ElasticFailure("reading the mapping of " + index, resp);
  qzVariantMapImpl all;
  if (!qz::json::Json2Variant::Convert(resp.body, all) || all.size() != 1 || !all.begin()->second.isMap())
    return RiverOutcome::Failure(Side::Elastic, false, "reading the mapping of " + index + ": unexpected answer");
  const qzVariant live(mapAt(all.begin()->second.toMap(), "mappings"));
  const auto& kept = mapAt(mapAt(live.toMap(), "_meta"), kMetaKey);
  qzVariant built;
  bool same = false;
  if (kept.count("mapping") && UnpackMapping(kept.at("mapping").toString(), built)) {
    qzVariantMapImpl a = built.toMap(), b = m_wanted.toMap();
    a.erase("_meta");
    b.erase("_meta");
    same = a == b;
  } else { // made by hand or by an older release: compare with what the server shows
    same = MappingsEquivalent(m_wanted, live);
  }
  match = same ? Match::Same : Match::Different;
  return RiverOutcome::Done();
}

RiverOutcome IndexManager::create(const std::string& index, bool withAlias, bool& existed, const bool* cancel) {
  qzVariant mapping = m_wanted;
  mapping.asMap()["_meta"].asMap()[kMetaKey] = qzVariantMapImpl{{"mapping", m_wantedPacked}};
  auto& properties = mapping.asMap()["properties"].asMap();
  if (!properties.count(kRevField)) // the revision, also under a strict mapping
    properties[kRevField] = qzVariantMapImpl{{"type", "keyword"}};
  qzVariantMapImpl request{{"mappings", std::move(mapping)}};
  if (withAlias)
    request["aliases"] = qzVariantMapImpl{{m_alias, qzVariantMapImpl{}}};
  const std::string body = JsonText(std::move(request));
  const auto resp = CallElastic(m_pool, "PUT", m_elastic.toIndexUrl(index, {}), &body, cancel);
  existed = resp.status == 400 && ElasticErrorType(resp) == "resource_already_exists_exception";
  if (resp.status == 200 || existed)
    return RiverOutcome::Done();
  return ElasticFailure("creating " + index, resp);
}

RiverOutcome IndexManager::family(const std::string& base, std::vector<std::pair<std::string, bool>>& members,
                                  const bool* cancel) {
  members.clear();
  // A pattern: no 404 when nothing matches, and "<base>*" also names other generations' indices.
  const auto aliases = CallElastic(m_pool, "GET", m_elastic.toApiUrl({base + "*", "_alias"}, {}), nullptr, cancel);
  if (aliases.status == 404)
    return RiverOutcome::Done();
  if (aliases.status != 200)
    return ElasticFailure("reading the aliases of " + base, aliases);
  qzVariantMapImpl all;
  if (!qz::json::Json2Variant::Convert(aliases.body, all))
    return RiverOutcome::Failure(Side::Elastic, false, "reading the aliases of " + base + ": malformed answer");
  for (const auto& [name, info] : all)
    if (name == base || RiverIndexOf(m_alias, name) == base)
      members.emplace_back(name, info.isMap() && !mapAt(info.toMap(), "aliases").empty());
  return RiverOutcome::Done();
}

RiverOutcome IndexManager::drop(const std::string& index, const bool* cancel) {
  std::vector<std::pair<std::string, bool>> members;
  if (auto listed = family(index, members, cancel); !listed.ok())
    return listed;
  // An index that an alias points to is live (a swap whose answer was lost moved it there).
  for (const auto& [name, aliased] : members)
    if (aliased)
      return RiverOutcome::Failure(Side::Elastic, true, "not deleting " + name + ": an alias points to it");
  for (const auto& member : members) {
    const auto resp = CallElastic(m_pool, "DELETE", m_elastic.toIndexUrl(member.first, {}), nullptr, cancel);
    if (resp.status != 200 && resp.status != 404)
      return ElasticFailure("deleting " + member.first, resp);
  }
  return RiverOutcome::Done();
}

RiverOutcome IndexManager::prepare(RiverState& state, const bool* cancel) {
  std::string live;
  if (auto found = findLive(live, cancel); !found.ok())
    return found;
  if (live.empty())
    return createLive(state, cancel);
  if (!state.building.empty() && live == state.building) { // the swap went through, its answer was lost
    const std::string old = state.index;
    state.index = live;
    state.seq = state.buildSeq;
    state.building.clear();
    state.buildSeq = "0";
    state.recreated = false;
    if (!old.empty() && old != live)
      drop(old, cancel); // a leftover is dropped by the next build anyway
  }
  if (state.index != live) { // the state is missing or stale: start the live index over
    state.index = live;
    state.seq = "0";
  }
  Match match;
  if (auto compared = compare(live, match, cancel); !compared.ok())
    return compared;
  if (match != Match::Same)
    return startBuild(state, live, cancel);
  if (!state.building.empty() && state.recreated) { // a rebuild for a recreated database goes on
    Match built;
    if (auto compared = compare(state.building, built, cancel); !compared.ok())
      return compared;
    return built == Match::Same ? RiverOutcome::Done() : startBuild(state, live, cancel);
  }
  if (!state.building.empty()) { // the mapping went back while a new index was built
    if (auto dropped = drop(state.building, cancel); !dropped.ok())
      return dropped;
    state.building.clear();
    state.buildSeq = "0";
  }
  return RiverOutcome::Done();
}

RiverOutcome IndexManager::rebuild(RiverState& state, const bool* cancel) {
  std::string live;
  if (auto found = findLive(live, cancel); !found.ok())
    return found;
  if (live.empty())
    return createLive(state, cancel);
  if (!state.building.empty())
    if (auto dropped = drop(state.building, cancel); !dropped.ok())
      return dropped;
  state.building.clear();
  state.index = live;
  state.recreated = true;
  return startBuild(state, live, cancel);
}

RiverOutcome IndexManager::createLive(RiverState& state, const bool* cancel) {
  for (unsigned n = std::max(1u, Generation(m_alias, state.index) + 1);; ++n) {
    if (n > 1000)
      return RiverOutcome::Failure(Side::Elastic, true, "no free index name for " + m_alias);
    bool existed = false;
    if (auto created = create(nameFor(n), true, existed, cancel); !created.ok())
      return created;
    if (!existed) {
      state.index = nameFor(n);
      state.seq = "0";
      break;
    }
  }
  if (!state.building.empty())
    if (auto dropped = drop(state.building, cancel); !dropped.ok())
      return dropped;
  state.building.clear();
  state.buildSeq = "0";
  return RiverOutcome::Done();
}

RiverOutcome IndexManager::startBuild(RiverState& state, const std::string& live, const bool* cancel) {
  const std::string next = nameFor(Generation(m_alias, live) + 1);
  if (state.building == next) { // resume it if it was built for this mapping
    Match match;
    if (auto compared = compare(next, match, cancel); !compared.ok())
      return compared;
    if (match == Match::Same)
      return RiverOutcome::Done();
  }
  if (!state.building.empty() && state.building != next)
    if (auto dropped = drop(state.building, cancel); !dropped.ok())
      return dropped;
  state.building.clear();
  if (auto dropped = drop(next, cancel); !dropped.ok()) // a leftover of an unfinished build
    return dropped;
  bool existed = false;
  if (auto created = create(next, false, existed, cancel); !created.ok())
    return created;
  if (existed)
    return RiverOutcome::Failure(Side::Elastic, false, "creating " + next + ": it exists");
  state.building = next;
  state.buildSeq = "0";
  return RiverOutcome::Done();
}

RiverOutcome IndexManager::swap(RiverState& state, const bool* cancel) {
  const std::string& fresh = state.building;
  CallElastic(m_pool, "POST", m_elastic.toApiUrl({fresh, "_refresh"}, {}), nullptr, cancel);
  auto action = [&](const char* name, const std::string& index) {
    return qzVariant(qzVariantMapImpl{{name, qzVariantMapImpl{{"index", index}, {"alias", m_alias}}}});
  };
  // The alias moves with the suffix indices of both river indices.
  qzVariantListImpl actions;
  for (const auto& [base, add] : {std::pair<std::string, bool>{state.index, false}, {fresh, true}}) {
    std::vector<std::pair<std::string, bool>> members;
    if (auto listed = family(base, members, cancel); !listed.ok())
      return listed;
    for (const auto& [name, aliased] : members)
      if (aliased != add)
        actions.push_back(action(add ? "add" : "remove", name));
  }
  const std::string body = JsonText(qzVariantMapImpl{{"actions", std::move(actions)}});
  const auto resp = CallElastic(m_pool, "POST", m_elastic.toApiUrl({"_aliases"}, {}), &body, cancel);
  if (resp.status != 200) {
    // A lost answer may have been sent again and refused: the alias tells whether it moved.
    std::string live;
    if (auto found = findLive(live, cancel); !found.ok())
      return found;
    if (live != fresh)
      return ElasticFailure("moving the alias " + m_alias + " to " + fresh, resp);
  }
  state.index = fresh;
  state.seq = state.buildSeq;
  state.building.clear();
  state.buildSeq = "0";
  state.recreated = false;
  return RiverOutcome::Done();
}

} // namespace qz::river::detail
