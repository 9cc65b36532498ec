#pragma once

#include <HttpTools/jwt/Jwt.h>

#include <memory>
#include <string>

namespace qz::jwt {

/// Source of public keys for the verifier, looked up by key id. Owned by the application; it
/// must outlive the verifiers that use it. Not deleted through this interface.
class HTTPTOOLS_API KeyProvider {
public:
  /// The key registered under `kid` that may verify `alg`, or null with a reason in `*error`
  /// (when `error` is not null).
  virtual std::shared_ptr<AsymmetricKey> getKeyFromId(const std::string& kid, Alg alg, std::string* error) = 0;

protected:
  /// Only implementations make, copy and destroy providers.
  ///@{
  KeyProvider() = default;
  KeyProvider(const KeyProvider&) = default;
  KeyProvider& operator=(const KeyProvider&) = default;
  ~KeyProvider() = default;
  ///@}
};

} // namespace qz::jwt
