#pragma once

#include <HttpTools/http/Transfer.h>

#include <string>

namespace qz::http::transfer_impl {

// PerformTransfer with the URL given apart, so that a caller holding one need not copy it into
// the request (request.url is not read). The connection's parameters are as before afterwards.
// What a caller needs beyond the status and the body: callers that need less save the work.
enum PerformParts : unsigned {
  HeaderLines = 1, // the sink's onStatus and onHeader
  Details = 2,     // the outcome's status line, header lines, effective URL, type, timings
  AllParts = HeaderLines | Details,
};
bool Perform(HttpConnection& connection, const qz::Url& url, const RequestSpec& request, ResponseSink& sink,
             TransferOutcome& outcome, const CancelToken* cancel, unsigned parts = AllParts);

} // namespace qz::http::transfer_impl
