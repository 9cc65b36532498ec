#include <HttpTools/http/HttpMultiConnection.h>

#include <cctype>
#include <cstring>

namespace qz::http {

namespace {

void assignTrimmed(std::string& out, const char* begin, const char* end) {
  while (begin < end && std::isspace(static_cast<unsigned char>(*begin)))
    ++begin;
  while (end > begin && std::isspace(static_cast<unsigned char>(end[-1])))
    --end;
  out.assign(begin, end);
}

} // namespace

void HttpMultiConnection::ParseHttpHeader(const char* line, unsigned long length, std::string& name,
                                          std::string& value) {
  name.clear();
  value.clear();
  if (!line)
    return;
  const char* colon = static_cast<const char*>(std::memchr(line, ':', length));
  if (!colon)
    return;
  assignTrimmed(name, line, colon);
  for (char& c : name)
    c = char(std::tolower(static_cast<unsigned char>(c)));
  assignTrimmed(value, colon + 1, line + length);
}

} // namespace qz::http
