// URL text to qz::Url: never crashes; a valid URL re-parses from its own encoded form to the same
// fields, and path and escape helpers round-trip any bytes.
#include <HttpTools/url/Url.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

#define Check(cond)                                                                                                    \
  do {                                                                                                                 \
    if (!(cond)) {                                                                                                     \
      std::fprintf(stderr, "check failed at line %d: %s\n", __LINE__, #cond);                                          \
      std::abort();                                                                                                    \
    }                                                                                                                  \
  } while (0)

// What a URL looks like after one rendering and parse. The credentials are rendered encoded but
// parsed as written, and only travel when both halves are set; a lone empty segment (from a
// trailing '/') renders as no path at all.
void CheckReparse(const qz::Url& url) {
  if (!url.isValid())
    return;
  const std::string text = url.toEncodedUrl();
  qz::Url back;
  std::string error;
  Check(back.fromEncodedUtf8String(text, &error, false));
  const bool creds = !url.user.empty() && !url.password.empty();
  Check(back.scheme == url.scheme);
  Check(back.host == url.host);
  Check(back.port == url.port);
  Check(back.user == (creds ? url.user : std::string())); // decoded when parsed, encoded once when written
  Check(back.password == (creds ? url.password : std::string()));
  const bool loneEmpty = url.pathSegments.size() == 1 && url.pathSegments[0].empty();
  Check(back.pathSegments == (loneEmpty ? std::vector<std::string>() : url.pathSegments));
  Check(back.queryParameters == url.queryParameters);
  Check(back.ipAddress == url.ipAddress);
  Check(back.toEncodedUrl() == text);
  (void)url.toDisplayableUrl();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  for (bool normalize : {false, true}) {
    qz::Url url;
    std::string error;
    if (url.fromEncodedUtf8String(text, &error, normalize))
      CheckReparse(url);
    else
      Check(!error.empty() && !url.isValid() && url.pathSegments.empty() && url.queryParameters.empty());
  }

  qz::Url url(qz::Url::ClearToLocalHttp);
  url.ipAddress.fromStringAddress(url.host, qz::IpAddress::IPT_None);
  url.setEncodedPath(text);
  for (const std::string& segment : url.pathSegments)
    Check(!segment.empty());
  const std::string path = url.getEncodedPath();
  qz::Url again(qz::Url::ClearToLocalHttp);
  again.setEncodedPath(path);
  Check(again.pathSegments == url.pathSegments);
  CheckReparse(url);

  Check(qz::Url::UrlDecodeToUtf8String(qz::Url::UrlEncodeFromUtf8String(text)) == text);
  return 0;
}
