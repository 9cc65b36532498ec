// Command groups of the httptools program.
//
// Each group lives in a file of its own and adds its subcommands to the CLI11 app in one
// function. A subcommand's callback does the work and leaves the process's exit status in
// `exitCode`: 0 success, 1 failure, 2 usage, and curl's codes where curl has one for the cause.
#pragma once

#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/url/Url.h>

#include <CLI/CLI.hpp>

#include <functional>
#include <list>
#include <string>
#include <vector>

namespace httptools {

extern int exitCode;
// The exit status of a command-line error: kExitUsage unless the command uses its own (ping: 3).
extern int usageExitCode;

// Exit codes shared with curl for the same causes.
enum ExitCode : int {
  kExitOk = 0,
  kExitFailure = 1,
  kExitUsage = 2,
  kExitBadUrl = 3,
  kExitResolve = 6,
  kExitConnect = 7,
  kExitPartial = 18,
  kExitHttpStatus = 22,
  kExitWrite = 23,
  kExitTimeout = 28,
  kExitTls = 35,
  kExitCertificate = 60,
  kExitFileSize = 63,
};

// -v of any command: the library's log lines and libcurl's debug lines reach standard error only
// then. Set before the command runs.
extern bool verbose;
// Routes the library's log lines to standard error while `verbose` is set, drops them otherwise.
void InstallLogSink();

// A URL of the command line as curl takes it: "http://" put in front when no scheme is given, and
// a port that is not plain decimal 1-65535 refused. False with a message in `error`.
bool CheckCommandLineUrl(std::string& text, std::string& error);
// The same, then parsed: false with a message on standard error, for exit kExitBadUrl.
bool ParseCommandLineUrl(const std::string& command, std::string text, qz::Url& url);

// The header lines of "@FILE" (CR LF or LF, blank lines skipped) appended to `lines`.
bool AppendHeaderFile(const std::string& at, std::vector<std::string>& lines, std::string& error);

// The connection options every network command shares: -k, --cacert, -H, -u, -m,
// --connect-timeout, -v.
struct ConnectionOptions {
  bool insecure = false;
  std::string caFile;
  std::vector<std::string> headers;
  std::string user; // "user:password"
  double maxTime = 0, connectTimeout = 0;
  bool verboseFlag = false;

  // Whole "Name: value" lines: -H (with @FILE read) and -u's Authorization; false with a message.
  bool headerLines(std::vector<std::string>& lines, std::string& error) const;
  void apply(qz::http::HttpConnection::ConnectionParameters& params) const;
};
// Adds the options above to `cmd`; `withHeaders` false leaves -H and -u out.
void AddConnectionOptions(CLI::App* cmd, ConnectionOptions& o, bool withHeaders = true);
// Keeps -k, --cacert, -H, -u and -m in ConnectionSetup() for Prepare(); -v sets `verbose`. False
// with a message on standard error.
bool UseConnectionOptions(const std::string& command, const ConnectionOptions& o);
// -k, --cacert, -H, -u, -m of the running command, for every connection the tools open.
struct ConnectionSetupValues {
  qz::http::HttpConnection::ConnectionParameters parameters;
  std::list<std::string> headers;
};
ConnectionSetupValues& ConnectionSetup();
void Prepare(qz::http::HttpConnection& connection);
void Prepare(qz::http::HttpConnectionPool& pool); // every connection the pool makes

// One request to `url` without repetition, before a tool that would repeat its own requests
// starts: an unreachable server fails at once. Returns the exit code (kExitOk when it answered).
// `prepare`, when given, sets the connection up in place of Prepare().
int ProbeServer(const std::string& command, const qz::Url& url,
                const std::function<void(qz::http::HttpConnection&)>& prepare = {});

void AddVersionCommands(CLI::App& app);     // version
void AddUrlCommands(CLI::App& app);         // url
void AddHttpCommands(CLI::App& app);        // get, head, put, post, delete
void AddJwtCommands(CLI::App& app);         // jwt sign, verify, decode
void AddCouchCommands(CLI::App& app);       // couch view
void AddPingCommand(CLI::App& app);         // ping
void AddCouchToolCommands(CLI::App& couch); // couch changes, get, upload, conflicts
void AddRiverCommand(CLI::App& app);        // river

// es search, es get, es bulk; es export and import (es_data_cmd.cpp)
void AddElasticCommands(CLI::App& app);

// The group subcommand `name` of `app`, made on first use, so that several files can add
// commands to one group (couch view here, other couch commands elsewhere).
CLI::App* Group(CLI::App& app, const std::string& name, const std::string& description);

// The contents of a data argument as curl reads them: "@FILE" a file, "@-" standard input,
// anything else the text itself. False with a message when the file cannot be read.
bool ReadDataArgument(const std::string& argument, std::string& data, std::string& error);

// A whole file; false when it cannot be read.
bool ReadFile(const std::string& path, std::string& content);

// SIGINT or SIGTERM as the cancel flag of the library's long calls; the first call installs the
// handlers. The handler and other threads reach the flag only through atomic operations.
const bool* InterruptFlag();
bool Interrupted();

// A failed call's error as curl's exit code: 6, 7, 18, 22, 23, 28, 35, 60, 63 for their causes, 1
// for any other.
int ExitCodeOfTransferError(const qz::http::TransferError& error);

} // namespace httptools
