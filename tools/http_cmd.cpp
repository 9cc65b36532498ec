// get, head, put, post, delete: HTTP requests with curl's options and curl's meaning for them.

#include "HttpRequest.h"

#include <iostream>
#include <memory>

namespace httptools {

namespace {

void AddRequestCommand(CLI::App& app, const std::string& method, const std::string& description) {
  auto o = std::make_shared<HttpOptions>();
  o->method = method;
  o->headOnly = method == "head";
  CLI::App* cmd = app.add_subcommand(method, description);
  cmd->add_option("URL", o->urls, "The URLs (http:// when no scheme is given), percent-encoded as on the wire")
      ->required();
  cmd->add_option("-o,--output", o->outputs,
                  "Write the body to FILE instead of standard output (the i-th for the i-th URL)")
      ->allow_extra_args(false);
  cmd->add_flag("-O,--remote-name", o->remoteName, "Write the body to a file named as the URL's last path segment");
  AddConnectionOptions(cmd, o->conn);
  auto data = std::make_shared<std::vector<std::string>>(); // read in command-line order below
  std::vector<CLI::Option*> dataOptions;
  if (method == "put" || method == "post") {
    dataOptions.push_back(
        cmd->add_option("-d,--data", *data, "Body text, @FILE (line breaks dropped) or @-; repeated ones joined by &")
            ->allow_extra_args(false));
    dataOptions.push_back(cmd->add_option("--data-binary", *data, "Body bytes as given, @FILE or @- kept exactly")
                              ->allow_extra_args(false));
    dataOptions.push_back(cmd->add_option("--data-urlencode", *data,
                                          "Form field percent-encoded: CONTENT, NAME=CONTENT, @FILE or NAME@FILE")
                              ->allow_extra_args(false));
    CLI::Option* json =
        cmd->add_option("--json", *data, "JSON body (text, @FILE or @-): JSON content type, accepts JSON")
            ->allow_extra_args(false);
    for (CLI::Option* d : dataOptions)
      json->excludes(d);
    dataOptions.push_back(json);
  }
  cmd->add_option("-X,--request", o->customMethod, "Send METHOD instead of the command's");
  cmd->add_option("-A,--user-agent", o->userAgent, "User-Agent to send (default httptools/3.0.0; \"\" for none)");
  cmd->add_flag("-L,--location", o->location, "Follow redirects");
  cmd->add_option("--max-redirs", o->maxRedirs, "With -L, at most N redirects (default 50, -1 no limit)");
  cmd->add_flag("-i,--include", o->include, "Write the status line and header lines before the body");
  cmd->add_flag("-I,--head", o->headOnly, "Send HEAD and write the status line and header lines");
  cmd->add_flag("-f,--fail", o->fail, "A status of 400 or more writes nothing and exits 22");
  cmd->add_flag("--fail-with-body", o->failWithBody, "A status of 400 or more exits 22 after writing the body");
  cmd->add_flag("-n,--netrc", o->netrc, "Take user and password for the host from ~/.netrc");
  cmd->add_option("--netrc-file", o->netrcFile, "Take user and password for the host from FILE");
  cmd->add_flag("--compressed", o->compressed, "Ask for a compressed answer and decode it");
  cmd->add_flag("-s,--silent", o->silent, "No progress line and no error messages");
  cmd->add_flag("-S,--show-error", o->showError, "With -s, still show error messages");
  cmd->add_flag("-#,--progress-bar", o->progressBar, "Show the progress as a bar of #");
  cmd->add_option("--retry", o->retry, "Repeat a transient failure (no connection, time-out, 408, 429, 5xx) N times");
  cmd->add_option("--retry-delay", o->retryDelay, "Wait SECONDS between repetitions (default: 1 s, doubling)")
      ->check(CLI::NonNegativeNumber);
  cmd->add_option("--retry-max-time", o->retryMaxTime, "Start no repetition after SECONDS")
      ->check(CLI::NonNegativeNumber);
  cmd->add_flag("--retry-all-errors", o->retryAllErrors, "With --retry, repeat after any failure");
  cmd->add_option("-Y,--speed-limit", o->speedLimit, "Fail a transfer slower than BYTES per second ...")
      ->check(CLI::NonNegativeNumber);
  cmd->add_option("-y,--speed-time", o->speedTime, "... for SECONDS (default 30 with --speed-limit)")
      ->check(CLI::NonNegativeNumber);
  cmd->add_option("-x,--proxy", o->proxy, "Use this proxy (\"\" for none); else http_proxy, https_proxy, ALL_PROXY");
  cmd->add_option("--noproxy", o->noProxy, "Hosts reached without proxy, comma-separated (\"*\" all); else no_proxy");
  cmd->add_option("-w,--write-out", o->writeOut,
                  "After each transfer print FORMAT: %{http_code}, %{url_effective}, %{content_type}, "
                  "%{time_total} and curl's other variables, %header{NAME}, \\n");
  cmd->add_flag("-Z,--parallel", o->parallel, "Run the transfers of several URLs at once");
  cmd->add_option("--parallel-max", o->parallelMax, "With -Z, at most N at once (default 50)")
      ->check(CLI::Range(1, 1000));
  cmd->add_option("--expect", o->expect, "Any status but CODE exits 22 (the body is still written)")
      ->check(CLI::Range(100, 599));
  cmd->add_option("--max-filesize", o->maxFilesize, "Fail (exit 63) when a response body is larger than BYTES")
      ->check(CLI::PositiveNumber);
  cmd->callback([o, cmd, data, dataOptions] {
    o->proxyGiven = cmd->count("--proxy") > 0;
    o->noProxyGiven = cmd->count("--noproxy") > 0;
    // The data options in the order given: CLI11 keeps their values in one vector, each option's
    // results in its own order.
    std::map<const CLI::Option*, size_t> used;
    for (const CLI::Option* opt : cmd->parse_order()) {
      if (std::find(dataOptions.begin(), dataOptions.end(), opt) == dataOptions.end())
        continue;
      const size_t i = used[opt]++;
      o->data.emplace_back(opt->get_name(), opt->results().at(i));
    }
    if (o->outputs.size() > o->urls.size()) {
      std::cerr << o->name() << ": more -o than URLs\n";
      exitCode = kExitUsage;
      return;
    }
    verbose = o->conn.verboseFlag;
    exitCode = RunTransfers(*o, o->parallel ? o->parallelMax : 1);
  });
}

} // namespace

void AddHttpCommands(CLI::App& app) {
  AddRequestCommand(app, "get", "GET URLs; the body goes to standard output");
  AddRequestCommand(app, "head", "HEAD URLs; prints the status line and the header lines as received");
  AddRequestCommand(app, "put", "PUT a body to URLs");
  AddRequestCommand(app, "post", "POST a body to URLs");
  AddRequestCommand(app, "delete", "DELETE URLs");
}

} // namespace httptools
