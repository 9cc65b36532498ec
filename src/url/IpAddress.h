#pragma once

#include <HttpTools/platform/Export.h>

#include <string>
#include <vector>

/// Socket address structures stay opaque here so that users need no system network headers.
struct sockaddr;
struct sockaddr_in;
struct sockaddr_in6;

namespace qz {

/// One IPv4 or IPv6 socket address (port included, network byte order), or nothing.
class HTTPTOOLS_API IpAddress {
public:
  /// A fixed underlying type: values outside the list are valid (and treated as none).
  enum Type : int { IPT_None = 0, IPT_IPv4 = 1, IPT_IPv6 = 2 };

  /// An empty address; or the parse of `text` (see fromStringAddress); copies and moves take the whole structure.
  ///@{
  IpAddress();
  IpAddress(const std::string& text, Type type);
  IpAddress(const IpAddress& other);
  IpAddress(IpAddress&& other) noexcept;
  IpAddress& operator=(const IpAddress& other);
  IpAddress& operator=(IpAddress&& other) noexcept;
  ///@}
  ~IpAddress();

  /// Parses a numeric address; IPT_None tries IPv4 first, then IPv6. On failure the object is empty.
  /// The port of a parsed address is 0.
  void fromStringAddress(const std::string& text, Type type);
  /// Copies the whole structure (port included) when its family matches; otherwise leaves it empty.
  void fromIPv4(const sockaddr_in* address);
  /// As fromIPv4, for IPv6.
  void fromIPv6(const sockaddr_in6* address);
  /// Makes the address empty.
  void clear();

  /// Whether an address is held, and its family.
  ///@{
  bool isValid() const { return m_type != IPT_None; }
  Type getType() const { return m_type; }
  ///@}

  /// The stored structure, or null when the address is not of that family.
  ///@{
  const sockaddr_in* getIPv4Sockaddr() const;
  const sockaddr_in6* getIPv6Sockaddr() const;
  const sockaddr* getSockaddr() const; ///< the stored structure whatever its family; null when empty
  ///@}
  /// 16 for IPv4, 28 for IPv6, 0 when empty.
  unsigned int getSockaddrLen() const;

  /// Compares the addresses, ignoring ports; an IPv4 address equals its IPv4-mapped IPv6 form.
  bool compareAddresses(const IpAddress& other) const;
  /// compareAddresses: ports are ignored.
  ///@{
  bool operator==(const IpAddress& other) const { return compareAddresses(other); }
  bool operator!=(const IpAddress& other) const { return !compareAddresses(other); }
  ///@}

  /// Numeric text without brackets; ":port" appended when withPort is true and the port is not 0.
  std::string getAddressAsString(bool withPort) const;

private:
  template <typename SocketAddress> void fromSocketAddress(const SocketAddress* address, int family, Type type);
  union Storage;
  Type m_type = IPT_None;
  Storage* m_address = nullptr; ///< owned; null when m_type is IPT_None
};

/// Resolves a host name to its TCP addresses, each carrying `port`. Logs and returns false on failure.
HTTPTOOLS_API bool ResolveHostName(const std::string& hostName, unsigned short port,
                                   std::vector<qz::IpAddress>& addresses);

} // namespace qz
