// Command groups of the httptools program.
//
// Each group lives in a file of its own and adds its subcommands to the CLI11 app in one
// function. A subcommand's callback does the work and leaves the process's exit status in
// `exitCode`: 0 success, 1 failure, 2 usage, and curl's codes where curl has one for the cause.
#pragma once

#include <CLI/CLI.hpp>

#include <list>
#include <string>
#include <vector>

namespace httptools {

extern int exitCode;

void AddLegacyCommands(CLI::App& app); // version, jwt, url, get/head/put/post/delete, couch view

// `get` with --parallel N or -Z; other get calls go to the single-URL get added before.
void AddParallelGetCommand(CLI::App& app);

struct ParallelGetOptions {
  std::list<std::string> headers; // extra header lines for every request
  bool insecure = false;          // no certificate checks
};
// Fetches `urls` with up to `parallel` transfers at once; the i-th body goes to outputs[i] when
// there is one, otherwise to standard output, in the order of `urls`. A failed request (or a
// status >= 400) is reported on standard error and writes nothing. 0 when all succeeded, 1
// otherwise, 2 for bad arguments.
int RunParallelGet(const std::vector<std::string>& urls, const std::vector<std::string>& outputs, unsigned parallel,
                   const ParallelGetOptions& options);

} // namespace httptools
