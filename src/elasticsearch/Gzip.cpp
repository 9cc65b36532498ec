#include <HttpTools/elasticsearch/Gzip_p.h>

#include <zlib.h>

#include <algorithm>

namespace qz::elasticsearch {

bool GzipCompress(std::string_view in, int level, std::string& out) {
  z_stream z{};
  // 15 window bits + 16: a gzip header and trailer instead of zlib's.
  if (deflateInit2(&z, std::clamp(level, 1, 9), Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK)
    return false;
  out.resize(deflateBound(&z, uLong(in.size())));
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  z.avail_in = uInt(in.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = uInt(out.size());
  const int rc = deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  return rc == Z_STREAM_END;
}

} // namespace qz::elasticsearch
