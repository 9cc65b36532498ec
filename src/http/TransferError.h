#pragma once

#include <HttpTools/platform/Export.h>

#include <string>

namespace qz::http {

/// What made a request fail, decided from the libcurl code and the HTTP status, never from a text.
enum class ErrorKind {
  None,         ///< success
  Resolve,      ///< the host (or proxy) name did not resolve
  Connect,      ///< no TCP connection
  Tls,          ///< handshake or certificate failure
  Timeout,      ///< a time-out of the connection parameters or of the request
  HttpStatus,   ///< an answer with a status the caller did not accept
  Cancelled,    ///< the caller's cancel flag or token
  Protocol,     ///< the peer broke the exchange: reset, empty or malformed answer, too many redirects
  LocalIo,      ///< a local failure: output device, receiver refused the body, set-up, memory
  BadRequest,   ///< refused before sending: bad scheme, CR or LF in a header line, bad method
  BodyTooLarge, ///< the response body passed the parameters' maxBodyBytes
};

/// Returns the kind's name ("None", "Resolve", ...).
HTTPTOOLS_API const char* ErrorKindName(ErrorKind kind);

/// The outcome of a failed call as values. message() composes the text HttpConnection's
/// getLastErrorMsg() gives: the library's context, then the status, then libcurl's code and text.
struct HTTPTOOLS_API TransferError {
  ErrorKind kind = ErrorKind::None; ///< None on success
  int curlCode = 0;                 ///< libcurl's CURLcode, 0 when libcurl reported nothing
  long httpStatus = 0;              ///< the answer's status, 0 when none arrived
  std::string reason = {};          ///< the server's reason when a caller extracted one ("not_found: missing")
  std::string context = {};         ///< the library's own account of the failure
  std::string curlText = {};        ///< libcurl's error buffer

  bool ok() const { return kind == ErrorKind::None; } ///< true when nothing failed
  std::string message() const;                        ///< see above; empty on success
  /// Worth repeating: no connection, time-out, connection lost mid-answer, or status 408, 425,
  /// 429 and 5xx other than 501 and 505.
  bool transient() const;

  /// The kind libcurl's code stands for (CURLE_OK gives None).
  static ErrorKind KindOfCurlCode(int curlCode);
};

} // namespace qz::http
