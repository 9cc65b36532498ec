#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>
#include <HttpTools/url/Url_p.h>

#include <HttpTools/platform/qzOpenSSLCrypto.h>

#include <openssl/crypto.h>

namespace qz::elasticsearch {

namespace {

void wipe(std::string& s) {
  if (!s.empty())
    OPENSSL_cleanse(s.data(), s.size());
  s.clear();
}

} // namespace

ElasticConnectionParameters::~ElasticConnectionParameters() {
  wipe(apiKey);
  wipe(bearerToken);
  for (auto& line : extraHeaders)
    wipe(line);
}

void ElasticConnectionParameters::setApiKey(const std::string& id, const std::string& key) {
  std::string joined = id + ":" + key;
  wipe(apiKey);
  qzOpenSSL::base64Encode(joined, apiKey, qzOpenSSL::B64_Standard);
  wipe(joined);
}

std::vector<std::string> ElasticConnectionParameters::headerLines() const {
  std::vector<std::string> lines;
  lines.reserve(extraHeaders.size() + 1);
  if (!apiKey.empty())
    lines.push_back("Authorization: ApiKey " + apiKey);
  else if (!bearerToken.empty())
    lines.push_back("Authorization: Bearer " + bearerToken);
  else if (!user.empty()) {
    std::string pair = user + ":" + password, encoded;
    qzOpenSSL::base64Encode(pair, encoded, qzOpenSSL::B64_Standard);
    lines.push_back("Authorization: Basic " + encoded);
    wipe(pair);
    wipe(encoded);
  }
  lines.insert(lines.end(), extraHeaders.begin(), extraHeaders.end());
  return lines;
}

ElasticConnectionParameters ElasticConnectionParameters::derived(const qz::Url& url) const {
  ElasticConnectionParameters out(url);
  out.apiKey = apiKey;
  out.bearerToken = bearerToken;
  out.extraHeaders = extraHeaders;
  out.caFile = caFile;
  out.clientCertFile = clientCertFile;
  out.clientKeyFile = clientKeyFile;
  return out;
}

bool ElasticConnectionParameters::BuildFromIndexUrl(ElasticConnectionParameters* params, std::string* index,
                                                    const std::string& url) {
  return url_impl::SplitLastSegment(params, index, url);
}

ElasticConnectionParameters ElasticConnectionParameters::toIndexUrl(const std::string& index,
                                                                    const Query& query) const {
  return derived(toUrl(std::vector<std::string>{index}, query));
}

ElasticConnectionParameters ElasticConnectionParameters::toDocumentUrl(const std::string& index, const std::string& id,
                                                                       const Query& query) const {
  return derived(toUrl(std::vector<std::string>{index, "_doc", id}, query));
}

ElasticConnectionParameters ElasticConnectionParameters::toApiUrl(const std::vector<std::string>& segments,
                                                                  const Query& query) const {
  std::vector<std::string> kept;
  for (const auto& s : segments)
    if (!s.empty())
      kept.push_back(s);
  return derived(toUrl(kept, query));
}

} // namespace qz::elasticsearch
