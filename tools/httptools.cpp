// The commands that still parse their own arguments; each is forwarded from a CLI11 subcommand.

#include "Commands.h"

#include <HttpTools/HttpTools.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <list>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

const char* kUsage = R"(usage: httptools COMMAND [ARGS]

Commands:
  version              library, libcurl and OpenSSL versions
  jwt sign --alg ALG (--secret S | --secret-file F | --key PRIVATE.pem) [--kid ID]
           [--header-claims MASK] [--ttl SECONDS] CLAIMS_JSON|-
                       prints a token; MASK copies iss (1), sub (2), aud (4) into the
                       header; --ttl sets "exp" when the claims have none
  jwt verify (--secret S | --secret-file F | --key PUBLIC.pem | --jwks URL) [--algs ALG,...] TOKEN|-
                       prints the claims, or the reject cause (exit 1)
  jwt decode TOKEN|-   prints header and claims without checking anything
  url [--normalize] [--show-secrets] TEXT
                       parses a URL and prints its fields, its displayable form and,
                       when it holds no credentials or with --show-secrets, its encoded form
  get|head|delete [-H LINE]... [-o FILE] [--insecure] URL
  put|post [-H LINE]... [-o FILE] [-d FILE|-] [--expect CODE] [--insecure] URL
                       one HTTP request; the response body goes to standard output or
                       FILE, that of an error response too (head prints the status and
                       header fields); the request body of put/post comes from FILE or
                       standard input (-d -, the default); get, head and delete demand
                       status 200, put and post any status below 400 or the --expect
                       CODE; on failure the error goes to standard error and the exit
                       code is 1
  couch view URL/db [DESIGN VIEW] [--keys K1,K2,...] [--limit N]
                       streams a view (or _all_docs without DESIGN VIEW) of a CouchDB
                       database, one row a line: id, key and value tab-separated (strings
                       as they are, maps and lists as JSON)
  help, --help         this text
)";

int cmdVersion() {
  std::cout << "HttpTools " << HttpTools::Version::GetDescStringMajorMinorReleaseRevisionDate() << "\n";
  auto libs = qz::impl::GetThirdPartyLibVersionInfo();
  std::cout << "libcurl   " << libs["libcurl"] << "\n";
  std::cout << "OpenSSL   " << qz::qzOpenSSL::VersionText() << "\n";
  return 0;
}

// ---- jwt

std::string readFile(const std::string& path, bool& ok) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream s;
  s << f.rdbuf();
  ok = bool(f);
  return s.str();
}

// "-" reads standard input; trailing line breaks are dropped.
std::string argOrStdin(const std::string& a) {
  std::string s = a;
  if (a == "-")
    s.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r'))
    s.pop_back();
  return s;
}

// --name value pairs, then one positional argument.
bool parseJwtArgs(const std::vector<std::string>& args, size_t from, std::map<std::string, std::string>& opts,
                  std::string& positional) {
  for (size_t i = from; i < args.size(); ++i) {
    if (args[i].size() > 2 && args[i].starts_with("--")) {
      if (i + 1 >= args.size()) {
        std::cerr << "httptools jwt: " << args[i] << " needs a value\n";
        return false;
      }
      opts[args[i].substr(2)] = args[i + 1];
      ++i;
    } else if (positional.empty()) {
      positional = args[i];
    } else {
      std::cerr << "httptools jwt: unexpected argument '" << args[i] << "'\n";
      return false;
    }
  }
  if (positional.empty()) {
    std::cerr << "httptools jwt: missing argument\n" << kUsage;
    return false;
  }
  return true;
}

// The secret from --secret or --secret-file, or a key from --key; exactly one of them.
bool jwtCredentials(std::map<std::string, std::string>& opts, std::string& secret,
                    std::shared_ptr<qz::jwt::AsymmetricKey>& key) {
  int given = int(opts.count("secret")) + int(opts.count("secret-file")) + int(opts.count("key"));
  if (given != 1) {
    std::cerr << "httptools jwt: give one of --secret, --secret-file or --key\n";
    return false;
  }
  bool ok = true;
  if (opts.count("secret"))
    secret = opts["secret"];
  else if (opts.count("secret-file"))
    secret = readFile(opts["secret-file"], ok);
  if (!ok || (!opts.count("key") && secret.empty())) {
    std::cerr << "httptools jwt: no secret could be read\n";
    return false;
  }
  if (opts.count("key")) {
    std::string pem = readFile(opts["key"], ok), error;
    key = ok ? qz::jwt::AsymmetricKey::FromPem(pem, &error) : nullptr;
    if (!key) {
      std::cerr << "httptools jwt: cannot load key " << opts["key"] << ": " << (ok ? error : "unreadable") << "\n";
      return false;
    }
    if (opts.count("kid"))
      key->setKeyId(opts["kid"]);
  }
  return true;
}

int cmdJwtSign(const std::vector<std::string>& args) {
  std::map<std::string, std::string> opts;
  std::string claimsText, secret;
  std::shared_ptr<qz::jwt::AsymmetricKey> key;
  if (!parseJwtArgs(args, 2, opts, claimsText) || !jwtCredentials(opts, secret, key))
    return 2;
  qz::qzVariantMapImpl claims;
  if (!qz::json::Json2Variant::Convert(argOrStdin(claimsText), claims)) {
    std::cerr << "httptools jwt sign: the claims are not a JSON object\n";
    return 2;
  }
  if (opts.count("ttl") && !claims.count("exp"))
    claims["exp"] = qz::jwt::NowSec() + std::atoll(opts["ttl"].c_str());
  const qz::jwt::Alg alg = qz::jwt::StringToAlg(opts["alg"]);
  const int headerClaims = std::atoi(opts["header-claims"].c_str());
  std::string token;
  bool ok = key ? qz::jwt::CreateSignedJwt(claims, *key, alg, token, headerClaims)
                : qz::jwt::CreateHashedJwt(claims, secret, alg, token, headerClaims);
  if (!ok) {
    std::cerr << "httptools jwt sign: no token: check --alg against the secret or key (a key must be private "
                 "and of the algorithm's type), and \"exp\" (required, at most 24 h after \"iat\")\n";
    return 1;
  }
  std::cout << token << "\n";
  return 0;
}

int cmdJwtVerify(const std::vector<std::string>& args) {
  std::map<std::string, std::string> opts;
  std::string token, secret;
  std::shared_ptr<qz::jwt::AsymmetricKey> key;
  if (!parseJwtArgs(args, 2, opts, token))
    return 2;
  const bool jwks = opts.count("jwks") != 0;
  if (!jwks && !jwtCredentials(opts, secret, key))
    return 2;
  // Accepts the algorithms of the credential's family unless --algs narrows them.
  int mask = key || jwks ? qz::jwt::AlgAsymmetricMask : qz::jwt::AlgHmacMask;
  if (opts.count("algs")) {
    mask = 0;
    std::stringstream list(opts["algs"]);
    for (std::string name; std::getline(list, name, ',');) {
      qz::jwt::Alg a = qz::jwt::StringToAlg(name);
      if (!a) {
        std::cerr << "httptools jwt verify: unknown algorithm '" << name << "'\n";
        return 2;
      }
      mask |= a;
    }
  }
  // The one key answers for every key id.
  struct OneKey : qz::jwt::KeyProvider {
    std::shared_ptr<qz::jwt::AsymmetricKey> key;
    std::shared_ptr<qz::jwt::AsymmetricKey> getKeyFromId(const std::string&, qz::jwt::Alg, std::string*) override {
      return key;
    }
  } provider;
  provider.key = key;
  // Or the keys of a JWK set, fetched through a connection pool.
  std::unique_ptr<qz::http::HttpConnectionPool> pool;
  std::unique_ptr<qz::jwt::KeyStore> store;
  if (jwks) {
    std::string error;
    qz::Url url;
    if (!url.fromEncodedUtf8String(opts["jwks"], &error, false)) {
      std::cerr << "httptools jwt verify: --jwks: " << error << "\n";
      return 2;
    }
    pool = std::make_unique<qz::http::HttpConnectionPool>();
    store = std::make_unique<qz::jwt::KeyStore>(*pool, url, true, qz::http::PP_NoProxy, qz::Url());
  }
  qz::jwt::Verifier verifier;
  verifier.setClientInfo(secret,
                         store ? static_cast<qz::jwt::KeyProvider*>(store.get())
                         : key ? &provider
                               : nullptr,
                         mask);
  qz::qzVariantMapImpl claims;
  qz::jwt::Verifier::RejectCause cause;
  if (!verifier.validateJwt(argOrStdin(token), claims, &cause)) {
    std::cerr << qz::jwt::Verifier::RejectCauseToString(cause) << "\n";
    return 1;
  }
  std::string text;
  qz::json::Json2Variant::Convert(claims, text, true);
  std::cout << text << "\n";
  return 0;
}

int cmdJwtDecode(const std::vector<std::string>& args) {
  if (args.size() != 3) {
    std::cerr << kUsage;
    return 2;
  }
  const std::string token = argOrStdin(args[2]);
  qz::qzVariantMapImpl header, claims;
  if (!qz::jwt::Verifier::ExtractJwtContentNoValidation(token.data(), token.size(), header, &claims)) {
    std::cerr << "Malformed jwt\n";
    return 1;
  }
  std::string text;
  qz::json::Json2Variant::Convert(qz::qzVariantMapImpl{{"header", header}, {"claims", claims}}, text, true);
  std::cout << text << "\n";
  return 0;
}

int cmdJwt(const std::vector<std::string>& args) {
  const std::string sub = args.size() > 1 ? args[1] : "";
  if (sub == "sign")
    return cmdJwtSign(args);
  if (sub == "verify")
    return cmdJwtVerify(args);
  if (sub == "decode")
    return cmdJwtDecode(args);
  std::cerr << "httptools jwt: sign, verify or decode\n" << kUsage;
  return 2;
}

// ---- url

std::string Quoted(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F) {
      static const char hex[] = "0123456789abcdef";
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 0xF];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

int cmdUrl(const std::vector<std::string>& args) {
  bool normalize = false, showSecrets = false;
  std::string text;
  bool haveText = false;
  for (size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "--normalize")
      normalize = true;
    else if (args[i] == "--show-secrets")
      showSecrets = true;
    else if (!haveText) {
      text = args[i];
      haveText = true;
    } else {
      std::cerr << "httptools url: one URL only\n";
      return 2;
    }
  }
  if (!haveText) {
    std::cerr << "httptools url: missing URL\n" << kUsage;
    return 2;
  }
  qz::Url url;
  std::string error;
  if (!url.fromEncodedUtf8String(text, &error, normalize)) {
    std::cerr << "httptools url: " << error << "\n";
    return 1;
  }
  const bool hasSecrets = !url.password.empty();
  std::cout << "scheme       " << Quoted(url.scheme) << "\n";
  std::cout << "user         " << Quoted(url.user) << "\n";
  std::cout << "password     "
            << (url.password.empty() ? "(none)"
                : showSecrets        ? Quoted(url.password)
                                     : "(hidden)")
            << "\n";
  std::cout << "host         " << Quoted(url.host) << "\n";
  const char* family[] = {"none (a name)", "IPv4", "IPv6"};
  std::cout << "ip address   " << family[url.ipAddress.getType()];
  if (url.ipAddress.isValid())
    std::cout << " " << url.ipAddress.getAddressAsString(false);
  std::cout << "\n";
  std::cout << "port         " << url.port << (url.port == 0 ? " (none given)" : "") << "\n";
  std::cout << "path         " << url.pathSegments.size() << " segment(s)";
  for (const std::string& segment : url.pathSegments)
    std::cout << " " << Quoted(segment);
  std::cout << "\n";
  std::cout << "query        " << url.queryParameters.size() << " item(s)\n";
  for (const auto& [key, value] : url.queryParameters) {
    // The same keys that the displayable form masks.
    const std::string encodedKey = qz::Url::UrlEncodeFromUtf8String(key);
    const bool secret = encodedKey.find("secret") != std::string::npos || encodedKey.find("pwd") != std::string::npos ||
                        encodedKey.find("password") != std::string::npos;
    std::cout << "  " << Quoted(key) << " = " << (secret && !showSecrets ? "(hidden)" : Quoted(value)) << "\n";
  }
  std::cout << "valid        " << (url.isValid() ? "yes" : "no (needs a scheme and a host)") << "\n";
  std::cout << "displayable  " << url.toDisplayableUrl() << "\n";
  if (hasSecrets && !showSecrets)
    std::cout << "encoded      (holds the password; --show-secrets prints it)\n";
  else
    std::cout << "encoded      " << url.toEncodedUrl() << "\n";
  return 0;
}

// ---- http requests

// Writes what it receives to a stream and, on a terminal, shows a progress line for long
// transfers.
class StreamDevice : public qz::qzIoDevice {
public:
  StreamDevice(std::ostream& out, bool progress) : m_out(out), m_progress(progress) {}
  ~StreamDevice() override {
    if (m_shown)
      std::cerr << "\n";
  }
  int64_t writeBytes(const char* data, unsigned long length) override {
    m_out.write(data, std::streamsize(length));
    m_total += length;
    const int64_t now = qz::qzSystemUtils::GetTimeBaseMs();
    if (m_progress && now - m_start >= 1000 && now - m_lastShown >= 250) {
      m_lastShown = now;
      m_shown = true;
      std::cerr << "\r" << m_total << " bytes received in "
                << qz::qzStringUtils::humanizeDuration(now - m_start, 1, true) << "   " << std::flush;
    }
    return int64_t(length);
  }
  bool hasError() const override { return !m_out; }

private:
  std::ostream& m_out;
  bool m_progress;
  bool m_shown = false;
  uint64_t m_total = 0;
  int64_t m_start = qz::qzSystemUtils::GetTimeBaseMs();
  int64_t m_lastShown = 0;
};

int cmdHttp(const std::vector<std::string>& args) {
  namespace hh = qz::http::HttpHelpers;
  const std::string method = args[0];
  std::list<std::string> headers;
  std::string outFile, dataFile = "-", urlText;
  int expect = -1;
  bool insecure = false;
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool hasValue = i + 1 < args.size();
    if (a == "-H" && hasValue)
      headers.push_back(args[++i]);
    else if (a == "-o" && hasValue)
      outFile = args[++i];
    else if (a == "-d" && hasValue)
      dataFile = args[++i];
    else if (a == "--expect" && hasValue)
      expect = std::atoi(args[++i].c_str());
    else if (a == "--insecure")
      insecure = true;
    else if (urlText.empty() && a.rfind("-", 0) != 0)
      urlText = a;
    else {
      std::cerr << "httptools " << method << ": unexpected argument '" << a << "'\n" << kUsage;
      return 2;
    }
  }
  if (urlText.empty() || expect > 255) {
    std::cerr << kUsage;
    return 2;
  }
  qz::Url url;
  std::string parseError;
  if (!url.fromEncodedUtf8String(urlText, &parseError, false) || !url.isValid()) {
    std::cerr << "httptools: invalid URL '" << urlText << "' " << parseError << "\n";
    return 1;
  }
  std::string body;
  if (method == "put" || method == "post") {
    bool ok = true;
    body = dataFile == "-" ? std::string(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>())
                           : readFile(dataFile, ok);
    if (!ok) {
      std::cerr << "httptools: cannot read " << dataFile << "\n";
      return 1;
    }
  }
  std::ofstream file;
  if (!outFile.empty()) {
    file.open(outFile, std::ios::binary);
    if (!file) {
      std::cerr << "httptools: cannot write " << outFile << "\n";
      return 1;
    }
  }
  std::ostream& out = outFile.empty() ? std::cout : file;
  StreamDevice device(out, isatty(2) != 0);

  qz::http::HttpConnection conn;
  if (insecure)
    conn.editConnectionParameters().sslValidatePolicy = qz::http::SVP_NoVerify;
  std::string error;
  std::map<std::string, std::string> responseHeaders;
  hh::HttpResult result;
  result.errorMessage = &error;
  result.outputDevice = &device;
  if (method == "head")
    result.headers = &responseHeaders;
  const unsigned char code = static_cast<unsigned char>(expect < 0 ? 0 : expect);
  bool ok = false;
  if (method == "get")
    ok = hh::HttpGet(conn, url, &result, nullptr, &headers);
  else if (method == "head")
    ok = hh::HttpHead(conn, url, &result, nullptr, &headers);
  else if (method == "delete")
    ok = hh::HttpDelete(conn, url, &result, nullptr, &headers);
  else if (method == "put")
    ok = hh::HttpPut(conn, url, body, code, &result, nullptr, &headers);
  else
    ok = hh::HttpPost(conn, url, body, code, &result, nullptr, &headers);
  if (ok && expect < 0 && result.httpCode >= 400) {
    ok = false;
    error = "HTTP status " + std::to_string(result.httpCode) + " from " + url.toDisplayableUrl();
  }
  if (!ok) {
    std::cerr << "httptools: " << method << " failed: " << error << "\n";
    return 1;
  }
  if (method == "head") {
    out << "HTTP " << result.httpCode << "\n";
    for (const auto& [name, value] : responseHeaders)
      out << name << ": " << value << "\n";
  }
  out.flush();
  return out ? 0 : 1;
}

bool printViewRow(const std::string& id, qz::qzVariant& key, qz::qzVariant& value, void*) {
  std::cout << id << '\t' << key.toString() << '\t' << value.toString() << '\n';
  return true;
}

int cmdCouchView(const std::vector<std::string>& args) {
  std::vector<std::string> names;
  std::vector<std::string> keys;
  bool haveKeys = false;
  long limit = -1;
  for (size_t i = 2; i < args.size(); ++i) {
    if (args[i] == "--keys" && i + 1 < args.size()) {
      haveKeys = true;
      std::stringstream list(args[++i]);
      for (std::string key; std::getline(list, key, ',');)
        keys.push_back(key);
    } else if (args[i] == "--limit" && i + 1 < args.size()) {
      limit = std::strtol(args[++i].c_str(), nullptr, 10);
    } else {
      names.push_back(args[i]);
    }
  }
  if (args.size() < 2 || args[1] != "view" || (names.size() != 1 && names.size() != 3)) {
    std::cerr << "httptools couch: view URL/db [DESIGN VIEW] [--keys K1,K2,...] [--limit N]\n";
    return 2;
  }
  qz::couch::CouchConnectionParameters server;
  std::string db;
  if (!qz::couch::CouchConnectionParameters::BuildFromDbUrl(&server, &db, names[0])) {
    std::cerr << "httptools couch: '" << names[0] << "' is not a database URL (http://host:port/db)\n";
    return 2;
  }
  const std::string design = names.size() == 3 ? names[1] : std::string();
  const std::string view = names.size() == 3 ? names[2] : std::string();
  qz::http::HttpConnection connection;
  const bool ok = qz::couch::FetchCouchDbView(connection, server, db, design, view, haveKeys ? &keys : nullptr,
                                              &printViewRow, nullptr, limit, 0, nullptr);
  std::cout.flush();
  return ok ? 0 : 1;
}

} // namespace

namespace httptools {

void AddLegacyCommands(CLI::App& app) {
  struct Entry {
    const char* name;
    const char* help;
    int (*run)(const std::vector<std::string>&);
  };
  static const Entry entries[] = {
      {"jwt", "sign, verify or decode a JSON Web Token", &cmdJwt},
      {"url", "parse a URL and print its fields", &cmdUrl},
      {"get", "GET a URL", &cmdHttp},
      {"head", "HEAD a URL", &cmdHttp},
      {"put", "PUT a body to a URL", &cmdHttp},
      {"post", "POST a body to a URL", &cmdHttp},
      {"delete", "DELETE a URL", &cmdHttp},
      {"couch", "CouchDB commands", &cmdCouchView},
  };
  app.add_subcommand("version", "library, libcurl and OpenSSL versions")->callback([] { exitCode = cmdVersion(); });
  for (const Entry& e : entries) {
    CLI::App* sub = app.add_subcommand(e.name, e.help);
    sub->prefix_command();
    sub->set_help_flag();
    sub->callback([sub, e] {
      std::vector<std::string> args{e.name};
      for (const std::string& a : sub->remaining())
        args.push_back(a);
      exitCode = e.run(args);
    });
  }
}

} // namespace httptools
