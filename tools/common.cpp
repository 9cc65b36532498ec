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

int ExitCodeOfTransferError(const qz::http::TransferError& error) {
  using qz::http::ErrorKind;
  switch (error.kind) {
  case ErrorKind::Resolve:
    return kExitResolve;
  case ErrorKind::Connect:
    return kExitConnect;
  case ErrorKind::Timeout:
    return kExitTimeout;
  case ErrorKind::Tls:
    return error.curlCode == kExitCertificate ? kExitCertificate : kExitFailure; // curl's code for the certificate
  case ErrorKind::BodyTooLarge:
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
