// Sign a token with an EC private key read from a PEM file, then verify it with the public key.
//   openssl ecparam -name prime256v1 -genkey -noout | openssl pkcs8 -topk8 -nocrypt -out key.pem
//   openssl pkey -in key.pem -pubout -out pub.pem
//   example_jwt_ec_pem key.pem pub.pem
#include <HttpTools/HttpTools.h>

#include <fstream>
#include <iostream>
#include <sstream>

static std::string ReadFile(const char* path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream s;
  s << f.rdbuf();
  return s.str();
}

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: example_jwt_ec_pem PRIVATE_KEY.pem PUBLIC_KEY.pem\n";
    return 2;
  }
  std::string error;
  auto key = qz::jwt::AsymmetricKey::FromPem(ReadFile(argv[1]), &error);
  if (!key) {
    std::cerr << argv[1] << ": " << error << "\n";
    return 1;
  }
  key->setKeyId("key-1"); // goes to the token's header as "kid"

  // "exp" is required, at most 24 h after "iat" (added as now when missing).
  qz::qzVariantMapImpl claims{{"sub", "alice"}, {"exp", qz::jwt::NowSec() + 300}};
  std::string token;
  if (!qz::jwt::CreateSignedJwt(claims, *key, qz::jwt::ES256, token, 0, &error)) {
    std::cerr << "no token: " << error << "\n";
    return 1;
  }
  std::cout << token << "\n";

  // The public key answers for every key id; only ES256 is accepted.
  qz::jwt::StaticKeyProvider keys("", ReadFile(argv[2]), &error);
  if (keys.size() == 0) {
    std::cerr << argv[2] << ": " << error << "\n";
    return 1;
  }
  qz::jwt::Verifier verifier(qz::jwt::ES256, &keys);
  qz::qzVariantMapImpl verified;
  qz::jwt::Verifier::RejectCause cause;
  if (!verifier.validateJwt(token, verified, &cause)) {
    std::cerr << "rejected: " << qz::jwt::Verifier::RejectCauseToString(cause) << "\n";
    return 1;
  }
  std::cout << "verified, sub = " << verified["sub"].toString() << "\n";
  return 0;
}
