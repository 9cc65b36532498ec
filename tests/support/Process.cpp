#include "support/Process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace qztest {

namespace {

std::string readAll(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream s;
  s << f.rdbuf();
  return s.str();
}

// One shell word, whatever the text holds.
std::string quoted(const std::string& text) {
  std::string q = "'";
  for (char c : text)
    q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

} // namespace

int RunProgram(const std::vector<std::string>& argv, const std::string& input, std::string& out, std::string& err) {
  char dir[] = "/tmp/httptools-run-XXXXXX";
  if (argv.empty() || !mkdtemp(dir))
    return -1;
  const std::string d = dir;
  std::ofstream(d + "/input", std::ios::binary) << input;
  std::string cmd = "exec";
  for (const std::string& a : argv)
    cmd += " " + quoted(a);
  cmd += " < " + d + "/input > " + d + "/out 2> " + d + "/err";
  const int status = std::system(cmd.c_str());
  out = readAll(d + "/out");
  err = readAll(d + "/err");
  for (const char* f : {"/input", "/out", "/err"})
    std::remove((d + f).c_str());
  rmdir(dir);
  if (status == -1 || !WIFEXITED(status))
    return -1;
  return WEXITSTATUS(status);
}

int RunPython(const std::string& script, const std::string& input, std::string& out, std::string& err) {
  return RunProgram({"/usr/bin/python3", "-c", script}, input, out, err);
}

} // namespace qztest
