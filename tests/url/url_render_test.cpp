#include <HttpTools/url/Url.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Items = qz::Url::QueryParameters;
using Segs = std::vector<std::string>;

TEST(UrlEncoding, EncodeKeepsOnlyUnreserved) {
  struct Case {
    std::string in, out;
  };
  for (const Case& c :
       {Case{"", ""}, Case{"AZaz09-._~", "AZaz09-._~"}, Case{"a b/c?d", "a%20b%2Fc%3Fd"}, Case{"\xC3\xA9", "%C3%A9"},
        Case{"+&=%:@!*'()[]#$,;", "%2B%26%3D%25%3A%40%21%2A%27%28%29%5B%5D%23%24%2C%3B"}, Case{"\r\n\t", "%0D%0A%09"},
        Case{std::string("a\0b", 3), "a%00b"}, Case{"\xFF\x80", "%FF%80"}}) {
    EXPECT_EQ(qz::Url::UrlEncodeFromUtf8String(c.in), c.out);
  }
}

TEST(UrlEncoding, DecodeLeavesPlusAndBadEscapes) {
  struct Case {
    std::string in, out;
  };
  for (const Case& c : {Case{"a+b%20c", "a+b c"}, Case{"%C3%a9", "\xC3\xA9"}, Case{"%zz%", "%zz%"}, Case{"%4", "%4"},
                        Case{"%%41", "%A"}, Case{"%2541", "%41"}, Case{"%00x", std::string("\0x", 2)},
                        Case{std::string("a\0%41", 5), std::string("a\0A", 3)}, Case{"%0D%0A", "\r\n"}, Case{"", ""}}) {
    EXPECT_EQ(qz::Url::UrlDecodeToUtf8String(c.in), c.out) << c.in;
  }
}

TEST(UrlEncoding, EveryByteRoundTrips) {
  std::string all;
  for (int i = 0; i < 256; ++i)
    all += static_cast<char>(i);
  std::string encoded = qz::Url::UrlEncodeFromUtf8String(all);
  EXPECT_EQ(encoded.size(), 66u + 3u * 190u);
  EXPECT_EQ(qz::Url::UrlDecodeToUtf8String(encoded), all);
}

TEST(UrlEncoding, QueryAndPostEncodings) {
  const Items items{{"a", "x y"}, {"b", "1&2"}, {"", ""}, {"k=", "=v"}};
  EXPECT_EQ(qz::Url::ToQueryEncoding(items), "a=x%20y&b=1%262&=&k%3D=%3Dv");
  EXPECT_EQ(qz::Url::ToPostEncoding(items), "a=x y&b=1&2&=&k===v");
  EXPECT_EQ(qz::Url::ToQueryEncoding({}), "");
  EXPECT_EQ(qz::Url::ToPostEncoding({}), "");
}

TEST(UrlPath, EncodedPathJoinsWithoutOuterSlashes) {
  EXPECT_EQ(qz::Url::ToEncodedPath({}), "");
  EXPECT_EQ(qz::Url::ToEncodedPath({"db", "my doc", "a/b"}), "db/my%20doc/a%2Fb");
  EXPECT_EQ(qz::Url::ToEncodedPath({"", "x", ""}), "/x/");
}

TEST(UrlPath, SplittingSkipsEmptyPieces) {
  struct Case {
    std::string text;
    Segs encoded;    // setEncodedPath / FromEncodedPath
    Segs nonEncoded; // setNonEncodedPath
  };
  for (const Case& c :
       {Case{"/db//my%20doc/", {"db", "my doc"}, {"db", "my%20doc"}}, Case{"", {}, {}}, Case{"///", {}, {}},
        Case{"a", {"a"}, {"a"}}, Case{"a%2Fb/c+d", {"a/b", "c+d"}, {"a%2Fb", "c+d"}}}) {
    qz::Url url("http://h/old/path");
    url.setEncodedPath(c.text);
    EXPECT_EQ(url.pathSegments, c.encoded) << c.text;
    url.setNonEncodedPath(c.text);
    EXPECT_EQ(url.pathSegments, c.nonEncoded) << c.text;
    Segs out{"stale"};
    qz::Url::FromEncodedPath(c.text, out);
    EXPECT_EQ(out, c.encoded) << c.text;
  }
  qz::Url url("http://h/a%20b/c");
  EXPECT_EQ(url.getEncodedPath(), "a%20b/c");
}

struct RenderCase {
  const char* name;
  qz::Url url;
  const char* encoded;
  const char* displayable;
};

qz::Url Make(const std::string& scheme, const std::string& host, uint16_t port, Segs path = {}, Items query = {}) {
  qz::Url u;
  u.scheme = scheme;
  u.host = host;
  u.port = port;
  u.pathSegments = std::move(path);
  u.queryParameters = std::move(query);
  return u;
}

qz::Url WithHeaderCreds(qz::Url u, const std::string& user, const std::string& pw) {
  u.setCredentialsOnHttpHeaders(user, pw);
  return u;
}

qz::Url WithQueryCreds(qz::Url u, const std::string& user, const std::string& pw, const std::string& db) {
  u.setCredentialsOnQueryParameter(user, pw, db);
  return u;
}

TEST(UrlRender, EncodedAndDisplayableForms) {
  // clang-format off
  const std::vector<RenderCase> cases{
    {"bare", Make("http", "h", 0), "http://h", "http://h"},
    {"empty", qz::Url(), "://", "://"},
    {"header creds", WithHeaderCreds(Make("http", "h", 0), "u", "p"), "http://u:p@h", "http://u:*******@h"},
    {"creds encoded, user shown raw", WithHeaderCreds(Make("http", "h", 8080, {"a b"}), "u ser", "p@ss:w"),
     "http://u%20ser:p%40ss%3Aw@h:8080/a%20b", "http://u ser:*******@h:8080/a%20b"},
    {"user without password", WithHeaderCreds(Make("http", "h", 0), "u", ""), "http://h", "http://h"},
    {"password without user", WithHeaderCreds(Make("http", "h", 0), "", "p"), "http://h", "http://h"},
    {"query creds", WithQueryCreds(Make("https", "db", 443, {"x"}), "u", "p w", "admin"),
     "https://db:443/x?user=u&password=p%20w&authdbname=admin",
     "https://db:443/x?user=********&password=********&authdbname=admin"},
    {"query creds after items", WithQueryCreds(Make("http", "h", 0, {}, {{"a", "1"}}), "u", "p", "db"),
     "http://h?a=1&user=u&password=p&authdbname=db", "http://h?a=1&user=********&password=********&authdbname=db"},
    {"query creds need all three", WithQueryCreds(Make("http", "h", 0), "u", "", "db"), "http://h", "http://h"},
    {"secret-looking keys", Make("http", "h", 0, {}, {{"client_secret", "s"}, {"mypassword", "x"}, {"pwd", "y"},
                                                       {"PWD", "z"}, {"Password", "w"}, {"q", "v v"}}),
     "http://h?client_secret=s&mypassword=x&pwd=y&PWD=z&Password=w&q=v%20v",
     "http://h?client_secret=********&mypassword=********&pwd=********&PWD=z&Password=w&q=v%20v"},
    {"ipv6 host and empty segments", Make("http", "[::1]", 1, {"", "a", ""}), "http://[::1]:1//a/", "http://[::1]:1//a/"},
    {"empty scheme", Make("", "h", 0, {"p"}), "://h/p", "://h/p"},
  };
  // clang-format on
  for (const RenderCase& c : cases) {
    EXPECT_EQ(c.url.toEncodedUrl(), c.encoded) << c.name;
    EXPECT_EQ(c.url.toDisplayableUrl(), c.displayable) << c.name;
  }
}

TEST(UrlQuery, CredentialsOnQueryParameters) {
  qz::Url url("http://h/");
  url.setCredentialsOnQueryParameter("u", "p", "admin");
  EXPECT_EQ(url.getQueryParameters(false), "user=u&password=p&authdbname=admin");
  EXPECT_EQ(url.getQueryParameters(true), "user=********&password=********&authdbname=admin");
  url.setCredentialsOnQueryParameter("u", "p", "");
  EXPECT_EQ(url.getQueryParameters(false), "");
  // Switching to header credentials drops the database name.
  url.setCredentialsOnQueryParameter("u", "p", "admin");
  url.setCredentialsOnHttpHeaders("v", "q");
  EXPECT_TRUE(url.authDbName.empty());
  EXPECT_EQ(url.getQueryParameters(false), "");
  EXPECT_EQ(url.toEncodedUrl(), "http://v:q@h");
  url.clearCredentials();
  EXPECT_EQ(url.toEncodedUrl(), "http://h");
}

TEST(UrlToUrl, AppendsSegmentsAndReplacesQuery) {
  const qz::Url base("http://u:p@h:1/x?old=1");
  const Items q{{"k", "v"}};
  struct Case {
    qz::Url made;
    const char* expected;
  };
  const std::vector<Case> cases{
      {base.toUrl({}), "http://u:p@h:1/x"},
      {base.toUrl(q), "http://u:p@h:1/x?k=v"},
      {base.toUrl("a/b", {}), "http://u:p@h:1/x/a%2Fb"},
      {base.toUrl("a", "b", q), "http://u:p@h:1/x/a/b?k=v"},
      {base.toUrl("a", "", "c", q), "http://u:p@h:1/x/a//c?k=v"},
      {base.toUrl("1", "2", "3", "4", q), "http://u:p@h:1/x/1/2/3/4?k=v"},
      {base.toUrl(Segs{"db", "_design", "app"}, q), "http://u:p@h:1/x/db/_design/app?k=v"},
      {base.toUrl(Segs{}, {}), "http://u:p@h:1/x"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(c.made.toEncodedUrl(), c.expected);
  EXPECT_EQ(base.toEncodedUrl(), "http://u:p@h:1/x?old=1") << "the source stays unchanged";

  qz::Url withIp("http://127.0.0.1:5984/");
  withIp.authDbName = "admin";
  qz::Url copy = withIp.toUrl("db", {});
  EXPECT_EQ(copy.ipAddress.getAddressAsString(false), "127.0.0.1");
  EXPECT_EQ(copy.authDbName, "admin");
  EXPECT_EQ(copy.pathSegments, Segs({"", "db"})) << "appended after the parsed empty segment";
}

} // namespace
