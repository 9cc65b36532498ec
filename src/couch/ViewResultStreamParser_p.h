#pragma once

#include <HttpTools/http/BodyReader_p.h>
#include <HttpTools/http/CancelToken.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzVariant.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

namespace qz::couch {

using CouchViewRowFunction = bool (*)(const std::string& id, qzVariant& key, qzVariant& value, void* userData);

// Cuts the rows out of a view response while it arrives and hands each one, as a map, to the
// caller's row function. A row is an object that opens at brace depth 2 while bracket depth is 1.
// The buffer holds only the unconsumed tail: one partial row plus the current chunk.
class ViewResultStreamParser {
public:
  // Called with each row's text instead of converting it (cutting without conversion).
  using RowTextFunction = bool (*)(const char* text, size_t length, void* userData);

  // `cancelFlag` must not be null.
  ViewResultStreamParser(CouchViewRowFunction rowFunction, void* userData, const bool* cancelFlag);

  // Feeds one chunk of the response; false stops the transfer (bad row or refused row).
  bool feed(const char* data, size_t length);

  void setRowTextFunction(RowTextFunction f, void* userData) {
    m_rowTextFunction = f;
    m_rowTextUserData = userData;
  }
  void setRequestBody(const std::string* body) {
    m_requestBody = body;
    m_body.data = body ? body->data() : nullptr;
    m_body.size = body ? body->size() : 0;
    m_body.offset = 0;
  }
  const std::string* requestBody() const { return m_requestBody; }
  // Makes the request body the read and seek source of the libcurl handle `curlHandle`.
  int installRequestBody(void* curlHandle) {
    m_body.cancel = m_cancelFlag;
    return m_body.install(static_cast<CURL*>(curlHandle));
  }
  // Largest response body accepted (0: no limit); past it the transfer stops with failure().
  void setMaxBodyBytes(uint64_t limit) { m_maxBodyBytes = limit; }
  // Why the write callback stopped the transfer ("" when it did not, or a row was refused).
  const std::string& failure() const { return m_failure; }
  // Forgets what a failed attempt left (partial row, depths, body position) before the request
  // is issued again; the row count goes on.
  void reset();

  // libcurl callbacks; `userData` is the parser.
  static size_t WriteFunction(char* data, size_t size, size_t nmemb, void* userData);
  static int TransferInfoFunction(void* userData, int64_t, int64_t, int64_t, int64_t);

  int64_t rowCount() const { return m_rowCount; }
  int32_t braceCounter() const { return m_braceCounter; }
  int32_t squareBracketCounter() const { return m_squareBracketCounter; }
  bool inString() const { return m_inString; }
  bool escaped() const { return m_escaped; }
  const std::string& buffer() const { return m_buffer; }
  const bool* cancelFlag() const { return m_cancelFlag; }

private:
  bool deliverRow(const char* text, size_t length);

  std::string m_buffer;
  size_t m_rowStart = 0;
  int32_t m_braceCounter = 0;
  int32_t m_squareBracketCounter = 0;
  bool m_inString = false;
  bool m_escaped = false;
  int64_t m_rowCount = 0;
  CouchViewRowFunction m_rowFunction;
  void* m_userData;
  RowTextFunction m_rowTextFunction = nullptr;
  void* m_rowTextUserData = nullptr;
  const std::string* m_requestBody = nullptr;
  qz::http::BodyReader m_body;
  uint64_t m_maxBodyBytes = 0;
  uint64_t m_receivedBytes = 0;
  std::string m_failure;
  const bool* m_cancelFlag;
  qzVariantMapImpl m_row;
};

// Sets the transfer options of one view request on the libcurl handle `curlHandle`; `userData`
// is the ViewResultStreamParser. Returns the OR of the option results (0: all accepted).
int InstallViewOptions(void* curlHandle, void* userData, std::list<std::string>& headers);
// The shape InstallViewOptions installs for this parser (with or without a request body).
inline unsigned long ViewRequestShape(const ViewResultStreamParser& parser) { return parser.requestBody() ? 1 : 0; }

} // namespace qz::couch
