#pragma once

#include <string>
#include <vector>

namespace qztest {

// Runs the program argv[0] with its arguments, each passed as written (quoted for the shell that
// sets up the redirections), `input` on its standard input. Returns its exit code (-1 when it
// could not be started or did not exit); `out` gets its standard output, `err` its standard error.
int RunProgram(const std::vector<std::string>& argv, const std::string& input, std::string& out, std::string& err);

// Runs `script` with /usr/bin/python3 (the interpreter that has python3-jwt and
// python3-cryptography), as RunProgram does.
int RunPython(const std::string& script, const std::string& input, std::string& out, std::string& err);

} // namespace qztest
