// get with --parallel N / -Z: several URLs fetched at once through HttpMultiConnection, each body
// to its -o file or to standard output, in the order the URLs were given.

#include "Commands.h"

#include <HttpTools/HttpTools.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>

namespace httptools {

namespace {

// As curl -Z without --parallel-max.
const unsigned kDefaultParallel = 50;

const char* const kUsage = "usage: httptools get (--parallel N | -Z) [-o FILE]... [-H LINE]... [--insecure] URL...\n"
                           "  the i-th -o names the file of the i-th URL; the other bodies go to standard output\n"
                           "  in the order of the URLs\n";

bool hasParallelFlag(const std::vector<std::string>& args) {
  return std::any_of(args.begin(), args.end(), [](const std::string& a) {
    return a == "-Z" || a == "--parallel" || a.rfind("--parallel=", 0) == 0;
  });
}

} // namespace

int RunParallelGet(const std::vector<std::string>& urls, const std::vector<std::string>& outputs, unsigned parallel,
                   const ParallelGetOptions& options) {
  if (urls.empty() || outputs.size() > urls.size() || parallel == 0) {
    std::cerr << "httptools get: give at least one URL, at most one -o per URL, and --parallel N with N > 0\n";
    return 2;
  }
  std::vector<qz::Url> parsed(urls.size());
  for (size_t i = 0; i < urls.size(); ++i) {
    std::string error;
    if (!parsed[i].fromEncodedUtf8String(urls[i], &error, false) || !parsed[i].isValid()) {
      std::cerr << "httptools: invalid URL '" << urls[i] << "' " << error << "\n";
      return 1;
    }
  }

  qz::http::HttpMultiConnection multi(parallel);
  if (options.insecure)
    multi.editConnectionParameters().sslValidatePolicy = qz::http::SVP_NoVerify;

  // Bodies for standard output wait until every earlier one is out; files are written at once.
  std::vector<std::optional<std::string>> stdoutBodies(urls.size());
  size_t nextStdout = 0;
  bool failed = false;
  auto flushStdout = [&] {
    while (nextStdout < urls.size() && (nextStdout < outputs.size() || stdoutBodies[nextStdout])) {
      if (nextStdout >= outputs.size()) {
        std::cout << *stdoutBodies[nextStdout];
        stdoutBodies[nextStdout].reset();
      }
      ++nextStdout;
    }
    std::cout.flush();
  };

  for (size_t i = 0; i < urls.size(); ++i) {
    qz::http::HttpMultiConnection::Request r;
    r.url = parsed[i];
    r.headers = options.headers;
    r.expectedHttpCode = 0; // judged below, as the single get does
    r.onFinished = [&, i](qz::http::HttpMultiConnection::Response& resp) {
      if (resp.success && resp.httpCode >= 400) {
        resp.success = false;
        resp.errorMessage = "HTTP status " + std::to_string(resp.httpCode) + " from " + parsed[i].toDisplayableUrl();
      }
      if (!resp.success) {
        failed = true;
        std::cerr << "httptools: get failed: " << resp.errorMessage << "\n";
        resp.body.clear(); // nothing is written for a failed transfer
      }
      if (i < outputs.size()) {
        if (resp.success) {
          std::ofstream file(outputs[i], std::ios::binary);
          if (!(file << resp.body) || !file.flush()) {
            failed = true;
            std::cerr << "httptools: cannot write " << outputs[i] << "\n";
          }
        }
      } else {
        stdoutBodies[i] = std::move(resp.body);
      }
      flushStdout();
    };
    multi.addRequest(std::move(r));
  }
  multi.perform();
  flushStdout();
  return failed || !std::cout ? 1 : 0;
}

void AddParallelGetCommand(CLI::App& app) {
  // The forwarded single-URL get stays as it is under a hidden name; `get` hands it every call
  // without --parallel or -Z.
  CLI::App* single = app.get_subcommand("get");
  single->name("get-single")->group("");
  CLI::App* get = app.add_subcommand("get", "GET a URL; several at once with --parallel N or -Z");
  get->prefix_command();
  get->set_help_flag();
  get->callback([get, single] {
    std::vector<std::string> args = get->remaining();
    if (!hasParallelFlag(args)) {
      std::vector<std::string> reversed(args.rbegin(), args.rend());
      single->parse(reversed);
      return;
    }
    unsigned parallel = kDefaultParallel;
    std::vector<std::string> urls, outputs;
    ParallelGetOptions options;
    for (size_t i = 0; i < args.size(); ++i) {
      const std::string& a = args[i];
      const bool hasValue = i + 1 < args.size();
      std::string count;
      if (a == "-Z")
        continue;
      if (a == "--parallel" && hasValue)
        count = args[++i];
      else if (a.rfind("--parallel=", 0) == 0)
        count = a.substr(11);
      else if (a == "-o" && hasValue)
        outputs.push_back(args[++i]);
      else if (a == "-H" && hasValue)
        options.headers.push_back(args[++i]);
      else if (a == "--insecure")
        options.insecure = true;
      else if (a.rfind("-", 0) != 0)
        urls.push_back(a);
      else {
        std::cerr << "httptools get: unexpected argument '" << a << "'\n" << kUsage;
        exitCode = 2;
        return;
      }
      if (!count.empty()) {
        char* end = nullptr;
        const unsigned long n = std::strtoul(count.c_str(), &end, 10);
        if (*end != 0 || n == 0 || n > 1000) {
          std::cerr << "httptools get: --parallel wants a number from 1 to 1000\n" << kUsage;
          exitCode = 2;
          return;
        }
        parallel = unsigned(n);
      }
    }
    exitCode = RunParallelGet(urls, outputs, parallel, options);
  });
}

} // namespace httptools
