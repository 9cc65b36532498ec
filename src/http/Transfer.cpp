#include <HttpTools/http/Transfer.h>

#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/http/HttpConnection_p.h>
#include <HttpTools/http/Transfer_p.h>
#include <HttpTools/platform/qzIoDevice.h>
#include <HttpTools/platform/qzSystemUtils.h>

#include <algorithm>
#include <cstring>
#include <strings.h>

namespace qz::http {

const char* MethodName(Method m) {
  switch (m) {
  case Method::Get:
    return "GET";
  case Method::Head:
    return "HEAD";
  case Method::Put:
    return "PUT";
  case Method::Post:
    return "POST";
  case Method::Delete:
    return "DELETE";
  case Method::Patch:
    return "PATCH";
  case Method::Options:
    return "OPTIONS";
  }
  return "GET";
}

size_t RequestBody::knownSize() const {
  switch (kind) {
  case Kind::Bytes:
    return bytes.size();
  case Kind::View:
    return view.size();
  case Kind::Reader:
    return size < 0 ? 0 : size_t(size);
  default:
    return 0;
  }
}

void RequestSpec::setBody(std::string bytes) {
  body = RequestBody();
  body.kind = RequestBody::Kind::Bytes;
  body.bytes = std::move(bytes);
}

void RequestSpec::setBodyView(std::string_view bytes) {
  body = RequestBody();
  body.kind = RequestBody::Kind::View;
  body.view = bytes;
}

void RequestSpec::setBodyReader(std::function<size_t(char*, size_t)> read, int64_t size, std::function<bool()> rewind) {
  body = RequestBody();
  body.kind = RequestBody::Kind::Reader;
  body.read = std::move(read);
  body.size = size;
  body.rewind = std::move(rewind);
}

ResponseSink::~ResponseSink() = default;
void ResponseSink::onStatus(long, std::string_view) {}
void ResponseSink::onHeader(std::string_view) {}
TransferError ResponseSink::failure() const {
  TransferError e;
  e.kind = ErrorKind::LocalIo;
  e.context = "Response receiver refused the body";
  return e;
}

bool StringSink::onBody(const char* data, size_t size) {
  body.append(data, size);
  return true;
}

bool DeviceSink::onBody(const char* data, size_t size) {
  m_device.write(data, static_cast<unsigned long>(size));
  m_written += size;
  return !m_device.hasError();
}

TransferError DeviceSink::failure() const {
  TransferError e;
  e.kind = ErrorKind::LocalIo;
  e.context = "Output device failed after " + std::to_string(m_written) + " bytes";
  return e;
}

std::string TransferOutcome::header(std::string_view name) const {
  for (const std::string& line : headerLines) {
    if (line.size() <= name.size() || line[name.size()] != ':' ||
        strncasecmp(line.data(), name.data(), name.size()) != 0)
      continue;
    const size_t begin = line.find_first_not_of(" \t", name.size() + 1);
    const size_t end = line.find_last_not_of(" \t\r\n");
    return begin == std::string::npos ? std::string() : line.substr(begin, end + 1 - begin);
  }
  return {};
}

bool PerformTransfer(HttpConnection& connection, const TransferRequest& request, ResponseSink& sink,
                     TransferOutcome& outcome, const CancelToken* cancel) {
  return transfer_impl::Perform(connection, request.url, request, sink, outcome, cancel);
}

bool PerformTransfer(HttpConnectionPool& pool, const TransferRequest& request, ResponseSink& sink,
                     TransferOutcome& outcome, const RetryPolicy& retry, const CancelToken* cancel) {
  const int64_t start = qzSystemUtils::GetTimeBaseMs();
  for (unsigned failures = 1;; ++failures) {
    bool ok = false;
    {
      HttpConnectionLocker conn(pool, request.url);
      ok = PerformTransfer(*conn, request, sink, outcome, cancel);
    }
    outcome.attempts = failures;
    // An accepted answer is repeated too when its status is transient and not asked for by name.
    TransferError why = outcome.error;
    if (ok) {
      const auto& wanted = request.successStatuses;
      why.kind = ErrorKind::HttpStatus;
      why.httpStatus = outcome.status;
      if (!why.transient() || std::find(wanted.begin(), wanted.end(), outcome.status) != wanted.end())
        return true;
    }
    const int64_t delay =
        retry.nextDelayMs(why, outcome.header("retry-after"), failures, qzSystemUtils::GetTimeBaseMs() - start);
    if (delay < 0 && ok)
      return true;
    if (delay < 0 || (cancel && cancel->isCancelled()))
      return false;
    if (cancel ? !cancel->waitFor(std::chrono::milliseconds(delay))
               : !CancelToken().waitFor(std::chrono::milliseconds(delay)))
      return false;
    sink.reset();
  }
}

} // namespace qz::http
