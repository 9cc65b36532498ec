#include <HttpTools/url/Url.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Items = qz::Url::QueryParameters;
using Segs = std::vector<std::string>;

TEST(UrlEncoding, EncodeKeepsOnlyUnreservedAndDecodeLeavesPlusAndBadEscapes) {
  struct Case {
    std::string plain, encoded;
    bool encodes; // false: a text only decoding accepts
  };
  for (const Case& c :
       {Case{"", "", true}, Case{"AZaz09-._~", "AZaz09-._~", true}, Case{"a b/c?d", "a%20b%2Fc%3Fd", true},
        Case{"\xC3\xA9", "%C3%A9", true}, Case{std::string("\r\0\xFF", 3), "%0D%00%FF", true},
        Case{"+&=%:@!*'()[]#$,;", "%2B%26%3D%25%3A%40%21%2A%27%28%29%5B%5D%23%24%2C%3B", true},
        Case{"a+b c", "a+b%20c", false}, Case{"\xC3\xA9", "%C3%a9", false}, Case{"%zz%", "%zz%", false},
        Case{"%4", "%4", false}, Case{"%A", "%%41", false}, Case{"%41", "%2541", false},
        Case{std::string("a\0A", 3), std::string("a\0%41", 5), false}}) {
    EXPECT_EQ(qz::Url::UrlDecodeToUtf8String(c.encoded), c.plain) << c.encoded;
    if (c.encodes) {
      EXPECT_EQ(qz::Url::UrlEncodeFromUtf8String(c.plain), c.encoded);
    }
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
  struct Case {
    std::string text;
    Segs encoded;    // setEncodedPath / FromEncodedPath
    Segs nonEncoded; // setNonEncodedPath
  };
  for (const Case& c : {Case{"/db//my%20doc/", {"db", "my doc"}, {"db", "my%20doc"}}, Case{"", {}, {}},
                        Case{"///", {}, {}}, Case{"a%2Fb/c+d", {"a/b", "c+d"}, {"a%2Fb", "c+d"}}}) {
    qz::Url url("http://h/old/path");
    url.setEncodedPath(c.text);
    EXPECT_EQ(url.pathSegments, c.encoded) << c.text;
    url.setNonEncodedPath(c.text);
    EXPECT_EQ(url.pathSegments, c.nonEncoded) << c.text;
    Segs out{"stale"};
    qz::Url::FromEncodedPath(c.text, out);
    EXPECT_EQ(out, c.encoded) << c.text;
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
  struct Case {
    qz::Url url;
    const char* encoded;
    const char* displayable;
  };
  // clang-format off
  const std::vector<Case> cases{
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
  for (const Case& c : cases) {
    EXPECT_EQ(c.url.toEncodedUrl(), c.encoded);
    EXPECT_EQ(c.url.toDisplayableUrl(), c.displayable);
  }
}

TEST(UrlQuery, CredentialsOnQueryParameters) {
  qz::Url url = Make("http://h/", "us er", "p&w=d", "admin");
  EXPECT_EQ(url.getQueryParameters(false), "user=us%20er&password=p%26w%3Dd&authdbname=admin");
  EXPECT_EQ(url.getQueryParameters(true), "user=********&password=********&authdbname=admin");
  const qz::Url back(url.toEncodedUrl());
  EXPECT_TRUE(back.user.empty());
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
  struct Case {
    qz::Url made;
    const char* expected;
  };
  for (const Case& c :
       {Case{base.toUrl({}), "http://u:p@h:1/x"}, Case{base.toUrl(q), "http://u:p@h:1/x?k=v"},
        Case{base.toUrl("a/b", {}), "http://u:p@h:1/x/a%2Fb"}, Case{base.toUrl("a", "", q), "http://u:p@h:1/x/a/?k=v"},
        Case{base.toUrl("a", "", "c", q), "http://u:p@h:1/x/a//c?k=v"},
        Case{base.toUrl("1", "2", "3", "4", q), "http://u:p@h:1/x/1/2/3/4?k=v"},
        Case{base.toUrl(Segs{"db", "_design"}, q), "http://u:p@h:1/x/db/_design?k=v"}})
    EXPECT_EQ(c.made.toEncodedUrl(), c.expected);
  EXPECT_EQ(base.toEncodedUrl(), "http://u:p@h:1/x?old=1") << "the source stays unchanged";

  qz::Url withIp("http://127.0.0.1:5984/");
  withIp.authDbName = "admin";
  const qz::Url copy = withIp.toUrl("db", {});
  EXPECT_EQ(copy.ipAddress.getAddressAsString(false) + " " + copy.authDbName, "127.0.0.1 admin");
  EXPECT_EQ(copy.pathSegments, Segs({"", "db"})) << "appended after the parsed empty segment";
}

} // namespace
