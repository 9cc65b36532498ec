#pragma once

#include <HttpTools/platform/qzVariant.h>

#include <string>

namespace qz::river::detail {

// A mapping object from JSON text; false (with the reason) unless it is a JSON object.
bool ParseMapping(const std::string& json, qzVariant& out, std::string* error);

// The mapping as kept in an index's meta data: base64 of the zlib deflate of its compact JSON with
// sorted keys, and back (false on anything that is not such a text).
std::string PackMapping(const qzVariant& mapping);
bool UnpackMapping(const std::string& packed, qzVariant& out);

// True when the live mapping (as the server echoes it) says what `wanted` says: key order does not
// matter, numbers and booleans may come back as strings, fields added to `properties` by dynamic
// mapping and settings the server fills in with their default values are ignored; `_meta` is
// left out at the top.
bool MappingsEquivalent(const qzVariant& wanted, const qzVariant& live);

} // namespace qz::river::detail
