#pragma once

#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzJson_p.h>
#include <HttpTools/platform/qzVariant.h>
#include <HttpTools/url/Url.h>

#include <string>

namespace qz::http {
class CancelToken;
class HttpConnection;
} // namespace qz::http

namespace qz::elasticsearch {

class ResponseItemCutter;

struct ElasticResponse {
  long status = 0;      // 0 when no answer arrived
  std::string body;     // the body, unless a cutter took a 2xx body
  bool product = false; // X-Elastic-Product: Elasticsearch was present
  std::string transportError;
};

// One request over `connection`; any status is an answer. `body` (may be null) is sent with
// `contentType`; a 2xx body goes to `cutter` when one is given. False only when no complete
// answer arrived (transport error, cut body, cancel, cutter refused); `out.transportError` says
// why. An answer without the product header is accepted and logged once per process. The
// authentication, extra headers and TLS files that `url` carries go with the request; the
// connection's own parameters are as before afterwards. `cancel` cuts the request on the wire.
bool ElasticCall(qz::http::HttpConnection& connection, const char* method, const ElasticConnectionParameters& url,
                 const std::string* body, const char* contentType, ElasticResponse& out,
                 ResponseItemCutter* cutter = nullptr, const qz::http::CancelToken* cancel = nullptr);
// The same under a caller's flag (read atomically; may be null).
bool ElasticCall(qz::http::HttpConnection& connection, const char* method, const ElasticConnectionParameters& url,
                 const std::string* body, const char* contentType, ElasticResponse& out, ResponseItemCutter* cutter,
                 const bool* cancel);

// "type: reason" of an error answer ({"error":{"type","reason"},"status"}), or the status and the
// start of the body when it is not one.
std::string ErrorText(const ElasticResponse& response);

using qz::json::AppendJson;
using qz::json::AppendJsonString;

} // namespace qz::elasticsearch
