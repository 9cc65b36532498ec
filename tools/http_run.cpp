// One curl-like transfer per URL: the request, its retries, what is written and the exit code.

#include "HttpRequest.h"

#include <HttpTools/HttpTools.h>

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>

namespace httptools {

namespace {

std::string HumanBytes(double n) {
  static const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int u = 0;
  while (n >= 1024 && u < 4) {
    n /= 1024;
    ++u;
  }
  char text[32];
  std::snprintf(text, sizeof text, u == 0 ? "%.0f %s" : "%.1f %s", n, units[u]);
  return text;
}

// The width of curl's -# line: COLUMNS, else the terminal's, else 79.
int ProgressColumns() {
  const char* env = std::getenv("COLUMNS");
  const long columns = env ? std::strtol(env, nullptr, 10) : 0;
  if (columns >= 20 && columns < 10000)
    return int(columns) - 1;
  winsize size{};
  return ::ioctl(2, TIOCGWINSZ, &size) == 0 && size.ws_col >= 20 ? size.ws_col - 1 : 79;
}

// Writes status lines and headers (-i, -I, head) and the body as they arrive. With -f the body of
// a status of 400 or more is dropped. With `progress`, standard error gets -#'s bar from the first
// byte, or else a progress line once a transfer has lasted a second.
class CliSink : public qz::http::ResponseSink {
public:
  CliSink(const HttpOptions& o, Output& out, bool progress) : m_o(o), m_out(out), m_progress(progress) {}
  ~CliSink() override {
    if (!m_shown)
      return;
    showProgress(true); // the final state, as curl leaves it
    std::cerr << "\n";
  }
  void reset() override {
    m_out.truncate();
    m_received = 0;
  }
  void onStatus(long status, std::string_view line) override {
    m_status = status;
    m_length = 0;
    if (headersShown())
      m_writeOk = m_writeOk && m_out.write(line.data(), line.size());
  }
  void onHeader(std::string_view line) override {
    if (line.size() > 15 && strncasecmp(line.data(), "content-length:", 15) == 0)
      m_length = std::strtod(std::string(line.substr(15)).c_str(), nullptr);
    if (headersShown())
      m_writeOk = m_writeOk && m_out.write(line.data(), line.size());
  }
  bool onBody(const char* data, size_t size) override {
    if (suppressed())
      return true;
    m_received += size;
    if (m_progress)
      showProgress();
    return m_writeOk && m_out.write(data, size);
  }
  qz::http::TransferError failure() const override {
    qz::http::TransferError e;
    e.kind = qz::http::ErrorKind::LocalIo;
    e.context =
        m_out.path().empty() ? "Failure writing output to destination" : "Failure writing output to " + m_out.path();
    if (m_out.errorNumber())
      e.context += std::string(": ") + std::strerror(m_out.errorNumber());
    return e;
  }
  bool writeOk() const { return m_writeOk && !m_out.broken(); }

private:
  bool headersShown() const { return m_o.include || m_o.headOnly; }
  bool suppressed() const { return m_o.fail && !m_o.failWithBody && m_status >= 400; }
  void showProgress(bool final = false) {
    const int64_t now = qz::qzSystemUtils::GetTimeBaseMs();
    const bool bar = m_o.progressBar && m_length > 0;
    if (!final && ((!bar && now - m_start < 1000) || now - m_lastShown < 250))
      return;
    m_lastShown = now;
    m_shown = true;
    const double seconds = std::max(0.001, double(now - m_start) / 1000.0), got = double(m_received);
    const double rate = got / seconds;
    std::string line = "\r";
    if (bar) { // curl's: '#' over the width but 7 columns, then the percentage
      const int width = ProgressColumns() - 7, done = int(width * std::min(1.0, got / m_length));
      char percent[16];
      std::snprintf(percent, sizeof percent, " %5.1f%%", 100.0 * std::min(1.0, got / m_length));
      line += std::string(size_t(done), '#') + std::string(size_t(width - done), ' ') + percent;
    } else {
      line += HumanBytes(got);
      if (m_length > 0) {
        char percent[16];
        std::snprintf(percent, sizeof percent, " %3.0f%%", 100.0 * got / m_length);
        line += " of " + HumanBytes(m_length) + percent;
      }
      line += "  " + HumanBytes(rate) + "/s";
      if (m_length > got && rate > 0)
        line += "  " + qz::qzStringUtils::humanizeDuration(int64_t((m_length - got) / rate * 1000), 1, true) + " left";
      line += "    "; // over the end of a longer line before
    }
    std::cerr << line << std::flush;
  }

  const HttpOptions& m_o;
  Output& m_out;
  bool m_progress;
  long m_status = 0;
  double m_length = 0;
  bool m_writeOk = true, m_shown = false;
  uint64_t m_received = 0;
  int64_t m_start = qz::qzSystemUtils::GetTimeBaseMs();
  int64_t m_lastShown = 0;
};

std::string Seconds(int64_t us) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6f", double(us) / 1e6);
  return text;
}

qz::http::Method MethodOf(const HttpOptions& o) {
  using qz::http::Method;
  if (o.headOnly)
    return Method::Head;
  return o.method == "put"      ? Method::Put
         : o.method == "post"   ? Method::Post
         : o.method == "delete" ? Method::Delete
                                : Method::Get;
}

qz::http::RetryPolicy RetryOf(const HttpOptions& o) {
  qz::http::RetryPolicy p;
  p.attempts = o.retry + 1;
  const unsigned delayMs = unsigned(o.retryDelay * 1000);
  p.initialBackoffMs = delayMs ? delayMs : 1000; // curl: 1 s, doubling, unless --retry-delay fixes it
  p.maxBackoffMs = delayMs ? delayMs : 600000;
  p.jitter = 0;
  p.retryAfterCapMs = 600000;
  p.totalTimeMs = unsigned(o.retryMaxTime * 1000);
  return p;
}

} // namespace

int RunTransfer(const HttpOptions& o, size_t index, Output& out, std::string& err) {
  const std::string name = o.name();
  auto fail = [&](int rc, const std::string& message) {
    if (o.errorsShown() && !message.empty())
      err += name + ": " + message + "\n";
    return rc;
  };
  qz::http::TransferRequest request;
  std::string text = o.urls[index], error;
  if (!CheckCommandLineUrl(text, error) || !request.url.fromEncodedUtf8String(text, &error, false) ||
      !request.url.isValid())
    return fail(kExitBadUrl, "invalid URL '" + o.urls[index] + "': " + (error.empty() ? "no host" : error));
  std::optional<Output> file;
  if (index < o.outputs.size()) {
    file.emplace(Output::File(o.outputs[index]));
  } else if (o.remoteName) {
    const auto& segments = request.url.pathSegments;
    if (segments.empty() || segments.back().empty())
      return fail(kExitWrite, "no file name in the URL for -O");
    file.emplace(Output::File(segments.back()));
  }
  Output& target = file ? *file : out;

  request.method = MethodOf(o);
  request.customMethod = o.customMethod;
  std::string body;
  if (!AssembleBody(o, body, error))
    return fail(kExitUsage, error);
  if (!o.data.empty())
    request.setBody(std::move(body));
  if (!AssembleHeaders(o, request.url, request, error))
    return fail(kExitUsage, error);

  qz::http::HttpConnection connection;
  auto& params = connection.editConnectionParameters();
  o.conn.apply(params);
  params.followLocation = o.location;
  params.maxRedirects = o.maxRedirs < 0 ? 1000000 : int(o.maxRedirs);
  params.lowSpeedLimit = o.speedLimit > 0 || o.speedTime > 0 ? int(o.speedLimit > 0 ? o.speedLimit : 1) : 0;
  params.lowSpeedTime = o.speedLimit > 0 || o.speedTime > 0 ? int(o.speedTime > 0 ? o.speedTime : 30) : 0;
  params.keepCookies = false;
  params.maxBodyBytes = size_t(o.maxFilesize);
  ApplyProxy(o, request.url, params);

  // As curl: whether standard error is a terminal does not matter, a body written to the terminal
  // hides it; parallel transfers show none (curl shows one meter for all).
  const bool progress = !o.silent && (file || !isatty(1)) && !(o.parallel && o.urls.size() > 1);
  CliSink sink(o, target, progress);
  qz::http::TransferOutcome outcome;
  const qz::http::RetryPolicy retry = RetryOf(o);
  const int64_t start = qz::qzSystemUtils::GetTimeBaseMs();
  int rc = kExitOk;
  for (unsigned failures = 1;; ++failures) {
    const bool ok = qz::http::PerformTransfer(connection, request, sink, outcome);
    qz::http::TransferError why = outcome.error;
    rc = ok ? kExitOk : ExitCodeOfTransferError(outcome.error);
    if (ok && ((o.fail || o.failWithBody) && outcome.status >= 400)) {
      rc = kExitHttpStatus;
      why.kind = qz::http::ErrorKind::HttpStatus;
      why.httpStatus = outcome.status;
    } else if (ok && o.expect > 0 && outcome.status != o.expect) {
      rc = kExitHttpStatus;
    } else if (ok && why.ok() && outcome.status >= 400) {
      why.kind = qz::http::ErrorKind::HttpStatus; // transient ones (5xx, 429, 408) are repeated
      why.httpStatus = outcome.status;
    }
    if (rc == kExitWrite)
      break; // the destination is gone: nothing to try again
    int64_t delay = why.ok() ? -1
                             : retry.nextDelayMs(why, outcome.header("retry-after"), failures,
                                                 qz::qzSystemUtils::GetTimeBaseMs() - start);
    if (delay < 0 && rc != kExitOk && o.retryAllErrors && failures < retry.attempts)
      delay = retry.backoffMs(failures);
    if (delay < 0)
      break;
    if (!o.silent) // a warning: -s hides it, -S does not bring it back
      std::cerr << name << ": " << (rc == kExitOk ? "HTTP status " + std::to_string(outcome.status) : why.message())
                << "; trying again in " << (double(delay) / 1000) << " s, " << (retry.attempts - failures)
                << " retries left\n";
    std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    sink.reset();
  }

  // An empty body still makes its -o file; a failed transfer leaves none.
  if ((rc == kExitOk || rc == kExitHttpStatus) && (!sink.writeOk() || (rc == kExitOk && !target.finish())))
    rc = kExitWrite;
  if (rc == kExitWrite)
    return target.closedPipe() ? rc : fail(rc, sink.failure().context); // a reader that went away: quiet
  if (rc == kExitHttpStatus && o.expect > 0 && !o.fail)
    fail(rc, "HTTP status " + std::to_string(outcome.status) + " from " + request.url.toDisplayableUrl() +
                 ", expected " + std::to_string(o.expect));
  else if (rc == kExitHttpStatus)
    fail(rc, "HTTP status " + std::to_string(outcome.status) + " from " + request.url.toDisplayableUrl());
  else if (rc != kExitOk)
    fail(rc, outcome.error.message());

  if (!o.writeOut.empty()) {
    char code[8];
    std::snprintf(code, sizeof code, "%03ld", outcome.status);
    const auto& t = outcome.timings;
    const double seconds = double(t.totalUs) / 1e6;
    const std::map<std::string, std::string> values{
        {"http_code", code},
        {"response_code", code},
        {"content_type", outcome.contentType},
        {"errormsg", rc == kExitOk ? "" : outcome.error.message()},
        {"exitcode", std::to_string(rc)},
        {"filename_effective", file ? file->path() : ""},
        {"method", request.customMethod.empty() ? qz::http::MethodName(request.method) : request.customMethod},
        {"num_headers", std::to_string(outcome.headerLines.size())},
        {"num_redirects", std::to_string(outcome.redirectCount)},
        {"scheme", request.url.scheme},
        {"size_download", std::to_string(outcome.bytesDown)},
        {"size_upload", std::to_string(outcome.bytesUp)},
        {"speed_download", std::to_string(seconds > 0 ? uint64_t(double(outcome.bytesDown) / seconds) : 0)},
        {"time_namelookup", Seconds(t.nameLookupUs)},
        {"time_connect", Seconds(t.connectUs)},
        {"time_appconnect", Seconds(t.tlsUs)},
        {"time_starttransfer", Seconds(t.firstByteUs)},
        {"time_total", Seconds(t.totalUs)},
        {"url", o.urls[index]},
        {"urlnum", std::to_string(index)},
        {"url_effective", outcome.effectiveUrl.empty() ? request.url.toEncodedUrl() : outcome.effectiveUrl},
    };
    if (!out.write(FormatWriteOut(o.writeOut, values, outcome, err)) && !out.closedPipe() && rc == kExitOk)
      rc = fail(kExitWrite, "Failure writing output to destination");
  }
  return rc;
}

int RunTransfers(const HttpOptions& o, unsigned parallel) {
  if (o.urls.size() == 1) {
    Output out = Output::Stdout();
    std::string err;
    const int rc = RunTransfer(o, 0, out, err);
    std::cerr << err;
    return rc;
  }
  struct Result {
    std::string out, err;
    int rc = -1;
    bool done = false;
  };
  std::vector<Result> results(o.urls.size());
  std::mutex mutex;
  std::condition_variable finished;
  size_t next = 0;
  auto worker = [&] {
    for (;;) {
      size_t i;
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (next == results.size())
          return;
        i = next++;
      }
      Output buffer = Output::Buffer(&results[i].out);
      const int rc = RunTransfer(o, i, buffer, results[i].err);
      std::lock_guard<std::mutex> lock(mutex);
      results[i].rc = rc;
      results[i].done = true;
      finished.notify_all();
    }
  };
  std::vector<std::thread> workers;
  for (unsigned n = 0; n < std::max(1u, std::min<unsigned>(parallel, unsigned(o.urls.size()))); ++n)
    workers.emplace_back(worker);
  // Printed in URL order as soon as every earlier one is out.
  Output out = Output::Stdout();
  int rc = kExitOk;
  for (Result& r : results) {
    std::unique_lock<std::mutex> lock(mutex);
    finished.wait(lock, [&r] { return r.done; });
    lock.unlock();
    std::cerr << r.err << std::flush;
    if (!out.write(r.out) && rc == kExitOk)
      rc = kExitWrite;
    if (rc == kExitOk)
      rc = r.rc;
  }
  for (std::thread& t : workers)
    t.join();
  return rc;
}

} // namespace httptools
