// Response header lines are untrusted bytes. Properties: the splitter never reads past the line,
// the name is lower case and both parts are trimmed; a line without ':' gives nothing. The same
// bytes written through the chunked encoder decode back to themselves.
#include <HttpTools/http/HttpMultiConnection.h>
#include <HttpTools/http/qzIoDeviceHttpChuncked.h>
#include <HttpTools/platform/qzIoDevice.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void check(bool ok) {
  if (!ok)
    std::abort();
}

bool trimmed(const std::string& s) {
  return s.empty() ||
         (!std::isspace(static_cast<unsigned char>(s.front())) && !std::isspace(static_cast<unsigned char>(s.back())));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* line = reinterpret_cast<const char*>(data);
  std::string name, value;
  qz::http::HttpMultiConnection::ParseHttpHeader(line, size, name, value);
  const bool hasColon = std::memchr(line, ':', size) != nullptr;
  if (!hasColon)
    check(name.empty() && value.empty());
  check(trimmed(name) && trimmed(value));
  for (char c : name)
    check(!std::isupper(static_cast<unsigned char>(c)));
  if (hasColon)
    check(name.size() + value.size() < size); // the ':' itself is in neither part

  // Chunked round trip with a chunk size taken from the first byte.
  const unsigned chunk = size > 0 ? 1u + data[0] % 64u : 1u;
  qz::qzIoDeviceMemory out;
  qz::http::qzIoDeviceHttpChuncked dev(chunk);
  dev.beginDelegation(&out);
  size_t pos = 0;
  while (pos < size) {
    const size_t n = std::min<size_t>(size - pos, 1 + (data[pos] % 97));
    check(dev.write(line + pos, n) == int64_t(n));
    pos += n;
  }
  check(dev.endDelegation());
  std::string decoded;
  const std::string& s = out.data();
  size_t p = 0;
  for (;;) {
    const size_t eol = s.find("\r\n", p);
    check(eol != std::string::npos);
    const size_t n = std::strtoul(s.substr(p, eol - p).c_str(), nullptr, 16);
    p = eol + 2;
    if (n == 0)
      break;
    check(n <= chunk);
    decoded.append(s, p, n);
    check(s.compare(p + n, 2, "\r\n") == 0);
    p += n + 2;
  }
  check(s.compare(p, std::string::npos, "\r\n") == 0);
  check(decoded == std::string(line, size));
  return 0;
}
