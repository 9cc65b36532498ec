#include <HttpTools/url/Url.h>

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

using Items = qz::Url::QueryParameters;
using Segs = std::vector<std::string>;

TEST(UrlEncoding, EncodeKeepsOnlyUnreservedAndDecodeLeavesPlusAndBadEscapes) {
  // plain, encoded, and whether encoding gives that text (false: a text only decoding accepts)
  const std::tuple<std::string, std::string, bool> cases[] = {
      {"", "", true},
      {"AZaz09-._~", "AZaz09-._~", true},
      {"a b/c?d", "a%20b%2Fc%3Fd", true},
      {"\xC3\xA9", "%C3%A9", true},
      {std::string("\r\0\xFF", 3), "%0D%00%FF", true},
      {"+&=%:@!*'()[]#$,;", "%2B%26%3D%25%3A%40%21%2A%27%28%29%5B%5D%23%24%2C%3B", true},
      {"a+b c", "a+b%20c", false},
      {"\xC3\xA9", "%C3%a9", false},
      {"%zz%", "%zz%", false},
      {"%4", "%4", false},
      {"%A", "%%41", false},
      {"%41", "%2541", false},
      {std::string("a\0A", 3), std::string("a\0%41", 5), false}};
  for (const auto& [plain, encoded, encodes] : cases) {
    EXPECT_EQ(qz::Url::UrlDecodeToUtf8String(encoded), plain) << encoded;
    EXPECT_TRUE(!encodes || qz::Url::UrlEncodeFromUtf8String(plain) == encoded) << encoded;
  }
  std::string all;
  for (int i = 0; i < 256; ++i)
    all += static_cast<char>(i);
  const std::string encoded = qz::Url::UrlEncodeFromUtf8String(all);
  EXPECT_EQ(encoded.size(), 66u + 3u * 190u) << "66 unreserved bytes";
  EXPECT_EQ(qz::Url::UrlDecodeToUtf8String(encoded), all);
}

TEST(UrlEncoding, QueryPostAndPathEncodings) {
  const Items items{{"a", "x y"}, {"b", "1&2"}, {"", ""}, {"k=", "=v"}};
  EXPECT_EQ(qz::Url::ToQueryEncoding(items), "a=x%20y&b=1%262&=&k%3D=%3Dv");
  EXPECT_EQ(qz::Url::ToPostEncoding(items), "a=x y&b=1&2&=&k===v");
  EXPECT_EQ(qz::Url::ToQueryEncoding({}) + qz::Url::ToPostEncoding({}) + qz::Url::ToEncodedPath({}), "");
  EXPECT_EQ(qz::Url::ToEncodedPath({"db", "my doc", "a/b"}), "db/my%20doc/a%2Fb");
  EXPECT_EQ(qz::Url::ToEncodedPath({"", "x", ""}), "/x/");
  // Dot segments stay segments: a client would otherwise remove them (and reach the parent).
  EXPECT_EQ(qz::Url::ToEncodedPath({".", "a.", "..", "..."}), "%2E/a./%2E%2E/...");
  for (bool normalize : {false, true}) {
    qz::Url back;
    ASSERT_TRUE(back.fromEncodedUtf8String(qz::Url("http://h").toUrl("mydb", "doc1", "..", {}).toEncodedUrl(), nullptr,
                                           normalize));
    EXPECT_EQ(back.pathSegments, (Segs{"mydb", "doc1", ".."})) << normalize;
  }
  EXPECT_EQ(qz::Url("http://h/a%20b/c").getEncodedPath(), "a%20b/c");
}

TEST(UrlPath, SplittingSkipsEmptyPieces) {
  // text; segments by setEncodedPath and FromEncodedPath; segments by setNonEncodedPath
  const std::tuple<std::string, Segs, Segs> cases[] = {{"/db//my%20doc/", {"db", "my doc"}, {"db", "my%20doc"}},
                                                       {"", {}, {}},
                                                       {"///", {}, {}},
                                                       {"a%2Fb/c+d", {"a/b", "c+d"}, {"a%2Fb", "c+d"}}};
  for (const auto& [text, encoded, nonEncoded] : cases) {
    qz::Url url("http://h/old/path"), raw("http://h/old/path");
    url.setEncodedPath(text);
    raw.setNonEncodedPath(text);
    Segs out{"stale"};
    qz::Url::FromEncodedPath(text, out);
    EXPECT_EQ(std::tuple(url.pathSegments, out, raw.pathSegments), std::tuple(encoded, encoded, nonEncoded)) << text;
  }
}

// A parsed URL with credentials set as callers do: on the headers, or with a database on the query.
qz::Url Make(const char* text, const char* user = nullptr, const char* pw = "", const char* db = nullptr) {
  qz::Url u{std::string(text)};
  if (user && db)
    u.setCredentialsOnQueryParameter(user, pw, db);
  else if (user)
    u.setCredentialsOnHttpHeaders(user, pw);
  return u;
}

TEST(UrlRender, EncodedAndDisplayableForms) {
  // clang-format off
  const std::tuple<qz::Url, const char*, const char*> cases[] = {
    {qz::Url(), "://", "://"},
    {Make("http://h", "u", "p"), "http://u:p@h", "http://u:*******@h"},
    {Make("http://h:8080/a%20b", "u ser", "p@ss:w"), "http://u%20ser:p%40ss%3Aw@h:8080/a%20b",
     "http://u%20ser:*******@h:8080/a%20b"},
    {Make("http://h", "u", ""), "http://h", "http://h"},
    {Make("http://h", "", "p"), "http://h", "http://h"},
    {Make("https://db:443/x", "u", "p w", "admin"), "https://db:443/x?user=u&password=p%20w&authdbname=admin",
     "https://db:443/x?user=********&password=********&authdbname=admin"},
    {Make("http://h?a=1", "u", "p", "db"), "http://h?a=1&user=u&password=p&authdbname=db",
     "http://h?a=1&user=********&password=********&authdbname=db"},
    {Make("http://h", "u", "", "db"), "http://h", "http://h"},
    {Make("http://h?client_secret=s&mypassword=x&pwd=y&PWD=z&Password=w&q=v+v"),
     "http://h?client_secret=s&mypassword=x&pwd=y&PWD=z&Password=w&q=v%20v",
     "http://h?client_secret=********&mypassword=********&pwd=********&PWD=z&Password=w&q=v%20v"},
    {Make("http://[::1]:1//a/"), "http://[::1]:1//a/", "http://[::1]:1//a/"},
  };
  // clang-format on
  for (const auto& [url, encoded, displayable] : cases)
    EXPECT_EQ(url.toEncodedUrl() + " " + url.toDisplayableUrl(), std::string(encoded) + " " + displayable);
}

TEST(UrlQuery, CredentialsOnQueryParameters) {
  qz::Url url = Make("http://h/", "us er", "p&w=d", "admin");
  EXPECT_EQ(url.getQueryParameters(false), "user=us%20er&password=p%26w%3Dd&authdbname=admin");
  EXPECT_EQ(url.getQueryParameters(true), "user=********&password=********&authdbname=admin");
  const qz::Url back(url.toEncodedUrl());
  EXPECT_TRUE(back.user.empty()) << back.user;
  EXPECT_EQ(back.queryParameters, Items({{"user", "us er"}, {"password", "p&w=d"}, {"authdbname", "admin"}}));
  url.setCredentialsOnQueryParameter("u", "p", "");
  EXPECT_EQ(url.getQueryParameters(false), "");
  // Switching to header credentials drops the database name.
  url.setCredentialsOnQueryParameter("u", "p", "admin");
  url.setCredentialsOnHttpHeaders("v", "q");
  EXPECT_TRUE(url.authDbName.empty());
  EXPECT_EQ(url.toEncodedUrl(), "http://v:q@h");
}

TEST(UrlToUrl, AppendsSegmentsAndReplacesQuery) {
  const qz::Url base("http://u:p@h:1/x?old=1");
  const Items q{{"k", "v"}};
  for (const auto& [made, expected] : {std::pair{base.toUrl({}), "http://u:p@h:1/x"},
                                       {base.toUrl(q), "http://u:p@h:1/x?k=v"},
                                       {base.toUrl("a/b", {}), "http://u:p@h:1/x/a%2Fb"},
                                       {base.toUrl("a", "", q), "http://u:p@h:1/x/a/?k=v"},
                                       {base.toUrl("a", "", "c", q), "http://u:p@h:1/x/a//c?k=v"},
                                       {base.toUrl("1", "2", "3", "4", q), "http://u:p@h:1/x/1/2/3/4?k=v"},
                                       {base.toUrl(Segs{"db", "_design"}, q), "http://u:p@h:1/x/db/_design?k=v"}})
    EXPECT_EQ(made.toEncodedUrl(), expected);
  EXPECT_EQ(base.toEncodedUrl(), "http://u:p@h:1/x?old=1") << "the source stays unchanged";

  qz::Url withIp("http://127.0.0.1:5984/");
  withIp.authDbName = "admin";
  const qz::Url copy = withIp.toUrl("db", {});
  EXPECT_EQ(copy.ipAddress.getAddressAsString(false) + " " + copy.authDbName, "127.0.0.1 admin");
  EXPECT_EQ(copy.pathSegments, Segs({"", "db"})) << "appended after the parsed empty segment";
}

} // namespace
