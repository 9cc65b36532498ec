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
  if (def.selectorJson.empty() && !def.transform && !def.route)
    return {};
  qzVariant selector;
  if (!def.selectorJson.empty()) {
    qzVariantMapImpl parsed;
    qz::json::Json2Variant::Convert(def.selectorJson, parsed);
    selector = std::move(parsed);
  }
  return [selector = std::move(selector), transform = def.transform, route = def.route](qzVariantMapImpl& doc,
                                                                                        RiverRoute& where) {
    // Matched on a copy: MatchesSelector takes variants, the transform edits the map itself.
    if (selector.isMap() && !qz::couch::MatchesSelector(selector, qzVariant(doc)))
      return false;
    if (transform && !transform(doc))
      return false;
    if (route)
      route(doc, where);
    return true;
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
