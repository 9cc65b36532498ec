#include <HttpTools/url/Url.h>

#include <HttpTools/url/Url_p.h>

#include <charconv>

namespace qz {

using namespace url_impl;

namespace {

// The unreserved characters of RFC 3986, which uriparser's escaping leaves as they are.
constexpr bool IsUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

void AppendEncoded(std::string& out, const std::string& text) {
  static const char kHex[] = "0123456789ABCDEF";
  for (unsigned char c : text) {
    if (IsUnreserved(c)) {
      out += static_cast<char>(c);
    } else {
      const char escaped[3] = {'%', kHex[c >> 4], kHex[c & 0xF]};
      out.append(escaped, 3);
    }
  }
}

// Splits at '/', skipping empty pieces.
template <typename Fn> void SplitPath(const std::string& text, Fn&& add) {
  size_t start = 0;
  while (start <= text.size()) {
    size_t slash = text.find('/', start);
    if (slash == std::string::npos)
      slash = text.size();
    if (slash > start)
      add(text.substr(start, slash - start));
    start = slash + 1;
  }
}

} // namespace

// Same rules as uriparser's uriEscapeExA (no space-to-plus, line breaks untouched), done here so
// that a zero byte inside the text is encoded instead of ending it.
std::string Url::UrlEncodeFromUtf8String(const std::string& text) {
  std::string out;
  out.reserve(text.size() * 3 + 1);
  AppendEncoded(out, text);
  return out;
}

std::string Url::UrlDecodeToUtf8String(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  AppendDecoded(out, text.data(), text.data() + text.size(), false);
  return out;
}

namespace {
// key=value items joined by '&'; `escape` percent-encodes keys and values.
std::string JoinItems(const Url::QueryParameters& params, bool escape) {
  std::string out;
  bool first = true;
  for (const auto& [key, value] : params) {
    if (!first)
      out += kItemSeparator;
    first = false;
    if (escape)
      AppendEncoded(out, key);
    else
      out += key;
    out += kKeyValueSeparator;
    if (escape)
      AppendEncoded(out, value);
    else
      out += value;
  }
  return out;
}
} // namespace

std::string Url::ToQueryEncoding(const QueryParameters& params) { return JoinItems(params, true); }

std::string Url::ToPostEncoding(const QueryParameters& params) { return JoinItems(params, false); }

namespace {
void AppendPath(std::string& out, const std::vector<std::string>& segments) {
  for (size_t i = 0; i < segments.size(); ++i) {
    if (i)
      out += '/';
    // A segment that is exactly "." or ".." would be a dot segment, which clients remove.
    const std::string& segment = segments[i];
    if (segment == "." || segment == "..")
      out += segment.size() == 1 ? "%2E" : "%2E%2E";
    else
      AppendEncoded(out, segment);
  }
}
} // namespace

std::string Url::ToEncodedPath(const std::vector<std::string>& segments) {
  std::string out;
  AppendPath(out, segments);
  return out;
}

void Url::FromEncodedPath(const std::string& text, std::vector<std::string>& segments) {
  std::vector<std::string> result;
  SplitPath(text, [&](std::string piece) { result.push_back(UrlDecodeToUtf8String(piece)); });
  segments = std::move(result);
}

std::string Url::getEncodedPath() const { return ToEncodedPath(pathSegments); }

void Url::setEncodedPath(const std::string& text) { FromEncodedPath(text, pathSegments); }

void Url::setNonEncodedPath(const std::string& text) {
  std::vector<std::string> result;
  SplitPath(text, [&](std::string piece) { result.push_back(std::move(piece)); });
  pathSegments = std::move(result);
}

namespace {

// The two renderings differ only in how the password and the query secrets are shown.
std::string Render(const Url& url, bool displayable) {
  std::string out;
  out.reserve(url.scheme.size() + url.host.size() + 64);
  out += url.scheme;
  out += "://";
  if (url.authDbName.empty() && !url.user.empty() && !url.password.empty()) {
    // The user is stored decoded: both forms write it as it would be typed in a URL.
    if (displayable) {
      AppendEncoded(out, url.user);
      out += ":*******@";
    } else {
      AppendEncoded(out, url.user);
      out += ':';
      AppendEncoded(out, url.password);
      out += '@';
    }
  }
  out += url.host;
  if (url.port != 0) {
    char digits[8];
    out += ':';
    out.append(digits, std::to_chars(digits, digits + sizeof digits, url.port).ptr);
  }
  // Appended in place (a URL is rendered for every request); an empty path adds no separator.
  const size_t pathStart = out.size() + 1;
  out += '/';
  AppendPath(out, url.pathSegments);
  if (out.size() == pathStart)
    out.pop_back();
  if (!url.queryParameters.empty() || !url.authDbName.empty()) {
    std::string query = url.getQueryParameters(displayable);
    if (!query.empty()) {
      out += '?';
      out += query;
    }
  }
  return out;
}

} // namespace

std::string Url::toEncodedUrl() const { return Render(*this, false); }

std::string Url::toDisplayableUrl() const { return Render(*this, true); }

Url Url::toUrl(const QueryParameters& params) const {
  Url copy(*this);
  copy.queryParameters = params;
  return copy;
}

Url Url::toUrl(const std::vector<std::string>& subPaths, const QueryParameters& params) const {
  Url copy(*this);
  copy.pathSegments.insert(copy.pathSegments.end(), subPaths.begin(), subPaths.end());
  copy.queryParameters = params;
  return copy;
}

Url Url::toUrl(const std::string& p1, const QueryParameters& params) const {
  return toUrl(std::vector<std::string>{p1}, params);
}

Url Url::toUrl(const std::string& p1, const std::string& p2, const QueryParameters& params) const {
  return toUrl(std::vector<std::string>{p1, p2}, params);
}

Url Url::toUrl(const std::string& p1, const std::string& p2, const std::string& p3,
               const QueryParameters& params) const {
  return toUrl(std::vector<std::string>{p1, p2, p3}, params);
}

Url Url::toUrl(const std::string& p1, const std::string& p2, const std::string& p3, const std::string& p4,
               const QueryParameters& params) const {
  return toUrl(std::vector<std::string>{p1, p2, p3, p4}, params);
}

} // namespace qz
