// Command groups of the httptools program.
//
// Each group lives in a file of its own and adds its subcommands to the CLI11 app in one
// function. A subcommand's callback does the work and leaves the process's exit status in
// `exitCode`: 0 success, 1 failure, 2 usage, and curl's codes where curl has one for the cause.
#pragma once

#include <CLI/CLI.hpp>

namespace httptools {

extern int exitCode;

void AddLegacyCommands(CLI::App& app);      // version, jwt, url, get/head/put/post/delete, couch view
void AddCouchToolCommands(CLI::App& couch); // couch changes, get, upload, conflicts
void AddRiverCommand(CLI::App& app);        // river

// es search, es get, es bulk
void AddElasticCommands(CLI::App& app);

// es search, es get, es bulk
void AddElasticCommands(CLI::App& app);

} // namespace httptools
