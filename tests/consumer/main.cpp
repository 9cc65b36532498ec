// Uses only the installed umbrella header and exported symbols.
#include <HttpTools/HttpTools.h>

#include <cstdio>
#include <cstring>

static_assert(HTTPTOOLS_VERSION_MAJOR == 3 && HTTPTOOLS_VERSION_NUMBER >= 0x03000000, "version header");

int main() {
  qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  int rc = 0;
  // The headers and the library loaded at run time are of one version.
  if (!qz::IsHttpToolsInitialized() ||
      std::strcmp(HttpTools::Version::GetDescStringMajorMinorReleaseRevisionDate(), HTTPTOOLS_VERSION_DESCRIPTION) !=
          0 ||
      HttpTools::Version::GetMajor() != HTTPTOOLS_VERSION_MAJOR ||
      HttpTools::Version::GetRevision() != HTTPTOOLS_VERSION_REVISION)
    rc = 1;
  qz::qzVariantMapImpl doc;
  std::string text;
  if (!qz::json::Json2Variant::Convert(std::string(R"({"a":[1,2]})"), doc) ||
      !qz::json::Json2Variant::Convert(doc, text, false) || text != R"({"a":[1,2]})")
    rc = 1;
  if (qz::http::ProxyPolicyEnumHelper(qz::http::PP_NoProxy).toString() != "PP_NoProxy")
    rc = 1;
  qz::terminateHttpTools();
  std::printf("consumer: %s\n", rc == 0 ? "ok" : "FAILED");
  return rc;
}
