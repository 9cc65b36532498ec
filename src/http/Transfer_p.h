#pragma once

#include <HttpTools/http/Transfer.h>

#include <string>

namespace qz::http::transfer_impl {

// PerformTransfer with the URL given apart, so that a caller holding one need not copy it into
// the request (request.url is not read). The connection's parameters are as before afterwards.
bool Perform(HttpConnection& connection, const qz::Url& url, const TransferRequest& request, ResponseSink& sink,
             TransferOutcome& outcome, const CancelToken* cancel);

} // namespace qz::http::transfer_impl
