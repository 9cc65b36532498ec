// couch view: stream a CouchDB view from the command line. Other couch commands join the same
// group through Group(app, "couch", ...).

#include "Commands.h"

#include <HttpTools/HttpTools.h>

#include <iostream>
#include <memory>

namespace {

struct ViewOptions {
  std::string dbUrl;
  std::string design, view; // both or neither
  std::vector<std::string> keys;
  long limit = -1;
  bool insecure = false;
};

bool PrintViewRow(const std::string& id, qz::qzVariant& key, qz::qzVariant& value, void*) {
  std::cout << id << '\t' << key.toString() << '\t' << value.toString() << '\n';
  return true;
}

int RunView(CLI::App* cmd, ViewOptions& o) {
  if (o.view.empty() != o.design.empty())
    throw CLI::RequiredError("VIEW");
  // "http://host/db/" names the same database as "http://host/db".
  std::string dbUrl = o.dbUrl;
  while (dbUrl.size() > 1 && dbUrl.back() == '/')
    dbUrl.pop_back();
  qz::couch::CouchConnectionParameters server;
  std::string db;
  if (!qz::couch::CouchConnectionParameters::BuildFromDbUrl(&server, &db, dbUrl) || db.empty()) {
    std::cerr << "httptools couch view: '" << o.dbUrl << "' is not a database URL (http://host:port/db)\n";
    return httptools::kExitUsage;
  }
  qz::http::HttpConnection connection;
  if (o.insecure)
    connection.editConnectionParameters().sslValidatePolicy = qz::http::SVP_NoVerify;
  const bool withKeys = cmd->count("--keys") > 0;
  const bool ok = qz::couch::FetchCouchDbView(connection, server, db, o.design, o.view, withKeys ? &o.keys : nullptr,
                                              &PrintViewRow, nullptr, o.limit, 0, nullptr);
  std::cout.flush();
  if (ok)
    return httptools::kExitOk;
  const std::string error = connection.getLastErrorMsg();
  std::cerr << "httptools couch view: " << (error.empty() ? "the view could not be read" : error) << "\n";
  const long status = connection.getLastHttpReturnCode();
  if (const int rc = httptools::ExitCodeOfTransferError(connection.getLastError()); rc != httptools::kExitFailure)
    return rc;
  return status >= 400 ? httptools::kExitHttpStatus : httptools::kExitFailure;
}

} // namespace

namespace httptools {

void AddCouchCommands(CLI::App& app) {
  CLI::App* couch = Group(app, "couch", "CouchDB commands");
  auto o = std::make_shared<ViewOptions>();
  CLI::App* view = couch->add_subcommand(
      "view", "Stream a view (or _all_docs without DESIGN VIEW) of a database, one row a line: id, key and value "
              "tab-separated (strings as they are, maps and lists as JSON)");
  view->add_option("DB_URL", o->dbUrl, "The database's URL, http://host:port/db (a trailing slash is fine)")
      ->required();
  view->add_option("DESIGN", o->design, "Design document name (without _design/)");
  view->add_option("VIEW", o->view, "View name in that design document");
  view->add_option("--keys", o->keys, "Only these document keys, comma-separated (POSTed as \"keys\")")->delimiter(',');
  view->add_option("--limit", o->limit, "At most N rows")->check(CLI::NonNegativeNumber);
  view->add_flag("-k,--insecure", o->insecure, "Do not check the server's certificate");
  view->callback([view, o] { exitCode = RunView(view, *o); });
}

} // namespace httptools
