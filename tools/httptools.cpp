// httptools: command-line front end of the HttpTools library.

#include <HttpTools/HttpTools.h>

#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace {

const char* kUsage = R"(usage: httptools COMMAND [ARGS]

Commands:
  version              library, libcurl and OpenSSL versions
  help, --help         this text
)";

int cmdVersion() {
  std::cout << "HttpTools " << HttpTools::Version::GetDescStringMajorMinorReleaseRevisionDate() << "\n";
  auto libs = qz::impl::GetThirdPartyLibVersionInfo();
  std::cout << "libcurl   " << libs["libcurl"] << "\n";
  std::cout << "OpenSSL   " << qz::qzOpenSSL::VersionText() << "\n";
  return 0;
}

} // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "help" || args[0] == "--help" || args[0] == "-h") {
    std::cout << kUsage;
    return args.empty() ? 2 : 0;
  }
  try {
    qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  } catch (const std::exception& e) {
    std::cerr << "httptools: " << e.what() << "\n";
    return 1;
  }
  int rc = 2;
  if (args[0] == "version") {
    rc = cmdVersion();
  } else {
    std::cerr << "httptools: unknown command '" << args[0] << "'\n" << kUsage;
  }
  qz::terminateHttpTools();
  return rc;
}
