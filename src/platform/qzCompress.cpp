#include <HttpTools/platform/qzCompress.h>

#include <HttpTools/platform/LibInit.h>

#include <zlib.h>

namespace qz {

namespace {
impl::LibInitCounter& counter() {
  static impl::LibInitCounter c("compress", 1);
  return c;
}
} // namespace

void initializeCompress() {
  if (counter().incrementInitCounter())
    impl::RegisterThirdPartyLibVersionInfo("zlib", zlibVersion());
}

void terminateCompress() {
  if (counter().decrementInitCounter())
    impl::UnRegisterThirdPartyLibVersionInfo("zlib");
}

} // namespace qz
