// A river's stored state read, reset and removed outside the river's run.
#include <HttpTools/river/River.h>

#include <HttpTools/river/RiverIndices_p.h>

namespace qz::river {

using detail::RiverOutcome;

namespace {

detail::StateLocation Where(const RiverDefinition& d) { return {d.elastic, d.stateIndex, d.name, d.index, d.database}; }

bool Fail(std::string* error, const std::string& why) {
  if (error)
    *error = why;
  return false;
}

} // namespace

bool ReadRiverState(http::HttpConnectionPool& pool, const RiverDefinition& definition, RiverStoredState& out,
                    std::string* error) {
  detail::CheckpointStore store(pool, Where(definition));
  detail::RiverState state;
  out = {};
  if (auto read = store.read(state, out.found, nullptr); !read.ok())
    return Fail(error, read.message);
  if (!out.found)
    return true;
  out.owner = state.owner;
  out.leaseExpiresMs = state.expires;
  out.leaseLive = !state.owner.empty() && state.expires > detail::NowMs();
  out.liveIndex = state.index;
  out.seq = state.seq;
  out.buildingIndex = state.building;
  out.buildSeq = state.buildSeq;
  return true;
}

bool ResetRiver(http::HttpConnectionPool& pool, const RiverDefinition& definition, std::string* error) {
  detail::CheckpointStore store(pool, Where(definition));
  detail::IndexManager indices(pool, definition.elastic, definition.index, definition.mappingJson);
  if (!indices.valid(error))
    return false;
  // The holder, if any, keeps its lease: its next checkpoint meets this write, and it reads the
  // state again with the new index to fill.
  for (unsigned attempt = 0; attempt < 10; ++attempt) {
    detail::RiverState state;
    bool found = false;
    if (auto read = store.read(state, found, nullptr); !read.ok())
      return Fail(error, read.message);
    if (!found || state.index.empty())
      return Fail(error, "the river " + definition.name + " has no stored state in " + definition.stateIndex);
    if (auto rebuilt = indices.rebuild(state, nullptr); !rebuilt.ok())
      return Fail(error, rebuilt.message);
    const RiverOutcome written = store.write(state, nullptr);
    if (written.ok())
      return true;
    if (!written.idle())
      return Fail(error, written.message);
  }
  return Fail(error, "the river state kept changing; try again");
}

bool RemoveRiver(http::HttpConnectionPool& pool, const RiverDefinition& definition, bool deleteIndices,
                 std::string* error) {
  RiverStoredState state;
  if (!ReadRiverState(pool, definition, state, error))
    return false;
  if (!state.found)
    return Fail(error, "the river " + definition.name + " has no stored state in " + definition.stateIndex);
  if (state.leaseLive)
    return Fail(error, "the river " + definition.name + " runs in " + state.owner + "; stop it first");
  detail::IndexManager indices(pool, definition.elastic, definition.index, definition.mappingJson);
  for (const std::string& base : {state.buildingIndex, state.liveIndex}) {
    if (!deleteIndices || base.empty())
      continue;
    std::vector<std::pair<std::string, bool>> members; // with the suffix indices of routed documents
    if (auto listed = indices.family(base, members, nullptr); !listed.ok())
      return Fail(error, listed.message);
    for (const auto& member : members) {
      const auto resp =
          detail::CallElastic(pool, "DELETE", definition.elastic.toIndexUrl(member.first, {}), nullptr, nullptr);
      if (resp.status != 200 && resp.status != 404)
        return Fail(error, detail::ElasticFailure("deleting " + member.first, resp).message);
    }
  }
  const auto resp = detail::CallElastic(
      pool, "DELETE", definition.elastic.toDocumentUrl(definition.stateIndex, definition.name, {}), nullptr, nullptr);
  if (resp.status != 200 && resp.status != 404)
    return Fail(error, detail::ElasticFailure("deleting the river state", resp).message);
  return true;
}

} // namespace qz::river
