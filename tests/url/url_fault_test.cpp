// uriparser fails on its own only when memory runs out; these tests make it fail on demand by
// interposing its entry points (the test program's definitions win over the shared library's).
#include <HttpTools/url/Url.h>

#include "support/LogCapture.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <uriparser/Uri.h>

namespace {

int g_parseFailure = 0;     // code uriParseUriA returns instead of parsing, 0 = none
int g_normalizeFailure = 0; // the same for uriNormalizeSyntaxExA

template <typename Fn> Fn Real(const char* name) { return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name)); }

} // namespace

extern "C" int uriParseUriA(UriParserStateA* state, const char* text) {
  if (g_parseFailure)
    return g_parseFailure;
  static auto real = Real<int (*)(UriParserStateA*, const char*)>("uriParseUriA");
  return real(state, text);
}

extern "C" int uriNormalizeSyntaxExA(UriUriA* uri, unsigned int mask) {
  if (g_normalizeFailure)
    return g_normalizeFailure;
  static auto real = Real<int (*)(UriUriA*, unsigned int)>("uriNormalizeSyntaxExA");
  return real(uri, mask);
}

namespace {

struct FaultGuard {
  ~FaultGuard() { g_parseFailure = g_normalizeFailure = 0; }
};

TEST(UrlParseFault, ParserErrorsOtherThanSyntax) {
  FaultGuard guard;
  g_parseFailure = URI_ERROR_MALLOC;
  qz::Url url("https://h/x");
  std::string error;
  EXPECT_FALSE(url.fromEncodedUtf8String("http://u:p@h/", &error, false));
  EXPECT_EQ(error, "fail to parse uri UriParser error " + std::to_string(URI_ERROR_MALLOC));
  EXPECT_FALSE(url.isValid());
}

TEST(UrlParseFault, NormalisationFailureLeavesNothingBehind) {
  FaultGuard guard;
  g_normalizeFailure = URI_ERROR_MALLOC;
  qz::Url url;
  std::string error;
  // Without normalisation the parse does not reach the failing call.
  EXPECT_TRUE(url.fromEncodedUtf8String("HTTP://U:P@H:1/A?b=c", &error, false));
  EXPECT_FALSE(url.fromEncodedUtf8String("HTTP://U:P@H:1/A?b=c", &error, true));
  EXPECT_EQ(error, "fail to normalize uri UriParser error " + std::to_string(URI_ERROR_MALLOC));
  EXPECT_EQ(url, qz::Url());
  EXPECT_TRUE(url.queryParameters.empty());

  qztest::LogCapture cap;
  EXPECT_FALSE(url.fromEncodedUtf8String("http://h/", nullptr, true));
  EXPECT_TRUE(cap.has("url", "fail to normalize uri UriParser error " + std::to_string(URI_ERROR_MALLOC)));
}

} // namespace
