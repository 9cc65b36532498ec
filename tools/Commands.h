// Command groups of the httptools program.
//
// Each group lives in a file of its own and adds its subcommands to the CLI11 app in one
// function. A subcommand's callback does the work and leaves the process's exit status in
// `exitCode`: 0 success, 1 failure, 2 usage, and curl's codes where curl has one for the cause.
#pragma once

#include <HttpTools/http/HttpConnection.h>

#include <CLI/CLI.hpp>

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
  kExitResolve = 6,
  kExitConnect = 7,
  kExitHttpStatus = 22,
  kExitTimeout = 28,
  kExitCertificate = 60,
  kExitFileSize = 63,
};

void AddVersionCommands(CLI::App& app);     // version
void AddUrlCommands(CLI::App& app);         // url
void AddHttpCommands(CLI::App& app);        // get, head, put, post, delete
void AddJwtCommands(CLI::App& app);         // jwt sign, verify, decode
void AddCouchCommands(CLI::App& app);       // couch view
void AddPingCommand(CLI::App& app);         // ping
void AddCouchToolCommands(CLI::App& couch); // couch changes, get, upload, conflicts
void AddRiverCommand(CLI::App& app);        // river

// es search, es get, es bulk
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

// A failed call's error as curl's exit code: 6, 7, 28, 60, 63 for their causes, 1 for any other.
int ExitCodeOfTransferError(const qz::http::TransferError& error);

struct ParallelGetOptions {
  std::list<std::string> headers;                            // extra header lines for every request
  qz::http::HttpConnection::ConnectionParameters parameters; // time-outs, certificates, body limit
};
// Fetches `urls` with up to `parallel` transfers at once; the i-th body goes to outputs[i] when
// there is one, otherwise to standard output, in the order of `urls`. A failed request (or a
// status >= 400) is reported on standard error and writes nothing. 0 when all succeeded, 1
// otherwise, 2 for bad arguments or an invalid URL.
int RunParallelGet(const std::vector<std::string>& urls, const std::vector<std::string>& outputs, unsigned parallel,
                   const ParallelGetOptions& options);

} // namespace httptools
