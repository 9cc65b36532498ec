#include <HttpTools/frame/Version.h>

namespace HttpTools {

int Version::GetMajor() { return 3; }
int Version::GetMinor() { return 0; }
int Version::GetRelease() { return 0; }
int Version::GetRevision() { return 17; }
int Version::GetYear() { return 2022; }
int Version::GetMonth() { return 7; }
const char* Version::GetDescStringMajorMinor(bool) { return "3.0"; }
const char* Version::GetDescStringMajorMinorRelease(bool) { return "3.0.0"; }
const char* Version::GetDescStringMajorMinorReleaseRevision(bool) { return "3.0.0.17"; }
const char* Version::GetDescStringMajorMinorReleaseRevisionDate() { return HTTPTOOLS_VERSION_TEXT; }

} // namespace HttpTools
