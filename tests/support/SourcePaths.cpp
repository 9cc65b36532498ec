#include "support/SourcePaths.h"

namespace qztest {

const std::string& SourceDir() {
  static const std::string dir = HTTPTOOLS_SOURCE_DIR;
  return dir;
}

const std::string& BinaryDir() {
  static const std::string dir = HTTPTOOLS_BINARY_DIR;
  return dir;
}

} // namespace qztest
