#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>

namespace qz::elasticsearch {

ElasticConnectionParameters::~ElasticConnectionParameters() = default;

bool ElasticConnectionParameters::BuildFromIndexUrl(ElasticConnectionParameters* params, std::string* index,
                                                    const std::string& url) {
  if (index)
    index->clear();
  if (!params)
    return false;
  std::string parseError; // a bad URL is reported by the result alone
  if (!params->fromEncodedUtf8String(url, &parseError, false))
    return false;
  auto& segments = params->pathSegments;
  if (segments.empty()) {
    params->clearUrl(ClearAll);
  } else {
    if (index)
      *index = segments.back();
    segments.pop_back();
  }
  return params->isValid();
}

ElasticConnectionParameters ElasticConnectionParameters::toIndexUrl(const std::string& index,
                                                                    const Query& query) const {
  return ElasticConnectionParameters(toUrl(std::vector<std::string>{index}, query));
}

ElasticConnectionParameters ElasticConnectionParameters::toDocumentUrl(const std::string& index, const std::string& id,
                                                                       const Query& query) const {
  return ElasticConnectionParameters(toUrl(std::vector<std::string>{index, "_doc", id}, query));
}

ElasticConnectionParameters ElasticConnectionParameters::toApiUrl(const std::vector<std::string>& segments,
                                                                  const Query& query) const {
  std::vector<std::string> kept;
  for (const auto& s : segments)
    if (!s.empty())
      kept.push_back(s);
  return ElasticConnectionParameters(toUrl(kept, query));
}

} // namespace qz::elasticsearch
