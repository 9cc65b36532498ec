#pragma once

#include <string>

namespace qztest {

// Runs `script` with /usr/bin/python3 (the interpreter that has python3-jwt and
// python3-cryptography), `input` on its standard input. Returns its exit code (-1 when it could
// not be started); `out` gets its standard output, `err` its standard error.
int RunPython(const std::string& script, const std::string& input, std::string& out, std::string& err);

} // namespace qztest
