// uriparser fails on its own only when memory runs out; these tests make it fail on demand by
// interposing its entry points (the test program's definitions win over the shared library's).
#include <HttpTools/url/Url.h>
#include <HttpTools/url/Url_p.h>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <uriparser/Uri.h>

namespace {

using qz::url_impl::IsSameUrlValue;
int g_parseFailure = 0;     // code uriParseUriA returns instead of parsing, 0 = none
int g_normalizeFailure = 0; // the same for uriNormalizeSyntaxExA

template <typename Fn> Fn Real(const char* name) { return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name)); }

} // namespace

extern "C" int uriParseUriA(UriParserStateA* state, const char* text) {
  static auto real = Real<int (*)(UriParserStateA*, const char*)>("uriParseUriA");
  return g_parseFailure ? g_parseFailure : real(state, text);
}

extern "C" int uriNormalizeSyntaxExA(UriUriA* uri, unsigned int mask) {
  static auto real = Real<int (*)(UriUriA*, unsigned int)>("uriNormalizeSyntaxExA");
  return g_normalizeFailure ? g_normalizeFailure : real(uri, mask);
}

namespace {

TEST(UrlParseFault, ParserAndNormalisationErrorsLeaveNothingBehind) {
  struct Guard {
    ~Guard() { g_parseFailure = g_normalizeFailure = 0; }
  } guard;
  const std::string code = std::to_string(URI_ERROR_MALLOC);
  qz::Url url("https://u:p@h/x?a=b");
  std::string error;
  g_parseFailure = URI_ERROR_MALLOC;
  EXPECT_FALSE(url.fromEncodedUtf8String("http://u:p@h/", &error, false));
  EXPECT_TRUE(error == "fail to parse uri UriParser error " + code && IsSameUrlValue(url, qz::Url())) << error;
  g_parseFailure = 0;
  g_normalizeFailure = URI_ERROR_MALLOC;
  // Without normalisation the parse does not reach the failing call.
  EXPECT_TRUE(url.fromEncodedUtf8String("HTTP://U:P@H:1/A?b=c", &error, false));
  EXPECT_FALSE(url.fromEncodedUtf8String("HTTP://U:P@H:1/A?b=c", &error, true));
  EXPECT_TRUE(error == "fail to normalize uri UriParser error " + code && IsSameUrlValue(url, qz::Url())) << error;
}

} // namespace
