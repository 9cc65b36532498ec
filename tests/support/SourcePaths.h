#pragma once

#include <string>

namespace qztest {

/// The source tree's root. Kept out of compile flags so that object files of different
/// checkouts are identical and the compiler cache can share them.
const std::string& SourceDir();
/// The build tree's root.
const std::string& BinaryDir();

} // namespace qztest
