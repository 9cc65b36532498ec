// httptools river --config: the rivers of a JSON file.

#include "Commands.h"
#include "RiverTools.h"

#include <HttpTools/HttpTools.h>

#include <filesystem>
#include <set>

namespace httptools {

namespace {

using qz::qzVariant;
using qz::qzVariantMapImpl;

// Reads typed values out of one JSON object, naming the key of any fault by its path.
class Fields {
public:
  Fields(const qzVariantMapImpl& map, std::string path, std::string& error)
      : m_map(map), m_path(std::move(path)), m_error(error) {}

  // False (naming it) when the object has a key outside `known`.
  bool onlyKnown(std::initializer_list<const char*> known) {
    const std::set<std::string> names(known.begin(), known.end());
    for (const auto& [key, value] : m_map)
      if (!names.count(key))
        return fail(key, "unknown key");
    return true;
  }
  bool string(const char* key, std::string& out, bool required = false) {
    const qzVariant* v = find(key);
    if (!v)
      return !required || fail(key, "missing");
    if (!v->isString() || v->toString().empty())
      return fail(key, "must be a non-empty string");
    out = v->toString();
    return true;
  }
  template <typename T> bool number(const char* key, T& out, double min, double max) {
    const qzVariant* v = find(key);
    if (!v)
      return true;
    const bool integral = std::is_integral_v<T>;
    if ((integral && !v->isInt64()) || (!integral && !v->isNumber()) || v->toDouble() < min || v->toDouble() > max)
      return fail(key, std::string("must be ") + (integral ? "an integer" : "a number") + " from " + Text(min) +
                           " to " + Text(max));
    out = integral ? T(v->toInt64()) : T(v->toDouble());
    return true;
  }
  bool strings(const char* key, std::vector<std::string>& out) {
    const qzVariant* v = find(key);
    if (!v)
      return true;
    if (!v->isList())
      return fail(key, "must be a list of strings");
    for (const auto& item : v->toList()) {
      if (!item.isString() || item.toString().empty())
        return fail(key, "must be a list of strings");
      out.push_back(item.toString());
    }
    return true;
  }
  const qzVariant* find(const char* key) const {
    auto it = m_map.find(key);
    return it == m_map.end() ? nullptr : &it->second;
  }
  bool fail(const std::string& key, const std::string& why) {
    m_error = m_path + key + ": " + why;
    return false;
  }

private:
  static std::string Text(double d) {
    std::string s = std::to_string(d);
    s.erase(s.find_last_not_of('0') + 1);
    if (s.back() == '.')
      s.pop_back();
    return s;
  }
  const qzVariantMapImpl& m_map;
  std::string m_path;
  std::string& m_error;
};

bool ReadOptions(Fields& f, const qzVariant* options, const std::string& path, qz::river::RiverDefinition& d,
                 std::string& error) {
  if (!options)
    return true;
  if (!options->isMap())
    return f.fail("options", "must be an object");
  Fields o(options->toMap(), path + "options.", error);
  double retryMaxTime = d.retryMaxMs / 1000.0;
  if (!o.onlyKnown({"batch", "intervalMs", "leaseMs", "retryMaxTime", "stateIndex", "maxDocsPerSecond"}) ||
      !o.number("batch", d.batchDocs, 1, 1e6) || !o.number("intervalMs", d.flushIntervalMs, 0, 3.6e6) ||
      !o.number("leaseMs", d.leaseMs, 1000, 3.6e6) || !o.number("retryMaxTime", retryMaxTime, 0, 86400) ||
      !o.string("stateIndex", d.stateIndex) || !o.number("maxDocsPerSecond", d.maxDocsPerSecond, 0, 1e9))
    return false;
  d.retryMaxMs = unsigned(retryMaxTime * 1000);
  return true;
}

bool ReadRiver(const qzVariant& item, const std::string& path, const std::filesystem::path& dir,
               RiverConfigEntry& entry, std::string& error) {
  if (!item.isMap()) {
    error = path.substr(0, path.size() - 1) + ": must be an object";
    return false;
  }
  Fields f(item.toMap(), path, error);
  auto& d = entry.definition;
  std::string source, target, alias, mapping, routingField, suffixField;
  if (!f.onlyKnown({"name", "source", "target", "alias", "mapping", "selector", "routingField", "indexSuffixField",
                    "sourceHeaders", "targetHeaders", "options"}) ||
      !f.string("name", d.name, true) || !f.string("source", source, true) || !f.string("target", target, true) ||
      !f.string("routingField", routingField) || !f.string("indexSuffixField", suffixField) ||
      !f.string("alias", alias) || !f.string("mapping", mapping) || !f.strings("sourceHeaders", entry.sourceHeaders) ||
      !f.strings("targetHeaders", entry.targetHeaders) || !ReadOptions(f, f.find("options"), path, d, error))
    return false;
  std::string urlError;
  if (!CheckCommandLineUrl(source, urlError) ||
      !qz::couch::CouchConnectionParameters::BuildFromDbUrl(&d.couch, &d.database, source) || d.database.empty())
    return f.fail("source", "not a database URL (http://host:port/db)");
  // The alias is the target URL's path, or "alias" after the server's URL.
  if (!CheckCommandLineUrl(target, urlError))
    return f.fail("target", urlError);
  while (!alias.empty() && target.ends_with("/"))
    target.pop_back();
  const std::string indexUrl = alias.empty() ? target : target + "/" + alias;
  if (!qz::elasticsearch::ElasticConnectionParameters::BuildFromIndexUrl(&d.elastic, &d.index, indexUrl) ||
      d.index.empty()) {
    if (alias.empty() &&
        qz::elasticsearch::ElasticConnectionParameters::BuildFromIndexUrl(&d.elastic, &d.index, target + "/alias"))
      return f.fail("alias", "missing (give it here or as the target URL's path)");
    return f.fail("target", "not an Elasticsearch URL (http://host:port[/alias])");
  }
  d.mappingJson = "{}";
  if (!mapping.empty() && !ReadFile((dir / mapping).string(), d.mappingJson))
    return f.fail("mapping", "cannot read " + (dir / mapping).string());
  if (const qzVariant* selector = f.find("selector")) {
    if (!selector->isMap())
      return f.fail("selector", "must be a JSON object (a Mango selector)");
    qz::json::Json2Variant::Convert(*selector, entry.selectorJson, false);
  }
  d.route = RouteByFields(routingField, suffixField);
  return true;
}

} // namespace

std::function<void(const qzVariantMapImpl&, qz::river::RiverRoute&)> RouteByFields(const std::string& routingField,
                                                                                   const std::string& suffixField) {
  if (routingField.empty() && suffixField.empty())
    return {};
  auto text = [](const qzVariantMapImpl& doc, const std::string& path) {
    const qzVariantMapImpl* map = &doc;
    for (size_t at = 0;;) {
      const size_t dot = path.find('.', at);
      const auto it = map->find(path.substr(at, dot == std::string::npos ? dot : dot - at));
      if (it == map->end())
        return std::string();
      if (dot == std::string::npos) { // a number or a boolean as its JSON text
        std::string out;
        if (!it->second.isNull() && !it->second.isString())
          qz::json::Json2Variant::Convert(it->second, out, false);
        return it->second.isString() ? it->second.toString() : out;
      }
      if (!it->second.isMap())
        return std::string();
      map = &it->second.toMap();
      at = dot + 1;
    }
  };
  return [=](const qzVariantMapImpl& doc, qz::river::RiverRoute& route) {
    if (!routingField.empty())
      route.routing = text(doc, routingField);
    if (!suffixField.empty())
      route.indexSuffix = text(doc, suffixField);
  };
}

bool ReadRiverConfig(const std::string& path, RiverConfig& config, std::string& error) {
  std::string text;
  if (!ReadFile(path, text)) {
    error = "cannot read " + path;
    return false;
  }
  qzVariantMapImpl root;
  if (!qz::json::Json2Variant::Convert(text, root)) {
    error = path + ": not a JSON object";
    return false;
  }
  Fields f(root, "", error);
  if (!f.onlyKnown({"workers", "rivers"}) || !f.number("workers", config.workers, 1, 64))
    return false;
  const qzVariant* rivers = f.find("rivers");
  if (!rivers || !rivers->isList() || rivers->toList().empty())
    return f.fail("rivers", "must be a non-empty list of rivers");
  const auto dir = std::filesystem::path(path).parent_path();
  std::set<std::string> names;
  for (size_t i = 0; i < rivers->toList().size(); ++i) {
    const std::string at = "rivers[" + std::to_string(i) + "].";
    RiverConfigEntry entry;
    if (!ReadRiver(rivers->toList()[i], at, dir, entry, error))
      return false;
    if (!names.insert(entry.definition.name).second) {
      error = at + "name: " + entry.definition.name + " is defined twice";
      return false;
    }
    config.rivers.push_back(std::move(entry));
  }
  return true;
}

bool ApplyRiverExtras(RiverConfigEntry& entry, std::string& error) {
  ConnectionOptions target;
  target.headers = entry.targetHeaders;
  std::vector<std::string> lines;
  if (!target.headerLines(lines, error)) {
    error = entry.definition.name + ": targetHeaders: " + error;
    return false;
  }
  for (const std::string& line : lines)
    if (line.find(':') == std::string::npos) {
      error = entry.definition.name + ": targetHeaders: not a \"Name: value\" line";
      return false;
    }
  entry.definition.elastic.extraHeaders.insert(entry.definition.elastic.extraHeaders.end(), lines.begin(), lines.end());
  entry.definition.selectorJson = entry.selectorJson;
  return true;
}

} // namespace httptools
