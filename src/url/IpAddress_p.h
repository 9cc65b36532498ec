#pragma once

// Text forms of addresses, shared by IpAddress and the URL parser.

#include <HttpTools/platform/Export.h>

#include <cstddef>

namespace qz::ip_impl {

constexpr size_t kIPv6TextMax = 46; // "ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255" and its terminator

// Writes the 16 network-order bytes as the C library's inet_ntop does (lower-case hex, the
// longest run of two or more zero groups as "::", the first of equal runs, the mapped and
// compatible IPv4 forms in dotted decimal); returns the length, without the terminator it adds.
size_t FormatIPv6(const unsigned char* bytes, char* out);

} // namespace qz::ip_impl
