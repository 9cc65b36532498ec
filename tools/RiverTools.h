// httptools river: the configuration file of many rivers and the administration commands.
#pragma once

#include <HttpTools/river/River.h>

#include <functional>
#include <string>
#include <vector>

namespace httptools {

// One river of a configuration file.
struct RiverConfigEntry {
  qz::river::RiverDefinition definition;
  std::string selectorJson;               // a Mango selector ("" for none)
  std::vector<std::string> sourceHeaders; // "Name: value" lines for CouchDB
  std::vector<std::string> targetHeaders; // "Name: value" lines for Elasticsearch
};

struct RiverConfig {
  unsigned workers = 2;
  std::vector<RiverConfigEntry> rivers;
};

// Reads a configuration file (a JSON object: "workers" and "rivers", each river with "name",
// "source", "target", "alias", "mapping", "selector", "routingField", "indexSuffixField",
// "sourceHeaders", "targetHeaders" and "options"). False with a message naming the key at fault.
bool ReadRiverConfig(const std::string& path, RiverConfig& config, std::string& error);
// Puts the selector and the header lines of `entry` into its definition; false with a message
// for what the definition cannot carry.
bool ApplyRiverExtras(RiverConfigEntry& entry, std::string& error);

// A route from two fields of the document (dotted paths; "" or a missing field: the default):
// its routing value and its index suffix, as text.
std::function<void(const qz::qzVariantMapImpl&, qz::river::RiverRoute&)> RouteByFields(const std::string& routingField,
                                                                                       const std::string& suffixField);

// --status, --reset, --remove [--delete-index] for each of `rivers`; sets the exit code.
enum class RiverAdminAction { Status, Reset, Remove };
void RunRiverAdmin(const std::vector<qz::river::RiverDefinition>& rivers, RiverAdminAction action, bool deleteIndex);

} // namespace httptools
