#include <HttpTools/http/TransferError.h>

#include <curl/curl.h>

namespace qz::http {

const char* ErrorKindName(ErrorKind kind) {
  switch (kind) {
  case ErrorKind::None:
    return "None";
  case ErrorKind::Resolve:
    return "Resolve";
  case ErrorKind::Connect:
    return "Connect";
  case ErrorKind::Tls:
    return "Tls";
  case ErrorKind::Timeout:
    return "Timeout";
  case ErrorKind::HttpStatus:
    return "HttpStatus";
  case ErrorKind::Cancelled:
    return "Cancelled";
  case ErrorKind::Protocol:
    return "Protocol";
  case ErrorKind::LocalIo:
    return "LocalIo";
  case ErrorKind::BadRequest:
    return "BadRequest";
  case ErrorKind::BodyTooLarge:
    return "BodyTooLarge";
  }
  return "Unknown";
}

// The one place where a failure becomes text.
std::string TransferError::message() const {
  std::string out;
  if (!context.empty())
    out += "HttpConnection error : " + context + " ";
  if (httpStatus != 0)
    out += "Http return code " + std::to_string(httpStatus) + " ";
  if (curlCode != 0)
    out += "Curl error : " + std::to_string(curlCode) + " (" + curl_easy_strerror(CURLcode(curlCode)) + ") ";
  if (!curlText.empty())
    out += "Curl internal error : " + curlText;
  return out;
}

bool TransferError::transient() const {
  switch (kind) {
  case ErrorKind::Resolve:
  case ErrorKind::Connect:
  case ErrorKind::Timeout:
    return true;
  case ErrorKind::Protocol:
    // The connection went away mid-exchange; a malformed answer or a redirect loop stays so.
    return curlCode == CURLE_GOT_NOTHING || curlCode == CURLE_SEND_ERROR || curlCode == CURLE_RECV_ERROR ||
           curlCode == CURLE_PARTIAL_FILE || curlCode == CURLE_HTTP2 || curlCode == CURLE_HTTP2_STREAM;
  case ErrorKind::HttpStatus:
    return httpStatus == 408 || httpStatus == 425 || httpStatus == 429 ||
           (httpStatus >= 500 && httpStatus != 501 && httpStatus != 505);
  default:
    return false;
  }
}

ErrorKind TransferError::KindOfCurlCode(int code) {
  switch (CURLcode(code)) {
  case CURLE_OK:
    return ErrorKind::None;
  case CURLE_COULDNT_RESOLVE_HOST:
  case CURLE_COULDNT_RESOLVE_PROXY:
    return ErrorKind::Resolve;
  case CURLE_COULDNT_CONNECT:
    return ErrorKind::Connect;
  case CURLE_OPERATION_TIMEDOUT:
    return ErrorKind::Timeout;
  case CURLE_SSL_CONNECT_ERROR:
  case CURLE_PEER_FAILED_VERIFICATION:
  case CURLE_SSL_CERTPROBLEM:
  case CURLE_SSL_CIPHER:
  case CURLE_SSL_CACERT_BADFILE:
  case CURLE_SSL_ENGINE_NOTFOUND:
  case CURLE_SSL_ENGINE_SETFAILED:
  case CURLE_SSL_ENGINE_INITFAILED:
  case CURLE_SSL_SHUTDOWN_FAILED:
  case CURLE_SSL_CRL_BADFILE:
  case CURLE_SSL_ISSUER_ERROR:
  case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
  case CURLE_SSL_INVALIDCERTSTATUS:
  case CURLE_SSL_CLIENTCERT:
    return ErrorKind::Tls;
  case CURLE_ABORTED_BY_CALLBACK:
    return ErrorKind::Cancelled;
  case CURLE_FILESIZE_EXCEEDED:
    return ErrorKind::BodyTooLarge;
  case CURLE_UNSUPPORTED_PROTOCOL:
  case CURLE_URL_MALFORMAT:
  case CURLE_BAD_FUNCTION_ARGUMENT:
    return ErrorKind::BadRequest;
  case CURLE_WRITE_ERROR:
  case CURLE_READ_ERROR:
  case CURLE_OUT_OF_MEMORY:
  case CURLE_FAILED_INIT:
  case CURLE_SEND_FAIL_REWIND:
  case CURLE_RECURSIVE_API_CALL:
    return ErrorKind::LocalIo;
  default:
    return ErrorKind::Protocol;
  }
}

} // namespace qz::http
