#include <HttpTools/jwt/Jwt.h>

#include <HttpTools/platform/qzLog.h>
#include <HttpTools/url/Url.h>

#if __has_include(<utf8cpp/utf8.h>)
#include <utf8cpp/utf8.h>
#else
#include <utf8.h>
#endif

#include <cctype>
#include <exception>

namespace qz::jwt {

namespace {
// RFC 6749 scope-token characters: %x21 / %x23-5B / %x5D-7E.
bool isScopeChar(uint32_t cp) { return cp == 0x21 || (cp >= 0x23 && cp <= 0x5B) || (cp >= 0x5D && cp <= 0x7E); }
} // namespace

std::string StringListToScope(const std::vector<std::string>& tags) {
  std::string scope;
  for (const std::string& tag : tags) {
    size_t begin = 0, end = tag.size();
    while (begin < end && std::isspace(static_cast<unsigned char>(tag[begin])))
      ++begin;
    while (end > begin && std::isspace(static_cast<unsigned char>(tag[end - 1])))
      --end;
    std::string converted;
    try {
      auto it = tag.begin() + std::ptrdiff_t(begin);
      const auto last = tag.begin() + std::ptrdiff_t(end);
      while (it != last) {
        const auto start = it;
        const uint32_t cp = utf8::next(it, last);
        if (isScopeChar(cp))
          converted += char(cp);
        else
          converted += Url::UrlEncodeFromUtf8String(std::string(start, it));
      }
    } catch (const std::exception& e) {
      // What was converted before the fault is kept.
      qzLogObject(qzLog::Warning) << "Fail to convert tag '" << tag << "' to scope " << e.what();
    } catch (...) {
      qzLogObject(qzLog::Warning) << "Fail to convert tag '" << tag << "' to scope";
    }
    if (converted.empty())
      continue;
    if (!scope.empty())
      scope += ' ';
    scope += converted;
  }
  return scope;
}

} // namespace qz::jwt
