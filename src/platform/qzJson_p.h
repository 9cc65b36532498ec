#pragma once

#include <HttpTools/platform/qzVariant.h>

#include <string>
#include <string_view>

namespace qz::json {

// Compact JSON appended to `out` (NaN and infinities as null), for request bodies built in place.
void AppendJson(std::string& out, const qzVariant& value);
void AppendJson(std::string& out, const qzVariantMapImpl& map);
// `s` as a JSON string literal, quotes included.
void AppendJsonString(std::string& out, std::string_view s);
// The failure an answer object carries, as "error: reason": CouchDB's {"error":"conflict",
// "reason":".."} and Elasticsearch's {"error":{"type":"..","reason":".."}}; "" when it has no "error".
std::string ErrorReasonOf(const qzVariantMapImpl& answer);
// {"key":["s1","s2",...]} of strings [first, last).
std::string JsonStringArray(std::string_view key, const std::string* first, const std::string* last);

} // namespace qz::json
