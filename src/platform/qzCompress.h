#pragma once

#include <HttpTools/platform/Export.h>

namespace qz {

/// Sets up the compression layer (zlib) and registers its version; counted like the library.
HTTPTOOLS_API void initializeCompress();
/// Undoes one initializeCompress(); the last one unregisters the version.
HTTPTOOLS_API void terminateCompress();

} // namespace qz
