// Uses only the installed umbrella header and exported symbols.
#include <HttpTools/HttpTools.h>

#include <cstdio>
#include <cstring>

int main() {
  qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  int rc = 0;
  if (!qz::IsHttpToolsInitialized() ||
      std::strcmp(HttpTools::Version::GetDescStringMajorMinorReleaseRevisionDate(), "3.0.0.17 2022-7") != 0)
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
