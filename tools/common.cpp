// Helpers shared by the command groups.

#include "Commands.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace httptools {

CLI::App* Group(CLI::App& app, const std::string& name, const std::string& description) {
  for (CLI::App* sub : app.get_subcommands([&](CLI::App* s) { return s->get_name() == name; }))
    return sub;
  CLI::App* group = app.add_subcommand(name, description);
  group->require_subcommand(1);
  return group;
}

bool ReadFile(const std::string& path, std::string& content) {
  std::ifstream f(path, std::ios::binary);
  if (!f)
    return false;
  std::ostringstream s;
  s << f.rdbuf();
  content = s.str();
  return !f.bad();
}

bool ReadDataArgument(const std::string& argument, std::string& data, std::string& error) {
  if (argument == "@-") {
    data.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    return true;
  }
  if (argument.starts_with("@")) {
    if (!ReadFile(argument.substr(1), data)) {
      error = "cannot read " + argument.substr(1);
      return false;
    }
    return true;
  }
  data = argument;
  return true;
}

int ExitCodeOfTransferError(const std::string& error) {
  // The body limit is also counted on the decoded body, where libcurl's own check does not see it.
  if (error.find("Response body larger than the limit of ") != std::string::npos)
    return kExitFileSize;
  static const std::string kCurl = "Curl error : ";
  const size_t at = error.find(kCurl);
  if (at == std::string::npos)
    return kExitFailure;
  switch (std::atoi(error.c_str() + at + kCurl.size())) {
  case 6:
    return kExitResolve;
  case 7:
    return kExitConnect;
  case 28:
    return kExitTimeout;
  case 60:
    return kExitCertificate;
  case 63:
    return kExitFileSize;
  default:
    return kExitFailure;
  }
}

namespace {
bool g_interrupted = false;
void OnInterrupt(int) { std::atomic_ref<bool>(g_interrupted).store(true); }
} // namespace

const bool* InterruptFlag() {
  static const bool installed = [] {
    std::signal(SIGINT, &OnInterrupt);
    std::signal(SIGTERM, &OnInterrupt);
    return true;
  }();
  (void)installed;
  return &g_interrupted;
}

bool Interrupted() { return std::atomic_ref<bool>(g_interrupted).load(); }

} // namespace httptools
