// Which documents a river keeps: its selector, then its transform.
#include <HttpTools/couch/CouchRequest_p.h>
#include <HttpTools/couch/MangoSelector.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/river/RiverPipeline_p.h>

#include <cstdlib>

namespace qz::river::detail {

std::string SelectorError(const std::string& selectorJson) {
  if (selectorJson.empty())
    return {};
  qzVariantMapImpl selector;
  if (!qz::json::Json2Variant::Convert(selectorJson, selector))
    return "the selector is no JSON object";
  std::string error;
  qz::couch::MatchesSelector(selector, qzVariantMapImpl(), &error); // operators are read whatever the document
  return error.empty() ? error : "the selector: " + error;
}

Transform RiverTransform(const RiverDefinition& def) {
  if (def.selectorJson.empty())
    return def.transform;
  qzVariantMapImpl parsed;
  qz::json::Json2Variant::Convert(def.selectorJson, parsed);
  return [selector = qzVariant(std::move(parsed)), transform = def.transform](qzVariantMapImpl& doc) {
    // Matched on a copy: MatchesSelector takes variants, the transform edits the map itself.
    if (!qz::couch::MatchesSelector(selector, qzVariant(doc)))
      return false;
    return !transform || transform(doc);
  };
}

bool ServerFiltersBySelector(http::HttpConnectionPool& pool, const qz::couch::CouchConnectionParameters& couch,
                             const bool* cancel) {
  qz::couch::detail::Reply reply;
  qz::couch::detail::RequestWithRetry(pool, couch.toUrl(qz::Url::QueryParameters{}), http::Method::Get, nullptr, reply,
                                      cancel, 3);
  qzVariantMapImpl welcome;
  if (reply.code != 200 || !qz::json::Json2Variant::Convert(reply.body, welcome))
    return false;
  // CouchDB answers {"couchdb":"Welcome","version":"3.3.3",...}; others name themselves otherwise.
  return welcome.count("couchdb") && std::atoi(welcome["version"].toString().c_str()) >= 2;
}

} // namespace qz::river::detail
