#include <HttpTools/platform/EnumHelperInterface.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <string_view>

namespace qz {

namespace {
std::string_view trim(std::string_view s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front())))
    s.remove_prefix(1);
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back())))
    s.remove_suffix(1);
  return s;
}

bool validName(std::string_view n) {
  if (n.empty() || std::isdigit(static_cast<unsigned char>(n.front())))
    return false;
  for (char c : n)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_')
      return false;
  return true;
}
} // namespace

EnumHelperInterface::EnumMap EnumHelperInterface::GetEnumToStringMap(const char* declaration) {
  EnumMap map;
  if (!declaration)
    return map;
  std::string_view text(declaration);
  long next = 0;
  while (!text.empty()) {
    size_t comma = text.find(',');
    std::string_view piece = trim(text.substr(0, comma));
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    std::string_view name = piece;
    size_t eq = piece.find('=');
    if (eq != std::string_view::npos) {
      name = trim(piece.substr(0, eq));
      if (!validName(name))
        continue;
      std::string valueText(trim(piece.substr(eq + 1)));
      char* end = nullptr;
      errno = 0;
      long v = std::strtol(valueText.c_str(), &end, 0);
      if (valueText.empty() || *end != '\0' || errno != 0)
        continue;
      next = v;
    }
    if (!validName(name))
      continue;
    map[int(next)].emplace_back(name);
    ++next;
  }
  return map;
}

EnumHelperInterface::EnumHelperInterface(int value, const EnumMap& vals, const std::string& typeName)
    : m_vals(vals), m_typeName(typeName), m_value(value), m_valid(vals.count(value) != 0) {}

EnumHelperInterface::EnumHelperInterface(const std::string& name, const EnumMap& vals, const std::string& typeName)
    : m_vals(vals), m_typeName(typeName) {
  // Accept the bare name or the name qualified with the type ("qz::http::X::NAME").
  std::string_view n = name;
  if (n.size() > typeName.size() + 2 && n.substr(0, typeName.size()) == typeName &&
      n.substr(typeName.size(), 2) == "::")
    n.remove_prefix(typeName.size() + 2);
  for (const auto& [v, names] : vals)
    for (const auto& candidate : names)
      if (candidate == n) {
        m_value = v;
        m_valid = true;
        return;
      }
}

EnumHelperInterface::~EnumHelperInterface() = default;

std::string EnumHelperInterface::toString() const {
  auto it = m_vals.find(m_value);
  return it == m_vals.end() || it->second.empty() ? std::string() : it->second.front();
}

std::string EnumHelperInterface::toQualifiedString() const {
  std::string n = toString();
  return n.empty() ? n : m_typeName + "::" + n;
}

} // namespace qz
