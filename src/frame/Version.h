#pragma once

#include <HttpTools/HttpToolsVersion.h>
#include <HttpTools/platform/Export.h>

namespace HttpTools {

// The library's version: 3.0.0.17 of July 2022.
class HTTPTOOLS_API Version {
public:
  static int GetMajor();
  static int GetMinor();
  static int GetRelease();
  static int GetRevision();
  static int GetYear();
  static int GetMonth();
  // The flag is accepted for compatibility and has no effect.
  static const char* GetDescStringMajorMinor(bool = false);
  static const char* GetDescStringMajorMinorRelease(bool = false);
  static const char* GetDescStringMajorMinorReleaseRevision(bool = false);
  static const char* GetDescStringMajorMinorReleaseRevisionDate();
};

} // namespace HttpTools
