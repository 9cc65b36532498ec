#pragma once

#include <HttpTools/jwt/Jwt.h>
#include <HttpTools/jwt/KeyProvider.h>

#include <cstdint>
#include <string>

namespace qz::jwt {

/// Checks compact JWS tokens against a client configuration: an HMAC secret, a key provider and
/// the accepted algorithms. Validation is const and stateless: one verifier may serve several
/// threads while its configuration stays unchanged.
class HTTPTOOLS_API Verifier {
public:
  /// Why a token was rejected; RC_None when it was accepted.
  enum RejectCause : int32_t {
    RC_None = 0,
    RC_Malformed = 1,
    RC_UnsupportedAlg = 2,
    RC_Uninitialized = 3,
    RC_SignatureMismatch = 4,
    RC_InternalError = 5,
    RC_Expired = 6,
    RC_IssuedInFuture = 7,
    RC_NotYetValid = 8,
  };
  /// Seconds of clock skew tolerated on "exp", "iat" and "nbf".
  static constexpr int64_t Leeway = 120;

  Verifier() = default;
  /// The configuration of setClientInfo in one step: Verifier verifier(qz::jwt::ES256, &keys).
  Verifier(int algMask, KeyProvider* provider, const std::string& secret = std::string()) {
    setClientInfo(secret, provider, algMask);
  }
  ~Verifier();
  Verifier(const Verifier&) = delete;
  Verifier& operator=(const Verifier&) = delete;

  /// `provider` is not owned. `algMask` is the OR of the accepted Alg values.
  void setClientInfo(const std::string& secret, KeyProvider* provider, int algMask);
  /// Wipes the secret and forgets provider and mask: every token is rejected afterwards.
  void clearClientInfo();

  /// A short English text for the cause ("Malformed jwt", ...).
  static std::string RejectCauseToString(RejectCause cause);
  /// True for the causes of the time checks: RC_Expired, RC_IssuedInFuture, RC_NotYetValid.
  static bool IsTimeError(RejectCause cause);

  /// True when the token is accepted at `timeBase` (seconds since the epoch). `claims` receives
  /// the decoded claims as soon as the token's structure is sound, also when a later check
  /// rejects it: look at the result first. `cause` (may be null) gets 0 or the reason.
  ///@{
  bool validateJwtWithTimeBase(const char* jwt, size_t len, qzVariantMapImpl& claims, int64_t timeBase,
                               RejectCause* cause) const;
  bool validateJwtWithTimeBase(const std::string& jwt, qzVariantMapImpl& claims, int64_t timeBase,
                               RejectCause* cause) const;
  ///@}
  /// As validateJwtWithTimeBase at the current time (NowSec()).
  ///@{
  bool validateJwt(const char* jwt, size_t len, qzVariantMapImpl& claims, RejectCause* cause) const;
  bool validateJwt(const std::string& jwt, qzVariantMapImpl& claims, RejectCause* cause) const;
  ///@}

  /// Splits and decodes header and claims (when `claims` is not null); `signature` points into
  /// `jwt`. The caller's maps change only on success.
  static bool SplitJwt(const char* jwt, size_t len, qzVariantMapImpl& header, qzVariantMapImpl* claims,
                       const char*& signature, size_t& signatureLen);
  /// Decoding only, nothing verified: for tools and logs.
  static bool ExtractJwtContentNoValidation(const char* jwt, size_t len, qzVariantMapImpl& header,
                                            qzVariantMapImpl* claims);

private:
  std::string m_secret;
  KeyProvider* m_provider = nullptr;
  int m_algMask = 0;
};

} // namespace qz::jwt
