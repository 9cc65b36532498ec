#include <HttpTools/couch/ViewResultStreamParser_p.h>
#include <HttpTools/platform/ByteScan_p.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace qz::couch {

namespace {

// The bytes the cutter reacts to.
using StopBytes = impl::ByteSet<'"', '\\', '[', ']', '{', '}'>;
inline uint64_t stopMask(const char* p) { return StopBytes::mask64(p); }

} // namespace

ViewResultStreamParser::ViewResultStreamParser(CouchViewRowFunction rowFunction, void* userData, const bool* cancelFlag)
    : m_rowFunction(rowFunction), m_userData(userData), m_cancelFlag(cancelFlag) {}

bool ViewResultStreamParser::feed(const char* data, size_t length) {
  if (length == 0)
    return true;
  const size_t scanFrom = m_buffer.size();
  m_buffer.append(data, length);
  const char* const base = m_buffer.data();
  const size_t size = m_buffer.size();
  const bool cutRows = m_rowFunction || m_rowTextFunction;

  // The state lives in locals for the loop and goes back to the members before any exit.
  int32_t braces = m_braceCounter;
  int32_t squares = m_squareBracketCounter;
  bool inString = m_inString;
  size_t rowStart = m_rowStart;
  bool skipFirst = m_escaped; // a backslash ended the previous chunk or block
  m_escaped = false;

  // Blocks of 64 bytes: one mask of the bytes that matter, then only those bytes are visited.
  // Inside a string the brackets in the mask are passed over, so each decision is the one a
  // byte-by-byte scan would take.
  for (size_t block = scanFrom; block < size; block += 64) {
    const size_t blockLength = std::min<size_t>(64, size - block);
    uint64_t mask;
    if (blockLength == 64) {
      mask = stopMask(base + block);
    } else {
      char tail[64] = {};
      std::memcpy(tail, base + block, blockLength);
      mask = stopMask(tail) & ((uint64_t(1) << blockLength) - 1);
    }
    if (skipFirst) {
      mask &= ~uint64_t(1);
      skipFirst = false;
    }
    while (mask) {
      const unsigned bit = unsigned(__builtin_ctzll(mask));
      mask &= mask - 1;
      const size_t at = block + bit;
      const char c = base[at];
      if (c == '\\') {
        // The next byte is skipped whatever it is, also across a block or chunk boundary.
        if (bit + 1 == blockLength)
          skipFirst = true;
        else
          mask &= ~(uint64_t(1) << (bit + 1));
        continue;
      }
      if (c == '"') {
        inString = !inString;
        continue;
      }
      if (inString)
        continue;
      switch (c) {
      case '[':
        ++squares;
        break;
      case ']':
        --squares;
        break;
      case '{':
        if (++braces == 2 && squares == 1)
          rowStart = at;
        break;
      default: // '}'
        if (braces == 2 && squares == 1 && cutRows) {
          m_braceCounter = braces;
          m_squareBracketCounter = squares;
          m_inString = inString;
          if (!deliverRow(base + rowStart, at - rowStart + 1)) {
            m_rowStart = rowStart;
            return false;
          }
          rowStart = at;
        }
        --braces;
        break;
      }
    }
  }
  // A skip carried past the last block means the chunk ended with a backslash.
  m_escaped = skipFirst;

  m_braceCounter = braces;
  m_squareBracketCounter = squares;
  m_inString = inString;
  // Compact once per chunk: keep the partial row (or the end of the last row) onwards.
  if (rowStart != 0)
    m_buffer.erase(0, rowStart);
  m_rowStart = 0;
  return true;
}

void ViewResultStreamParser::reset() {
  m_buffer.clear();
  m_rowStart = 0;
  m_braceCounter = 0;
  m_squareBracketCounter = 0;
  m_inString = false;
  m_escaped = false;
  m_body.offset = 0;
  m_receivedBytes = 0;
  m_failure.clear();
}

bool ViewResultStreamParser::deliverRow(const char* text, size_t length) {
  if (m_rowTextFunction)
    return m_rowTextFunction(text, length, m_rowTextUserData);

  m_row.clear();
  if (!json::Json2Variant::Convert(text, length, m_row)) {
    qzLogObject(qzLog::Error, "couchdb") << "Error while parsing result, invalid json "
                                         << std::string_view(text, length);
    return false;
  }
  ++m_rowCount;
  const auto id = m_row.find("id");
  const auto key = m_row.find("key");
  const auto value = m_row.find("value");
  const auto missing = m_row.end();
  if (id == missing || key == missing || value == missing) {
    qzLogObject(qzLog::Error, "couchdb") << "On error BracketCounter " << m_braceCounter << ", SquareBracketCounter "
                                         << m_squareBracketCounter << ", cancelflag "
                                         << http::CancelToken::IsSet(m_cancelFlag);
    const std::string_view row(text, length);
    if (id == missing)
      qzLogObject(qzLog::Error, "couchdb") << "Error while parsing result, missing 'id' entry in json " << row;
    if (key == missing)
      qzLogObject(qzLog::Error, "couchdb") << "Error while parsing result, missing 'key' entry in json " << row;
    if (value == missing)
      qzLogObject(qzLog::Error, "couchdb") << "Error while parsing result, missing 'value' entry in json " << row;
    return false;
  }
  if (const std::string* s = id->second.stringPtr())
    return m_rowFunction(*s, key->second, value->second, m_userData);
  return m_rowFunction(id->second.toString(), key->second, value->second, m_userData);
}

int InstallViewOptions(void* curlHandle, void* userData, std::list<std::string>& headers) {
  CURL* curl = static_cast<CURL*>(curlHandle);
  auto* parser = static_cast<ViewResultStreamParser*>(userData);
  curl_write_callback write = &ViewResultStreamParser::WriteFunction;
  curl_xferinfo_callback transferInfo = &ViewResultStreamParser::TransferInfoFunction;

  // The connection resets the handle whenever this callback or its shape changes, so only the
  // options of this request are set here.
  int rc = 0;
  rc |= curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, write);
  rc |= curl_easy_setopt(curl, CURLOPT_WRITEDATA, parser);
  rc |= curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, transferInfo);
  rc |= curl_easy_setopt(curl, CURLOPT_XFERINFODATA, parser);
  rc |= curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 1L);
  if (const std::string* body = parser->requestBody()) {
    rc |= curl_easy_setopt(curl, CURLOPT_POST, 1L);
    rc |= parser->installRequestBody(curl);
    rc |= curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(body->size()));
    // Without it libcurl labels the body as a form, and servers then ignore the keys.
    headers.push_back("Content-Type: application/json");
  }
  return rc;
}

size_t ViewResultStreamParser::WriteFunction(char* data, size_t size, size_t nmemb, void* userData) {
  auto* parser = static_cast<ViewResultStreamParser*>(userData);
  const size_t length = size * nmemb;
  try {
    parser->m_receivedBytes += length;
    if (parser->m_maxBodyBytes && parser->m_receivedBytes > parser->m_maxBodyBytes) {
      parser->m_failure = qz::http::BodyLimitMessage(static_cast<long long>(parser->m_maxBodyBytes));
      return length + 1;
    }
    if (!parser->feed(data, length) || http::CancelToken::IsSet(parser->m_cancelFlag))
      return length + 1; // any other count than the one given aborts the transfer
  } catch (const std::exception& e) {
    parser->m_failure = std::string("Exception while reading view rows: ") + e.what();
    return length + 1;
  } catch (...) {
    parser->m_failure = "Exception while reading view rows";
    return length + 1;
  }
  return length;
}

int ViewResultStreamParser::TransferInfoFunction(void* userData, int64_t, int64_t, int64_t, int64_t) {
  return http::CancelToken::IsSet(static_cast<ViewResultStreamParser*>(userData)->m_cancelFlag) ? 1 : 0;
}

} // namespace qz::couch
