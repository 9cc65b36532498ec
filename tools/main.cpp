// httptools: command-line front end of the HttpTools library.

#include "Commands.h"

#include <HttpTools/HttpTools.h>

#include <iostream>

int httptools::exitCode = 0;

int main(int argc, char** argv) {
  CLI::App app{"httptools: HTTP, JSON Web Tokens and CouchDB from the command line", "httptools"};
  app.require_subcommand(1);
  httptools::AddLegacyCommands(app);
  httptools::AddCouchToolCommands(*app.get_subcommand("couch"));
  httptools::AddElasticCommands(app);
  httptools::AddRiverCommand(app);
  try {
    qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  } catch (const std::exception& e) {
    std::cerr << "httptools: " << e.what() << "\n";
    return 1;
  }
  int rc = 0;
  try {
    app.parse(argc, argv);
    rc = httptools::exitCode;
  } catch (const CLI::ParseError& e) {
    rc = app.exit(e);
    if (rc != 0)
      rc = 2;
  }
  qz::terminateHttpTools();
  return rc;
}
