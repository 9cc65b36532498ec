#include <HttpTools/platform/qzOpenSSL.h>

#include <HttpTools/platform/LibInit.h>

#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <cctype>

namespace qz::qzOpenSSL {

namespace {
impl::LibInitCounter& counter() {
  static impl::LibInitCounter c("openssl", 1);
  return c;
}

// Reads a decimal number of at most `maxDigits` digits at s[i].
bool readNumber(const std::string& s, size_t& i, unsigned maxValue, unsigned& out) {
  size_t start = i;
  out = 0;
  while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) {
    out = out * 10 + unsigned(s[i] - '0');
    if (out > maxValue)
      return false;
    ++i;
  }
  return i > start;
}
} // namespace

void initializeLibrary(bool loadErrorStrings) {
  if (!counter().incrementInitCounter())
    return;
  uint64_t opts = OPENSSL_INIT_LOAD_SSL_STRINGS * loadErrorStrings;
  OPENSSL_init_ssl(opts | (loadErrorStrings ? OPENSSL_INIT_LOAD_CRYPTO_STRINGS : 0), nullptr);
  impl::RegisterThirdPartyLibVersionInfo("openssl", OpenSSL_version(OPENSSL_VERSION));
}

void finalizeLibrary() {
  // OpenSSL 3 releases its global state itself at process exit.
  if (counter().decrementInitCounter())
    impl::UnRegisterThirdPartyLibVersionInfo("openssl");
}

int ParseOpenSSLVersionString(const std::string& text) {
  size_t i = 0;
  unsigned major, minor, patch = 0;
  if (!readNumber(text, i, 15, major) || i >= text.size() || text[i] != '.')
    return 0;
  ++i;
  if (!readNumber(text, i, 255, minor))
    return 0;
  if (i < text.size() && text[i] == '.') {
    ++i;
    if (!readNumber(text, i, 255, patch))
      return 0;
  }
  if (major == 0)
    return 0;
  if (major >= 3) // MNN00PP0
    return int((major << 28) | (minor << 20) | (patch << 4));
  // Pre-3 layout MNNFFPPS: a letter is the patch level, status f = release.
  unsigned letter = 0;
  if (i < text.size() && std::islower(static_cast<unsigned char>(text[i])))
    letter = unsigned(text[i] - 'a' + 1);
  return int((major << 28) | (minor << 20) | (patch << 12) | (letter << 4) | 0xf);
}

std::string VersionText() { return OpenSSL_version(OPENSSL_VERSION); }

} // namespace qz::qzOpenSSL
