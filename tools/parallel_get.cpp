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
      return kExitUsage; // as the single get
    }
  }

  qz::http::HttpMultiConnection multi(parallel);
  multi.editConnectionParameters() = options.parameters;

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

} // namespace httptools
