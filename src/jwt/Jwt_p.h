#pragma once

// Internal pieces of the token writers, reachable by tests.

#include <HttpTools/jwt/Jwt.h>

namespace qz::jwt {

// SHA-256/384/512 for the algorithms ending in 256/384/512; HT_None otherwise.
qzOpenSSL::HashType AlgToHashType(Alg a);

// header-segment "." claims-segment; completes "iat"/"nbf" in `claims` (see CreateHashedJwt).
// `error` (may be null) says why it failed.
bool BuildJwtSigningInput(qzVariantMapImpl& claims, Alg alg, const std::string& kid, int headerClaims,
                          std::string& input, std::string* error = nullptr);

} // namespace qz::jwt
