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
  httptools::ConnectionOptions conn;
};

// --keys values as JSON texts: one JSON array gives its elements, anything else is one value
// each; a text that is not JSON is taken as a string.
bool KeyTexts(const std::vector<std::string>& args, std::vector<std::string>& keys) {
  for (const std::string& arg : args) {
    qz::qzVariant value;
    if (!qz::json::Json2Variant::Convert(arg.data(), arg.size(), value))
      value = qz::qzVariant(arg);
    if (args.size() == 1 && value.isList()) {
      for (const qz::qzVariant& item : value.toList()) {
        std::string text;
        qz::json::Json2Variant::Convert(item, text, false);
        keys.push_back(text);
      }
      return true;
    }
    std::string text;
    if (!qz::json::Json2Variant::Convert(value, text, false))
      return false;
    keys.push_back(text);
  }
  return true;
}

int RunView(CLI::App* cmd, ViewOptions& o) {
  const std::string name = "httptools couch view";
  if (o.view.empty() != o.design.empty())
    throw CLI::RequiredError("VIEW");
  // "http://host/db/" names the same database as "http://host/db".
  std::string dbUrl = o.dbUrl, error;
  while (dbUrl.size() > 1 && dbUrl.back() == '/')
    dbUrl.pop_back();
  qz::couch::CouchConnectionParameters server;
  std::string db;
  if (!httptools::CheckCommandLineUrl(dbUrl, error) ||
      !qz::couch::CouchConnectionParameters::BuildFromDbUrl(&server, &db, dbUrl) || db.empty()) {
    std::cerr << name << ": '" << o.dbUrl << "' is not a database URL (http://host:port/db) " << error << "\n";
    return httptools::kExitBadUrl;
  }
  if (!httptools::UseConnectionOptions(name, o.conn))
    return httptools::kExitUsage;
  qz::couch::ViewQueryOptions query;
  query.limit = o.limit;
  if (cmd->count("--keys") > 0 && !KeyTexts(o.keys, query.keys)) {
    std::cerr << name << ": --keys: not JSON values\n";
    return httptools::kExitUsage;
  }
  qz::http::HttpConnection connection;
  httptools::Prepare(connection);
  const bool ok = qz::couch::FetchCouchDbView(
      connection, server, db, o.design, o.view, query,
      [](qz::couch::ViewRow& row) {
        std::cout << row.id << '\t' << row.key.toString() << '\t' << row.value.toString() << '\n';
        return bool(std::cout);
      },
      &error, nullptr);
  std::cout.flush();
  if (ok)
    return httptools::kExitOk;
  if (!std::cout)
    return httptools::kExitWrite;
  std::cerr << name << ": " << (error.empty() ? connection.getLastErrorMsg() : error) << "\n";
  const qz::http::TransferError failure = connection.getLastError();
  const int rc = httptools::ExitCodeOfTransferError(failure);
  if (rc != httptools::kExitOk && rc != httptools::kExitFailure)
    return rc;
  return connection.getLastHttpReturnCode() >= 400 ? httptools::kExitHttpStatus : httptools::kExitFailure;
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
  view->add_option("--keys", o->keys,
                   "Only these keys: one JSON array of them, or one JSON value per --keys (a text that is not "
                   "JSON is a string)")
      ->allow_extra_args(false);
  view->add_option("--limit", o->limit, "At most N rows")->check(CLI::NonNegativeNumber);
  AddConnectionOptions(view, o->conn);
  view->callback([view, o] { exitCode = RunView(view, *o); });
}

} // namespace httptools
