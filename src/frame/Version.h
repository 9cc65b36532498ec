#pragma once

#include <HttpTools/HttpToolsVersion.h>
#include <HttpTools/platform/Export.h>

namespace HttpTools {

/// The library's version: 3.0.0.17 of July 2022.
class HTTPTOOLS_API Version {
public:
  /// The parts of the version number (3, 0, 0, 17) and of its date (2022, 7).
  ///@{
  static int GetMajor();
  static int GetMinor();
  static int GetRelease();
  static int GetRevision();
  static int GetYear();
  static int GetMonth();
  ///@}
  /// "3.0"; the flag is accepted for compatibility and has no effect.
  static const char* GetDescStringMajorMinor(bool = false);
  /// "3.0.0" and "3.0.0.17"; the flag has no effect.
  ///@{
  static const char* GetDescStringMajorMinorRelease(bool = false);
  static const char* GetDescStringMajorMinorReleaseRevision(bool = false);
  ///@}
  /// "3.0.0.17 2022-7". The strings are static: never freed.
  static const char* GetDescStringMajorMinorReleaseRevisionDate();
};

} // namespace HttpTools
