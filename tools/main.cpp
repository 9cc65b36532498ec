// httptools: command-line front end of the HttpTools library.

#include "Commands.h"

#include <HttpTools/HttpTools.h>

#include <csignal>
#include <iostream>

int httptools::exitCode = 0;
int httptools::usageExitCode = httptools::kExitUsage;

namespace {

std::string VersionText() {
  auto libs = qz::impl::GetThirdPartyLibVersionInfo();
  return std::string("HttpTools ") + HttpTools::Version::GetDescStringMajorMinorReleaseRevisionDate() + "\nlibcurl   " +
         libs["libcurl"] + "\nOpenSSL   " + qz::qzOpenSSL::VersionText();
}

} // namespace

namespace httptools {

void AddVersionCommands(CLI::App& app) {
  app.add_subcommand("version", "Print the library, libcurl and OpenSSL versions")->callback([] {
    std::cout << VersionText() << "\n";
  });
}

} // namespace httptools

int main(int argc, char** argv) {
  CLI::App app{"HTTP requests, URLs, JSON Web Tokens and CouchDB views from the command line.", "httptools"};
  app.require_subcommand(1);
  app.fallthrough(false);
  app.footer("Exit status (all commands but ping): 0 success, 1 failure, 2 usage error, and curl's codes:\n"
             "3 bad URL, 6 host not resolved, 7 no connection, 18 body cut short, 22 HTTP status not\n"
             "accepted, 23 output not writable, 28 time-out, 35 TLS failure, 60 certificate not verified.\n"
             "See httptools(1).");
  httptools::InstallLogSink();
  try {
    qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
    // As curl does, the tool checks certificates of loopback servers too; -k turns checks off.
    qz::SetLoopbackCertificateExemption(false);
    std::signal(SIGPIPE, SIG_IGN); // a closed pipe shows as a write error (exit 23)
  } catch (const std::exception& e) {
    std::cerr << "httptools: " << e.what() << "\n";
    return 1;
  }
  app.set_version_flag("--version", VersionText());
  httptools::AddVersionCommands(app);
  httptools::AddHttpCommands(app);
  httptools::AddUrlCommands(app);
  httptools::AddJwtCommands(app);
  httptools::AddCouchCommands(app);
  httptools::AddCouchToolCommands(*httptools::Group(app, "couch", ""));
  httptools::AddPingCommand(app);
  httptools::AddElasticCommands(app);
  httptools::AddRiverCommand(app);
  int rc = 0;
  try {
    app.parse(argc, argv);
    rc = httptools::exitCode;
  } catch (const CLI::ParseError& e) {
    rc = app.exit(e);
    if (rc != 0)
      rc = httptools::usageExitCode;
  }
  qz::terminateHttpTools();
  return rc;
}
