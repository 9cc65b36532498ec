#include <HttpTools/url/IpAddress.h>

#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzStringUtils.h>
#include <HttpTools/url/IpAddress_p.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>

namespace qz {

namespace ip_impl {

namespace {

char* FormatDecimalByte(unsigned v, char* out) {
  if (v >= 100)
    *out++ = char('0' + v / 100);
  if (v >= 10)
    *out++ = char('0' + v / 10 % 10);
  *out++ = char('0' + v % 10);
  return out;
}

} // namespace

size_t FormatIPv6(const unsigned char* bytes, char* out) {
  unsigned words[8];
  for (int i = 0; i < 8; ++i)
    words[i] = unsigned(bytes[2 * i]) << 8 | bytes[2 * i + 1];
  // The longest run of zero groups, the first one on a tie; none shorter than two.
  int bestBase = -1, bestLen = 0, curBase = -1, curLen = 0;
  for (int i = 0; i <= 8; ++i) {
    if (i < 8 && words[i] == 0) {
      if (curBase < 0)
        curBase = i, curLen = 0;
      ++curLen;
    } else if (curBase >= 0) {
      if (curLen > bestLen)
        bestBase = curBase, bestLen = curLen;
      curBase = -1;
    }
  }
  if (bestLen < 2)
    bestBase = -1;

  static const char kHex[] = "0123456789abcdef";
  char* p = out;
  for (int i = 0; i < 8; ++i) {
    if (bestBase >= 0 && i >= bestBase && i < bestBase + bestLen) {
      if (i == bestBase)
        *p++ = ':';
      continue;
    }
    if (i != 0)
      *p++ = ':';
    if (i == 6 && bestBase == 0 && (bestLen == 6 || (bestLen == 5 && words[5] == 0xffff))) {
      for (int b = 12; b < 16; ++b) {
        p = FormatDecimalByte(bytes[b], p);
        if (b < 15)
          *p++ = '.';
      }
      *p = 0;
      return size_t(p - out);
    }
    const unsigned w = words[i];
    if (w >= 0x1000)
      *p++ = kHex[w >> 12];
    if (w >= 0x100)
      *p++ = kHex[(w >> 8) & 15];
    if (w >= 0x10)
      *p++ = kHex[(w >> 4) & 15];
    *p++ = kHex[w & 15];
  }
  if (bestBase >= 0 && bestBase + bestLen == 8)
    *p++ = ':';
  *p = 0;
  return size_t(p - out);
}

} // namespace ip_impl

union IpAddress::Storage {
  sockaddr_in v4;
  sockaddr_in6 v6;
};

IpAddress::IpAddress() = default;

IpAddress::IpAddress(const std::string& text, Type type) { fromStringAddress(text, type); }

IpAddress::IpAddress(const IpAddress& other) : m_type(other.m_type) {
  if (other.m_address)
    m_address = new Storage(*other.m_address);
}

IpAddress::IpAddress(IpAddress&& other) noexcept : m_type(other.m_type), m_address(other.m_address) {
  other.m_type = IPT_None;
  other.m_address = nullptr;
}

IpAddress& IpAddress::operator=(const IpAddress& other) {
  if (this != &other) {
    if (m_address && other.m_address) {
      *m_address = *other.m_address; // same storage reused
    } else {
      Storage* copy = other.m_address ? new Storage(*other.m_address) : nullptr;
      delete m_address;
      m_address = copy;
    }
    m_type = other.m_type;
  }
  return *this;
}

IpAddress& IpAddress::operator=(IpAddress&& other) noexcept {
  if (this != &other) {
    delete m_address;
    m_address = other.m_address;
    m_type = other.m_type;
    other.m_address = nullptr;
    other.m_type = IPT_None;
  }
  return *this;
}

IpAddress::~IpAddress() { delete m_address; }

void IpAddress::clear() {
  delete m_address;
  m_address = nullptr;
  m_type = IPT_None;
}

void IpAddress::fromStringAddress(const std::string& text, Type type) {
  // Convert on the stack first: host names are common and must not cost an allocation. A block
  // already held is reused, zeroed, rather than freed and allocated again.
  Storage parsed{};
  Type got = IPT_None;
  in_addr a4;
  in6_addr a6;
  // Host names are the common case: an IPv4 text starts with a digit, an IPv6 one has a colon.
  const bool maybe4 = !text.empty() && text[0] >= '0' && text[0] <= '9';
  const bool maybe6 = text.find(':') != std::string::npos;
  if ((type == IPT_IPv4 || type == IPT_None) && maybe4 && inet_pton(AF_INET, text.c_str(), &a4) == 1) {
    parsed.v4.sin_family = AF_INET;
    parsed.v4.sin_addr = a4;
    got = IPT_IPv4;
  } else if ((type == IPT_IPv6 || type == IPT_None) && maybe6 && inet_pton(AF_INET6, text.c_str(), &a6) == 1) {
    parsed.v6.sin6_family = AF_INET6;
    parsed.v6.sin6_addr = a6;
    got = IPT_IPv6;
  }
  if (got == IPT_None) {
    clear();
    return;
  }
  if (!m_address)
    m_address = new Storage;
  *m_address = parsed;
  m_type = got;
}

void IpAddress::fromIPv4(const sockaddr_in* address) { fromSocketAddress(address, AF_INET, IPT_IPv4); }

void IpAddress::fromIPv6(const sockaddr_in6* address) { fromSocketAddress(address, AF_INET6, IPT_IPv6); }

template <typename SocketAddress>
void IpAddress::fromSocketAddress(const SocketAddress* address, int family, Type type) {
  if (!address || reinterpret_cast<const sockaddr*>(address)->sa_family != family) {
    clear();
    return;
  }
  if (!m_address)
    m_address = new Storage;
  *m_address = Storage{};
  std::memcpy(m_address, address, sizeof(SocketAddress));
  m_type = type;
}

const sockaddr_in* IpAddress::getIPv4Sockaddr() const { return m_type == IPT_IPv4 ? &m_address->v4 : nullptr; }

const sockaddr_in6* IpAddress::getIPv6Sockaddr() const { return m_type == IPT_IPv6 ? &m_address->v6 : nullptr; }

const sockaddr* IpAddress::getSockaddr() const {
  if (m_type == IPT_IPv4)
    return reinterpret_cast<const sockaddr*>(&m_address->v4);
  if (m_type == IPT_IPv6)
    return reinterpret_cast<const sockaddr*>(&m_address->v6);
  return nullptr;
}

unsigned int IpAddress::getSockaddrLen() const {
  if (m_type == IPT_IPv4)
    return sizeof(sockaddr_in);
  if (m_type == IPT_IPv6)
    return sizeof(sockaddr_in6);
  return 0;
}

namespace {

bool IsMappedIPv4(const in6_addr& a6, const in_addr& a4) {
  static const unsigned char prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  return std::memcmp(a6.s6_addr, prefix, sizeof(prefix)) == 0 && std::memcmp(a6.s6_addr + 12, &a4, 4) == 0;
}

} // namespace

bool IpAddress::compareAddresses(const IpAddress& other) const {
  if (m_type == other.m_type) {
    switch (m_type) {
    case IPT_None:
      return true;
    case IPT_IPv4:
      return std::memcmp(&m_address->v4.sin_addr, &other.m_address->v4.sin_addr, 4) == 0;
    case IPT_IPv6:
      return std::memcmp(&m_address->v6.sin6_addr, &other.m_address->v6.sin6_addr, 16) == 0;
    }
    return false;
  }
  if (m_type == IPT_IPv4 && other.m_type == IPT_IPv6)
    return IsMappedIPv4(other.m_address->v6.sin6_addr, m_address->v4.sin_addr);
  if (m_type == IPT_IPv6 && other.m_type == IPT_IPv4)
    return IsMappedIPv4(m_address->v6.sin6_addr, other.m_address->v4.sin_addr);
  return false;
}

std::string IpAddress::getAddressAsString(bool withPort) const {
  char buffer[INET6_ADDRSTRLEN];
  uint16_t port = 0;
  if (m_type == IPT_IPv4) {
    if (!inet_ntop(AF_INET, &m_address->v4.sin_addr, buffer, INET_ADDRSTRLEN))
      return {};
    port = ntohs(m_address->v4.sin_port);
  } else if (m_type == IPT_IPv6) {
    ip_impl::FormatIPv6(m_address->v6.sin6_addr.s6_addr, buffer);
    port = ntohs(m_address->v6.sin6_port);
  } else {
    return {};
  }
  std::string text(buffer);
  if (withPort && port != 0) {
    text += ':';
    text += std::to_string(port);
  }
  return text;
}

namespace {

const char* EaiName(int code) {
  switch (code) {
  case EAI_BADFLAGS:
    return " (EAI_BADFLAGS)";
  case EAI_NONAME:
    return " (EAI_NONAME)";
  case EAI_AGAIN:
    return " (EAI_AGAIN)";
  case EAI_FAIL:
    return " (EAI_FAIL)";
  case EAI_FAMILY:
    return " (EAI_FAMILY)";
  case EAI_SOCKTYPE:
    return " (EAI_SOCKTYPE)";
  case EAI_SERVICE:
    return " (EAI_SERVICE)";
  case EAI_MEMORY:
    return " (EAI_MEMORY)";
  default:
    return "";
  }
}

struct AddrInfoFree {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

} // namespace

bool ResolveHostName(const std::string& hostName, unsigned short port, std::vector<qz::IpAddress>& addresses) {
  addresses.clear();
  if (hostName.empty())
    return false;
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* raw = nullptr;
  int rc = getaddrinfo(hostName.c_str(), nullptr, &hints, &raw);
  if (rc != 0) {
    qzLogObject(qzLog::Error, "url") << "getaddrinfo return " << qzStringUtils::fromInt(rc) << EaiName(rc);
    return false;
  }
  std::unique_ptr<addrinfo, AddrInfoFree> list(raw);
  for (addrinfo* entry = list.get(); entry; entry = entry->ai_next) {
    if (!entry->ai_addr)
      continue;
    if (entry->ai_family == AF_INET) {
      auto* sa = reinterpret_cast<sockaddr_in*>(entry->ai_addr);
      sa->sin_port = htons(port);
      addresses.emplace_back().fromIPv4(sa);
    } else if (entry->ai_family == AF_INET6) {
      auto* sa = reinterpret_cast<sockaddr_in6*>(entry->ai_addr);
      sa->sin6_port = htons(port);
      addresses.emplace_back().fromIPv6(sa);
    }
  }
  return !addresses.empty();
}

} // namespace qz
