#pragma once

#include <string>
#include <string_view>

namespace qz::elasticsearch {

// `in` as one gzip member (RFC 1952) at zlib `level` (1 fastest .. 9 smallest) into `out`,
// replacing it. False only when zlib fails (out of memory).
bool GzipCompress(std::string_view in, int level, std::string& out);

} // namespace qz::elasticsearch
