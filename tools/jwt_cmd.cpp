// jwt sign, verify, decode: JSON Web Tokens from the command line.

#include "Commands.h"

#include <HttpTools/HttpTools.h>
#include <HttpTools/http/Transfer.h>

#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>

namespace {

// "-" reads standard input; trailing line breaks are dropped.
std::string ArgOrStdin(const std::string& a) {
  std::string s = a;
  if (a == "-")
    s.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r'))
    s.pop_back();
  return s;
}

struct Credentials {
  std::string secret, secretFile, keyFile, kid;
};

// Adds --secret, --secret-file and --key (and extra, e.g. --jwks) as a group of which exactly
// one is given.
CLI::Option_group* AddCredentials(CLI::App* cmd, Credentials& c, const std::string& keyHelp) {
  CLI::Option_group* g = cmd->add_option_group("credential", "Exactly one of these");
  g->add_option("--secret", c.secret, "HMAC secret");
  g->add_option("--secret-file", c.secretFile, "File holding the HMAC secret")->check(CLI::ExistingFile);
  g->add_option("--key", c.keyFile, keyHelp)->check(CLI::ExistingFile);
  g->require_option(1);
  return g;
}

// Loads the secret or the key; false with a message on standard error.
bool LoadCredentials(const Credentials& c, std::string& secret, std::shared_ptr<qz::jwt::AsymmetricKey>& key) {
  if (!c.keyFile.empty()) {
    std::string pem, error;
    key = httptools::ReadFile(c.keyFile, pem) ? qz::jwt::AsymmetricKey::FromPem(pem, &error) : nullptr;
    if (!key) {
      std::cerr << "httptools jwt: cannot load key " << c.keyFile << ": " << (error.empty() ? "unreadable" : error)
                << "\n";
      return false;
    }
    if (!c.kid.empty())
      key->setKeyId(c.kid);
    return true;
  }
  secret = c.secret;
  if (!c.secretFile.empty() && !httptools::ReadFile(c.secretFile, secret))
    secret.clear();
  if (secret.empty()) {
    std::cerr << "httptools jwt: no secret could be read\n";
    return false;
  }
  return true;
}

struct SignOptions {
  Credentials credentials;
  std::string alg, claims;
  int headerClaims = 0;
  int64_t ttl = 3600;
};

int RunSign(const SignOptions& o) {
  std::string secret;
  std::shared_ptr<qz::jwt::AsymmetricKey> key;
  if (!LoadCredentials(o.credentials, secret, key))
    return httptools::kExitUsage;
  qz::qzVariantMapImpl claims;
  if (!qz::json::Json2Variant::Convert(ArgOrStdin(o.claims), claims)) {
    std::cerr << "httptools jwt sign: the claims are not a JSON object\n";
    return httptools::kExitUsage;
  }
  if (!claims.count("exp"))
    claims["exp"] = qz::jwt::NowSec() + o.ttl;
  const qz::jwt::Alg alg = qz::jwt::StringToAlg(o.alg);
  std::string token, error;
  const bool ok = key ? qz::jwt::CreateSignedJwt(claims, *key, alg, token, o.headerClaims, &error)
                      : qz::jwt::CreateHashedJwt(claims, secret, alg, token, o.headerClaims, &error);
  if (!ok) {
    std::cerr << "httptools jwt sign: no token: " << error << "\n";
    return httptools::kExitFailure;
  }
  std::cout << token << "\n";
  return httptools::kExitOk;
}

struct VerifyOptions {
  Credentials credentials;
  std::string jwks, token;
  std::vector<std::string> algs;
  httptools::ConnectionOptions conn;
};

// Keeps the reason the store gave for a key it did not hand out.
class RecordingProvider final : public qz::jwt::KeyProvider {
public:
  explicit RecordingProvider(qz::jwt::KeyProvider& inner) : m_inner(inner) {}
  std::shared_ptr<qz::jwt::AsymmetricKey> getKeyFromId(const std::string& kid, qz::jwt::Alg alg,
                                                       std::string* error) override {
    m_kid = kid;
    auto key = m_inner.getKeyFromId(kid, alg, &m_error);
    if (error)
      *error = m_error;
    return key;
  }
  const std::string& error() const { return m_error; }
  const std::string& kid() const { return m_kid; }

private:
  qz::jwt::KeyProvider& m_inner;
  std::string m_error, m_kid;
};

// The key set's URL answers 200, or the exit code of why not (with a message).
int FetchKeySet(const qz::Url& url) {
  qz::http::HttpConnection connection;
  httptools::Prepare(connection);
  qz::http::TransferRequest request;
  request.url = url;
  request.successStatuses = {200};
  qz::http::StringSink sink;
  qz::http::TransferOutcome outcome;
  if (qz::http::PerformTransfer(connection, request, sink, outcome))
    return httptools::kExitOk;
  std::cerr << "httptools jwt verify: cannot fetch the key set " << url.toDisplayableUrl() << ": "
            << (outcome.error.kind == qz::http::ErrorKind::HttpStatus ? "HTTP status " + std::to_string(outcome.status)
                                                                      : outcome.error.message())
            << "\n";
  return httptools::ExitCodeOfTransferError(outcome.error);
}

int RunVerify(const VerifyOptions& o) {
  std::string secret;
  std::shared_ptr<qz::jwt::AsymmetricKey> key;
  const bool jwks = !o.jwks.empty();
  if (!jwks && !LoadCredentials(o.credentials, secret, key))
    return httptools::kExitUsage;
  // The algorithms of the credential's family unless --algs narrows them.
  int mask = key || jwks ? qz::jwt::AlgAsymmetricMask : qz::jwt::AlgHmacMask;
  if (!o.algs.empty()) {
    mask = 0;
    for (const std::string& name : o.algs)
      mask |= qz::jwt::StringToAlg(name);
  }
  // The one key answers for every key id.
  qz::jwt::StaticKeyProvider provider;
  provider.addKey("", key);
  // Or the keys of a JWK set, fetched through a connection pool.
  std::unique_ptr<qz::http::HttpConnectionPool> pool;
  std::unique_ptr<qz::jwt::KeyStore> store;
  if (jwks) {
    std::string error;
    qz::Url url;
    if (!httptools::ParseCommandLineUrl("httptools jwt verify: --jwks", o.jwks, url))
      return httptools::kExitBadUrl;
    if (!httptools::UseConnectionOptions("httptools jwt verify", o.conn))
      return httptools::kExitUsage;
    if (const int rc = FetchKeySet(url); rc != httptools::kExitOk)
      return rc;
    pool = std::make_unique<qz::http::HttpConnectionPool>();
    httptools::Prepare(*pool);
    store = std::make_unique<qz::jwt::KeyStore>(*pool, url, !o.conn.insecure, qz::http::PP_NoProxy, qz::Url());
  }
  std::optional<RecordingProvider> recording;
  if (store)
    recording.emplace(*store);
  qz::jwt::Verifier verifier;
  verifier.setClientInfo(secret,
                         recording ? static_cast<qz::jwt::KeyProvider*>(&*recording)
                         : key     ? &provider
                                   : nullptr,
                         mask);
  qz::qzVariantMapImpl claims;
  qz::jwt::Verifier::RejectCause cause;
  if (!verifier.validateJwt(ArgOrStdin(o.token), claims, &cause)) {
    if (cause == qz::jwt::Verifier::RC_InternalError && recording && !recording->error().empty())
      std::cerr << "httptools jwt verify: no usable key for kid '" << recording->kid()
                << "' in the key set: " << recording->error() << "\n";
    else
      std::cerr << qz::jwt::Verifier::RejectCauseToString(cause) << "\n";
    return httptools::kExitFailure;
  }
  std::string text;
  qz::json::Json2Variant::Convert(claims, text, true);
  std::cout << text << "\n";
  return httptools::kExitOk;
}

int RunDecode(const std::string& tokenArg) {
  const std::string token = ArgOrStdin(tokenArg);
  qz::qzVariantMapImpl header, claims;
  if (!qz::jwt::Verifier::ExtractJwtContentNoValidation(token.data(), token.size(), header, &claims)) {
    std::cerr << "Malformed jwt\n";
    return httptools::kExitFailure;
  }
  std::string text;
  qz::json::Json2Variant::Convert(qz::qzVariantMapImpl{{"header", header}, {"claims", claims}}, text, true);
  std::cout << text << "\n";
  return httptools::kExitOk;
}

const std::vector<std::string> kAlgNames{"HS256", "HS384", "HS512", "RS256", "RS384",
                                         "RS512", "ES256", "ES384", "ES512"};

} // namespace

namespace httptools {

void AddJwtCommands(CLI::App& app) {
  CLI::App* jwt = Group(app, "jwt", "Sign, verify or decode a JSON Web Token");
  const auto algName = CLI::IsMember(kAlgNames, CLI::ignore_case);

  auto s = std::make_shared<SignOptions>();
  CLI::App* sign = jwt->add_subcommand("sign", "Print a token holding CLAIMS, signed with a secret or a private key");
  sign->add_option("CLAIMS", s->claims, "The claims as a JSON object, or - to read them from standard input")
      ->required();
  sign->add_option("--alg", s->alg, "Algorithm: HS256/384/512 with a secret, RS* or ES* with a key")
      ->required()
      ->check(algName);
  AddCredentials(sign, s->credentials, "Private key file (PEM)");
  sign->add_option("--kid", s->credentials.kid, "Key id written to the header (with --key)");
  sign->add_option("--header-claims", s->headerClaims, "Copy claims into the header: iss 1, sub 2, aud 4 (a sum)")
      ->check(CLI::Range(0, 7));
  sign->add_option("--ttl", s->ttl, "Set \"exp\" to now + SECONDS when the claims have none (default 3600)")
      ->check(CLI::NonNegativeNumber);
  sign->callback([s] { exitCode = RunSign(*s); });

  auto v = std::make_shared<VerifyOptions>();
  CLI::App* verify =
      jwt->add_subcommand("verify", "Check a token and print its claims, or the reason it is rejected (exit 1)");
  verify->add_option("TOKEN", v->token, "The token, or - to read it from standard input")->required();
  CLI::Option_group* g = AddCredentials(verify, v->credentials, "Public key file (PEM)");
  g->add_option("--jwks", v->jwks, "URL of a JWK set holding the keys, looked up by the token's kid");
  verify->add_option("--algs", v->algs, "Accepted algorithms (default: those of the credential's family)")
      ->delimiter(',')
      ->check(algName);
  httptools::AddConnectionOptions(verify, v->conn); // for the --jwks server
  verify->callback([v] { exitCode = RunVerify(*v); });

  auto token = std::make_shared<std::string>();
  CLI::App* decode = jwt->add_subcommand("decode", "Print a token's header and claims without checking anything");
  decode->add_option("TOKEN", *token, "The token, or - to read it from standard input")->required();
  decode->callback([token] { exitCode = RunDecode(*token); });
}

} // namespace httptools
