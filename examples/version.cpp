// Start the library, print its version, stop it.
#include <HttpTools/HttpTools.h>

#include <iostream>

int main() {
  qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  std::cout << "HttpTools " << HttpTools::Version::GetDescStringMajorMinorReleaseRevisionDate() << "\n";
  qz::terminateHttpTools();
  return 0;
}
