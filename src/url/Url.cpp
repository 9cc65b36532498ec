#include <HttpTools/url/Url.h>

#include <HttpTools/platform/ByteScan_p.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzOpenSSL.h>
#include <HttpTools/platform/qzStringUtils.h>
#include <HttpTools/url/IpAddress_p.h>
#include <HttpTools/url/Url_p.h>

#include <netinet/in.h>
#include <openssl/crypto.h>
#include <uriparser/Uri.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace qz {

namespace url_impl {

namespace {

// Inlined: this runs on every request of a kept connection, where the fields are mostly equal
// and short or empty.
inline bool same(const std::string& x, const std::string& y) {
  return x.size() == y.size() && (x.empty() || std::memcmp(x.data(), y.data(), x.size()) == 0);
}

} // namespace

bool IsSameUrlValue(const Url& a, const Url& b) {
  auto sameQuery = [](const Url::QueryParameters& x, const Url::QueryParameters& y) {
    return x.size() == y.size() && std::equal(x.begin(), x.end(), y.begin(), [](const auto& p, const auto& q) {
             return same(p.first, q.first) && same(p.second, q.second);
           });
  };
  if (a.port != b.port || a.ipAddress.getType() != b.ipAddress.getType() || !same(a.host, b.host) ||
      !same(a.scheme, b.scheme) || a.pathSegments.size() != b.pathSegments.size() ||
      !std::equal(a.pathSegments.begin(), a.pathSegments.end(), b.pathSegments.begin(), same) ||
      !sameQuery(a.queryParameters, b.queryParameters) || !same(a.user, b.user) || !same(a.password, b.password) ||
      !same(a.authDbName, b.authDbName))
    return false;
  const sockaddr* x = a.ipAddress.getSockaddr();
  const sockaddr* y = b.ipAddress.getSockaddr();
  const unsigned int n = a.ipAddress.getSockaddrLen();
  return x == y || (x && y && n == b.ipAddress.getSockaddrLen() && std::memcmp(x, y, n) == 0);
}

} // namespace url_impl

using qzOpenSSL::WipeString;
using url_impl::AppendDecoded;

// What clearUrl(strategy) leaves, without wiping fields that never held anything.
Url::Url(ClearStrategy strategy) {
  if (strategy == ClearToLocalHttp || strategy == ClearToLocalHttps) {
    scheme = strategy == ClearToLocalHttp ? "http" : "https";
    host = "127.0.0.1";
    port = strategy == ClearToLocalHttp ? 80 : 443;
  }
}

Url::Url(const std::string& text) { fromEncodedUtf8String(text, nullptr, false); }

Url::Url(const Url& other) = default;

Url::Url(Url&& other) noexcept
    : scheme(std::move(other.scheme)), user(std::move(other.user)), password(std::move(other.password)),
      host(std::move(other.host)), authDbName(std::move(other.authDbName)), ipAddress(std::move(other.ipAddress)),
      queryParameters(std::move(other.queryParameters)), pathSegments(std::move(other.pathSegments)), port(other.port) {
  // A short secret may stay behind in the source's inline buffer. The lists are empty now.
  other.scheme.clear();
  WipeString(other.user);
  WipeString(other.password);
  WipeString(other.host);
  WipeString(other.authDbName);
  other.port = 0;
}

Url& Url::operator=(const Url& other) {
  if (this != &other) {
    // Assignment could keep the tail of a longer old secret in the buffer. The lists are
    // assigned in place, which reuses their nodes.
    WipeString(user);
    WipeString(password);
    WipeString(authDbName);
    WipeString(host);
    scheme = other.scheme;
    user = other.user;
    password = other.password;
    host = other.host;
    authDbName = other.authDbName;
    ipAddress = other.ipAddress;
    queryParameters = other.queryParameters;
    pathSegments = other.pathSegments;
    port = other.port;
  }
  return *this;
}

Url& Url::operator=(Url&& other) noexcept {
  if (this != &other) {
    clearUrl(ClearAll);
    scheme = std::move(other.scheme);
    user = std::move(other.user);
    password = std::move(other.password);
    host = std::move(other.host);
    authDbName = std::move(other.authDbName);
    ipAddress = std::move(other.ipAddress);
    queryParameters = std::move(other.queryParameters);
    pathSegments = std::move(other.pathSegments);
    port = other.port;
    other.clearUrl(ClearAll);
  }
  return *this;
}

Url::~Url() { clearUrl(ClearAll); }

void Url::clearUrl(ClearStrategy strategy) {
  switch (strategy) {
  case ClearToLocalHttp:
    scheme = "http";
    WipeString(host);
    host = "127.0.0.1";
    port = 80;
    break;
  case ClearToLocalHttps:
    scheme = "https";
    WipeString(host);
    host = "127.0.0.1";
    port = 443;
    break;
  default:
    scheme.clear();
    WipeString(host);
    port = 0;
    break;
  }
  WipeString(user);
  WipeString(password);
  WipeString(authDbName);
  pathSegments.clear();
  queryParameters.clear();
}

void Url::setCredentialsOnHttpHeaders(const std::string& newUser, const std::string& newPassword) {
  WipeString(user);
  user = newUser;
  WipeString(password);
  password = newPassword;
  WipeString(authDbName);
}

void Url::setCredentialsOnQueryParameter(const std::string& newUser, const std::string& newPassword,
                                         const std::string& newAuthDbName) {
  WipeString(user);
  user = newUser;
  WipeString(password);
  password = newPassword;
  WipeString(authDbName);
  authDbName = newAuthDbName;
}

void Url::clearCredentials() {
  WipeString(user);
  WipeString(password);
  WipeString(authDbName);
}

namespace {

struct UriGuard {
  UriUriA uri{};
  bool parsed = false;
  ~UriGuard() {
    if (parsed)
      uriFreeUriMembersA(&uri);
  }
};

inline bool RangeEmpty(const UriTextRangeA& r) { return !r.first || !r.afterLast || r.afterLast <= r.first; }

// Port text as strtoll with base 0 reads it (so 010 is octal); anything out of range or not
// wholly consumed gives 0. uriparser hands over ASCII digits only, so no sign, blank or 0x.
uint16_t ParsePort(const UriTextRangeA& r) {
  if (RangeEmpty(r))
    return 0;
  const char* p = r.first;
  const unsigned base = *p == '0' ? 8 : 10;
  uint32_t value = 0;
  for (; p < r.afterLast; ++p) {
    const unsigned digit = static_cast<unsigned char>(*p) - '0';
    if (digit >= base)
      return 0;
    value = value * base + digit;
    if (value > 65535)
      return 0;
  }
  return static_cast<uint16_t>(value);
}

// Query item nodes left over by earlier parses on this thread, taken before new ones are
// allocated: parses differ in item count, and without them a long query after a short one
// allocates what a short one after a long one freed. Bounded in count and in buffer size.
// Like the query items they come from, they are emptied, not wiped.
constexpr size_t kParkedNodesMax = 64;
constexpr size_t kParkedCapacityMax = 256;
thread_local Url::QueryParameters tParkedNodes;
thread_local size_t tParkedCount = 0;

// Keeps what it can of the nodes in `leftover` for later parses; frees the rest.
void ParkQueryNodes(Url::QueryParameters& leftover) {
  for (auto it = leftover.begin(); it != leftover.end() && tParkedCount < kParkedNodesMax;) {
    auto next = std::next(it);
    if (it->first.capacity() <= kParkedCapacityMax && it->second.capacity() <= kParkedCapacityMax) {
      tParkedNodes.splice(tParkedNodes.end(), leftover, it);
      ++tParkedCount;
    }
    it = next;
  }
}

// The bytes a query splitter acts upon; every other byte is copied as it stands.
enum QueryByte : unsigned char { Plain, Amp, Equal, Percent, Plus };
constexpr auto kQueryByteClass = [] {
  std::array<unsigned char, 256> t{};
  t['&'] = Amp;
  t['='] = Equal;
  t['%'] = Percent;
  t['+'] = Plus;
  return t;
}();
inline unsigned char QueryByteClass(char c) { return kQueryByteClass[static_cast<unsigned char>(c)]; }

// The first byte in [p, last) that is not Plain, or last: query values are often long runs of
// plain bytes.
const char* SkipQueryPlain(const char* p, const char* last) { return impl::ByteSet<'&', '=', '%', '+'>::find(p, last); }

// Splits a query into decoded (key, value) items by the rules of uriparser's
// uriDissectQueryMallocA: items split at '&', key and value at the first '=', '+' is a blank,
// an item with an empty key and no '=' is dropped, a missing value is empty. Decoding straight
// into the item strings spares two C-string copies per item and keeps a %00 from cutting one short.
// `spare` holds nodes of an earlier query, reused (strings keep their capacity) before new ones
// are allocated.
void DissectQuery(const char* first, const char* last, Url::QueryParameters& items, Url::QueryParameters& spare) {
  // One pass over the text: plain bytes are copied in runs, the four special ones acted upon.

  // The URL's own old nodes are all moved in at once and written over in order; those left
  // unused go back to `spare` at the end.
  items.splice(items.end(), spare);
  auto reuse = items.begin();
  const char* p = first;
  while (p < last) {
    if (*p == '&') { // an empty item
      ++p;
      continue;
    }
    Url::QueryParameters::value_type* item;
    if (reuse != items.end()) {
      item = &*reuse++;
      item->first.clear();
      item->second.clear();
    } else if (tParkedCount > 0) {
      items.splice(items.end(), tParkedNodes, tParkedNodes.begin());
      --tParkedCount;
      item = &items.back();
      item->first.clear();
      item->second.clear();
      reuse = items.end();
    } else {
      item = &items.emplace_back();
      reuse = items.end();
    }
    std::string* out = &item->first;
    bool inValue = false;
    while (p < last) {
      const char* run = p;
      p = SkipQueryPlain(p, last);
      out->append(run, static_cast<size_t>(p - run));
      if (p == last)
        break;
      const unsigned char c = QueryByteClass(*p);
      if (c == Amp) {
        ++p;
        break;
      }
      if (c == Equal && !inValue) {
        inValue = true;
        out = &item->second;
        ++p;
      } else if (c == Plus) {
        *out += ' ';
        ++p;
      } else if (c == Percent && last - p >= 3 && url_impl::HexValue(static_cast<unsigned char>(p[1])) >= 0 &&
                 url_impl::HexValue(static_cast<unsigned char>(p[2])) >= 0) {
        *out += static_cast<char>(url_impl::HexValue(static_cast<unsigned char>(p[1])) * 16 +
                                  url_impl::HexValue(static_cast<unsigned char>(p[2])));
        p += 3;
      } else {
        *out += *p; // a second '=', or a '%' that starts no escape
        ++p;
      }
    }
  }
  spare.splice(spare.end(), items, reuse, items.end());
}

// Fills `url` (already cleared) from `text`; returns an empty text or the failure message.
std::string ParseInto(Url& url, const std::string& text, bool normalize, Url::QueryParameters& spare) {
  UriGuard guard;
  UriParserStateA state{};
  state.uri = &guard.uri;
  int rc = uriParseUriA(&state, text.c_str());
  if (rc == URI_ERROR_SYNTAX) {
    long offset = state.errorPos ? static_cast<long>(state.errorPos - text.c_str()) : 0;
    return "fail to parse uri UriParser syntax error @" + qzStringUtils::fromInt(offset);
  }
  if (rc != URI_SUCCESS)
    return "fail to parse uri UriParser error " + qzStringUtils::fromInt(rc);
  // uriparser releases what it built itself when the parse fails.
  guard.parsed = true;

  if (normalize) {
    rc = uriNormalizeSyntaxExA(&guard.uri, URI_NORMALIZE_SCHEME | URI_NORMALIZE_HOST);
    if (rc != URI_SUCCESS)
      return "fail to normalize uri UriParser error " + qzStringUtils::fromInt(rc);
  }

  if (!RangeEmpty(guard.uri.scheme))
    url.scheme.assign(guard.uri.scheme.first, guard.uri.scheme.afterLast);

  if (!RangeEmpty(guard.uri.userInfo)) {
    const char* first = guard.uri.userInfo.first;
    const char* last = guard.uri.userInfo.afterLast;
    const char* colon = first;
    while (colon < last && *colon != ':')
      ++colon;
    if (colon == last)
      return "invalid url user info, ':' is missing";
    // Split before decoding (an encoded ':' belongs to its field). Both fields are empty after
    // the clear: decode in place, no temporary copy of the secret.
    url_impl::AppendDecoded(url.user, first, colon, false);
    url_impl::AppendDecoded(url.password, colon + 1, last, false);
  }

  // The host buffer was emptied without being released: assigning in place costs no allocation.
  const UriTextRangeA& h = guard.uri.hostText;
  if (!RangeEmpty(h))
    url.host.assign(h.first, static_cast<size_t>(h.afterLast - h.first));
  // uriparser has already read an IP literal: its bytes spare a second parse of the text.
  if (const UriIp4* ip4 = guard.uri.hostData.ip4) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    std::memcpy(&a.sin_addr, ip4->data, sizeof ip4->data);
    url.ipAddress.fromIPv4(&a);
  } else if (const UriIp6* ip6 = guard.uri.hostData.ip6) {
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    std::memcpy(&a.sin6_addr, ip6->data, sizeof ip6->data);
    url.ipAddress.fromIPv6(&a);
  } else {
    url.ipAddress.fromStringAddress(url.host, IpAddress::IPT_None);
  }
  if (url.ipAddress.getType() == IpAddress::IPT_IPv6) {
    char canonical[ip_impl::kIPv6TextMax + 2];
    canonical[0] = '[';
    const size_t n = ip_impl::FormatIPv6(url.ipAddress.getIPv6Sockaddr()->sin6_addr.s6_addr, canonical + 1);
    canonical[n + 1] = ']';
    url.host.assign(canonical, n + 2);
  } else if (guard.uri.hostData.ip6 || guard.uri.hostData.ipFuture.first) {
    url.host.insert(0, 1, '[').append(1, ']'); // an IP literal keeps the brackets it was written with
  }

  if (guard.uri.portText.first)
    url.port = ParsePort(guard.uri.portText);

  for (const UriPathSegmentA* seg = guard.uri.pathHead; seg; seg = seg->next) {
    std::string& segment = url.pathSegments.emplace_back();
    if (!RangeEmpty(seg->text))
      AppendDecoded(segment, seg->text.first, seg->text.afterLast, false);
  }

  if (!RangeEmpty(guard.uri.query))
    DissectQuery(guard.uri.query.first, guard.uri.query.afterLast, url.queryParameters, spare);
  return {};
}

} // namespace

bool Url::fromEncodedUtf8String(const std::string& text, std::string* errorMessage, bool normalize) {
  QueryParameters spare;
  spare.swap(queryParameters);
  clearUrl(ClearAll);
  std::string error = ParseInto(*this, text, normalize, spare);
  ParkQueryNodes(spare);
  if (error.empty())
    return true;
  if (errorMessage)
    *errorMessage = error;
  else
    qzLogObject(qzLog::Error, "url") << error;
  clearUrl(ClearAll);
  return false;
}

std::string Url::getQueryParameters(bool hideSecrets) const {
  using namespace url_impl;
  std::string out;
  bool first = true;
  for (const auto& [key, value] : queryParameters) {
    if (!first)
      out += kItemSeparator;
    first = false;
    std::string encodedKey = UrlEncodeFromUtf8String(key);
    bool masked =
        hideSecrets && (encodedKey.find("secret") != std::string::npos || encodedKey.find("pwd") != std::string::npos ||
                        encodedKey.find("password") != std::string::npos);
    out += encodedKey;
    out += kKeyValueSeparator;
    out += masked ? kSecretMask : UrlEncodeFromUtf8String(value);
  }
  if (!authDbName.empty() && !user.empty() && !password.empty()) {
    if (!out.empty())
      out += kItemSeparator;
    out += "user";
    out += kKeyValueSeparator;
    out += hideSecrets ? kSecretMask : UrlEncodeFromUtf8String(user);
    out += kItemSeparator;
    out += "password";
    out += kKeyValueSeparator;
    out += hideSecrets ? kSecretMask : UrlEncodeFromUtf8String(password);
    out += kItemSeparator;
    out += "authdbname";
    out += kKeyValueSeparator;
    out += UrlEncodeFromUtf8String(authDbName);
  }
  return out;
}

bool Url::operator==(const Url& other) const {
  return host == other.host && user == other.user && password == other.password && pathSegments == other.pathSegments &&
         port == other.port && scheme == other.scheme;
}

bool url_impl::SplitLastSegment(Url* url, std::string* last, const std::string& text) {
  if (last)
    last->clear();
  std::string parseError; // a bad URL is reported by the result alone
  if (!url || !url->fromEncodedUtf8String(text, &parseError, false))
    return false;
  if (url->pathSegments.empty()) {
    url->clearUrl(Url::ClearAll);
  } else {
    if (last)
      *last = url->pathSegments.back();
    url->pathSegments.pop_back();
  }
  return url->isValid();
}

} // namespace qz
