#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>
#include <HttpTools/url/Url_p.h>

namespace qz::elasticsearch {

ElasticConnectionParameters::~ElasticConnectionParameters() = default;

bool ElasticConnectionParameters::BuildFromIndexUrl(ElasticConnectionParameters* params, std::string* index,
                                                    const std::string& url) {
  return url_impl::SplitLastSegment(params, index, url);
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
