#include "support/Python.h"

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
} // namespace

int RunPython(const std::string& script, const std::string& input, std::string& out, std::string& err) {
  char dir[] = "/tmp/httptools-py-XXXXXX";
  if (!mkdtemp(dir))
    return -1;
  const std::string d = dir;
  std::ofstream(d + "/script.py", std::ios::binary) << script;
  std::ofstream(d + "/input", std::ios::binary) << input;
  const std::string cmd = "/usr/bin/python3 " + d + "/script.py < " + d + "/input > " + d + "/out 2> " + d + "/err";
  int status = std::system(cmd.c_str());
  out = readAll(d + "/out");
  err = readAll(d + "/err");
  for (const char* f : {"/script.py", "/input", "/out", "/err"})
    std::remove((d + f).c_str());
  rmdir(dir);
  if (status == -1 || !WIFEXITED(status))
    return -1;
  return WEXITSTATUS(status);
}

} // namespace qztest
