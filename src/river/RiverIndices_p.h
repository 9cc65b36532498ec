#pragma once

#include <HttpTools/river/RiverCheckpoint_p.h>

#include <string>
#include <utility>
#include <vector>

namespace qz::river::detail {

// The indices behind a river's alias, named `<alias>-<n>`, each with the suffix indices
// `<alias>-<n>-<suffix>` a route writes to (the river index's family). Each is created with the wanted
// mapping, a copy of which is kept in its `_meta`, so that a change of mapping is told from the
// way the server echoes one. A new mapping is filled into `<alias>-<n+1>` beside the live index;
// the alias moves once it has caught up.
class IndexManager {
public:
  IndexManager(http::HttpConnectionPool& pool, qz::elasticsearch::ElasticConnectionParameters elastic,
               std::string alias, const std::string& mappingJson);
  // False (with the reason) unless the mapping is a JSON object.
  bool valid(std::string* error) const;

  // Decides where the river writes and updates `state` (the caller stores it): a first run
  // creates `<alias>-1` (or the next free number) with the alias on it; a live index with the
  // wanted mapping is kept; otherwise `<alias>-<n+1>` is filled, resumed when it was being built
  // for this very mapping. An alias on several indices, or an index by the alias's name, fail
  // for good.
  RiverOutcome prepare(RiverState& state, const bool* cancel);
  // Moves the alias from the live index to the one being built in one _aliases request, and
  // makes it the live one in `state` (the caller stores it, then drops the old index).
  RiverOutcome swap(RiverState& state, const bool* cancel);
  // Fills a new index from seq 0 beside the live one whatever the mapping (the source database
  // was created again); the alias moves once it has caught up.
  RiverOutcome rebuild(RiverState& state, const bool* cancel);
  // Drops a river index with its suffix indices. A missing index is no failure; one that an
  // alias points to is never deleted.
  RiverOutcome drop(const std::string& index, const bool* cancel);
  // The river index `base` and its suffix indices, each with whether an alias points to it.
  RiverOutcome family(const std::string& base, std::vector<std::pair<std::string, bool>>& members, const bool* cancel);

  // The live river index behind the alias ("" when there is none).
  RiverOutcome findLive(std::string& live, const bool* cancel);
  enum class Match : uint8_t { Same, Different, Missing };
  RiverOutcome compare(const std::string& index, Match& match, const bool* cancel);
  // Creates `index` with the wanted mapping (and the alias on it); `existed` when it was there.
  RiverOutcome create(const std::string& index, bool withAlias, bool& existed, const bool* cancel);

  // "<alias>-<n>" -> n; 0 for any other name.
  static unsigned Generation(const std::string& alias, const std::string& index);
  std::string nameFor(unsigned generation) const { return m_alias + "-" + std::to_string(generation); }

private:
  RiverOutcome createLive(RiverState& state, const bool* cancel);
  RiverOutcome startBuild(RiverState& state, const std::string& live, const bool* cancel);

  http::HttpConnectionPool& m_pool;
  qz::elasticsearch::ElasticConnectionParameters m_elastic;
  std::string m_alias;
  qzVariant m_wanted;
  std::string m_wantedPacked, m_mappingError;
};

} // namespace qz::river::detail
