#include <HttpTools/http/HttpMultiConnection.h>

#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpConnection_p.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzStringUtils.h>
#include <HttpTools/platform/qzSystemUtils.h>

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstring>
#include <deque>
#include <mutex>
#include <strings.h>
#include <thread>
#include <unordered_map>
#include <vector>

namespace qz::http {

namespace {

void assignTrimmed(std::string& out, const char* begin, const char* end) {
  while (begin < end && std::isspace(static_cast<unsigned char>(*begin)))
    ++begin;
  while (end > begin && std::isspace(static_cast<unsigned char>(end[-1])))
    --end;
  out.assign(begin, end);
}

enum Method { MethodGet = 1, MethodPut = 2, MethodPost = 3, MethodDelete = 4, MethodHead = 5 };

const char* const kOctetContentType = "Content-Type: application/octet-stream";

// While perform() waits, a caller's cancel flag is looked at this often.
const long kCancelPollMs = 20;

// A finished job's buffers up to this size are kept for the next request; larger ones are
// released, so that the engine's memory follows what is in flight, not what went through it.
const size_t kKeptBufferBytes = 16 * 1024;
const size_t kKeptHeaderNodes = 32;

void releaseIfLarge(std::string& s) {
  if (s.capacity() > kKeptBufferBytes)
    std::string().swap(s);
  else
    s.clear();
}

struct CurlShareDeleter {
  void operator()(CURLSH* s) const { curl_share_cleanup(s); }
};

bool hasContentType(const std::list<std::string>& lines) {
  for (const std::string& line : lines)
    if (line.size() >= 13 && strncasecmp(line.c_str(), "Content-Type:", 13) == 0)
      return true;
  return false;
}

} // namespace

class HttpMultiConnection::Private {
public:
  using HeaderNode = std::map<std::string, std::string>::node_type;
  struct Job {
    uint64_t id = 0;
    Request request;
    Response response;
    std::string encodedUrl;
    std::string origin; // scheme://host:port, the per-host limit's key (set when one applies)
    // Header map nodes of earlier responses, reused with their strings' buffers.
    std::vector<HeaderNode> spareHeaders;
    void keepHeaderNodes() {
      auto& headers = response.headers;
      while (!headers.empty() && spareHeaders.size() < kKeptHeaderNodes) {
        HeaderNode node = headers.extract(headers.begin());
        if (node.key().capacity() + node.mapped().capacity() <= kKeptBufferBytes)
          spareHeaders.push_back(std::move(node));
      }
      headers.clear();
    }
    int64_t startMs = 0;
    bool anyFamily = false; // retried after the preferred address family failed
  };

  // One easy handle, kept between requests. The header list is declared before the handle so
  // that it is destroyed after it.
  struct Handle {
    std::unique_ptr<curl_slist, CurlSlistDeleter> headerList;
    std::unique_ptr<CURL, CurlEasyDeleter> easy;
    std::vector<std::string> headerLines;  // behind headerList
    ResolvedParameters applied, resolving; // what the handle holds, what the next request wants
    bool appliedValid = false;
    int multiplexApplied = -1;
    bool plainGet = false;  // the last request was a GET without body: nothing to undo
    std::string appliedUrl; // what CURLOPT_URL holds
    std::unique_ptr<Job> job;
    std::string callbackError; // set when a data callback had to abort the transfer
    size_t maxBodyBytes = 0;
    char errorBuffer[CURL_ERROR_SIZE] = {};
  };

  explicit Private(unsigned maxInFlight) : maxInFlight(std::max(1u, maxInFlight)) {}
  ~Private() {
    for (Handle* h : running)
      curl_multi_remove_handle(multi.get(), h->easy.get());
    running.clear();
    // Easy handles go before the multi handle and the share they point at.
    owned.clear();
    idle.clear();
    multi.reset();
    share.reset();
  }

  bool initMulti();
  Handle* takeHandle();
  bool prepare(Handle& h, Job& job);
  void admit();
  void drainInbox();
  void collectDone();
  void finish(std::unique_ptr<Job> job);
  void cancelRunning(uint64_t id);
  void cancelEverything();
  bool runCancelled(const bool* cancel) const;

  static size_t onWrite(char* data, size_t size, size_t count, void* user);
  static size_t onHeader(char* data, size_t size, size_t count, void* user);
  static int onDebug(CURL*, curl_infotype type, char* data, size_t size, void*);

  // perform()'s thread only.
  HttpConnection::ConnectionParameters parameters;
  HttpProxyFinder proxyFinder;
  unsigned maxInFlight;
  unsigned maxPerHost = 0;
  bool multiplexing = false;
  std::unique_ptr<CURLSH, CurlShareDeleter> share;
  std::unique_ptr<CURLM, CurlMultiDeleter> multi;
  std::vector<std::unique_ptr<Handle>> owned; // every handle ever made and not dropped
  std::vector<Handle*> idle;
  std::vector<Handle*> running; // at most maxInFlight: searched, not indexed
  std::deque<std::unique_ptr<Job>> queue;
  std::unordered_map<std::string, unsigned> perOrigin;
  uint64_t connections = 0;
  size_t finishedInPass = 0;

  // Shared with other threads.
  mutable std::mutex mutex;
  std::vector<std::unique_ptr<Job>> inbox;
  std::vector<uint64_t> cancels;
  // Which ids are added and not yet called back: ids are handed out in order, so a window of
  // flags from the oldest live id on, instead of a node per request.
  std::deque<bool> liveWindow;
  uint64_t liveBase = 1;
  size_t liveCount = 0;
  std::vector<std::unique_ptr<Job>> spareJobs; // finished jobs kept for their memory

  bool isLive(uint64_t id) const {
    return id >= liveBase && id - liveBase < liveWindow.size() && liveWindow[id - liveBase];
  }
  void retire(uint64_t id) {
    liveWindow[id - liveBase] = false;
    --liveCount;
    while (!liveWindow.empty() && !liveWindow.front()) {
      liveWindow.pop_front();
      ++liveBase;
    }
  }
  std::vector<Handle*>::iterator runningHandle(uint64_t id) {
    return std::find_if(running.begin(), running.end(), [id](Handle* h) { return h->job->id == id; });
  }
  void forgetRunning(std::vector<Handle*>::iterator it) {
    *it = running.back();
    running.pop_back();
  }
  std::atomic<bool> performing{false};
  std::atomic<bool> cancelRun{false};
  std::atomic<CURLM*> wakeTarget{nullptr};
  std::atomic<std::thread::id> performThread{};
};

bool HttpMultiConnection::Private::initMulti() {
  if (multi)
    return true;
  share.reset(curl_share_init());
  multi.reset(curl_multi_init());
  if (!share || !multi)
    return false;
  // One cookie jar and one DNS cache for all requests; only perform()'s thread touches them.
  curl_share_setopt(share.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
  curl_share_setopt(share.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  curl_share_setopt(share.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  wakeTarget.store(multi.get());
  return true;
}

HttpMultiConnection::Private::Handle* HttpMultiConnection::Private::takeHandle() {
  if (!idle.empty()) {
    Handle* h = idle.back();
    idle.pop_back();
    return h;
  }
  auto h = std::make_unique<Handle>();
  h->easy.reset(curl_easy_init());
  if (!h->easy)
    return nullptr;
  CURL* e = h->easy.get();
  // The fixed options of HttpConnection's handle, except the progress machinery: a cancel here
  // takes the handle out of the multi handle at once instead of waiting for a progress call.
  int rc = 0;
  rc |= curl_easy_setopt(e, CURLOPT_NOPROGRESS, 1L);
  rc |= curl_easy_setopt(e, CURLOPT_SSLVERSION, long(CURL_SSLVERSION_TLSv1_2));
  rc |= curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
  rc |= curl_easy_setopt(e, CURLOPT_DEBUGFUNCTION, onDebug);
  rc |= curl_easy_setopt(e, CURLOPT_ERRORBUFFER, h->errorBuffer);
  rc |= curl_easy_setopt(e, CURLOPT_COOKIEFILE, ""); // cookie engine on, no file read
  rc |= curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "");
  rc |= curl_easy_setopt(e, CURLOPT_SHARE, share.get());
  rc |= curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, onWrite);
  rc |= curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, onHeader);
  rc |= curl_easy_setopt(e, CURLOPT_WRITEDATA, h.get());
  rc |= curl_easy_setopt(e, CURLOPT_HEADERDATA, h.get());
  rc |= curl_easy_setopt(e, CURLOPT_PRIVATE, h.get());
  if (rc != 0)
    return nullptr;
  owned.push_back(std::move(h));
  return owned.back().get();
}

// Puts the request on the handle: the connection parameters as HttpConnection resolves them
// (only what changed since the handle's last request), then the request's own options.
bool HttpMultiConnection::Private::prepare(Handle& h, Job& job) {
  CURL* e = h.easy.get();
  const Request& r = job.request;
  int rc = 0;
  ResolveConnectionParameters(parameters, r.url, proxyFinder, h.resolving);
  if (job.anyFamily)
    h.resolving.ipResolve = CURL_IPRESOLVE_WHATEVER;
  if (!(h.appliedValid && h.resolving == h.applied)) {
    h.appliedValid = false;
    rc |= ApplyResolvedParameters(e, h.resolving);
    if (rc != 0)
      return false;
    std::swap(h.applied, h.resolving);
    h.appliedValid = true;
  }
  if (h.multiplexApplied != int(multiplexing)) {
    rc |=
        curl_easy_setopt(e, CURLOPT_HTTP_VERSION, long(multiplexing ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
    rc |= curl_easy_setopt(e, CURLOPT_PIPEWAIT, multiplexing ? 1L : 0L);
    h.multiplexApplied = rc == 0 ? int(multiplexing) : -1;
  }

  // Back to a plain GET (unless the handle's last request was one), then the method.
  const bool plainGet = r.method == MethodGet && r.body.empty();
  if (!(plainGet && h.plainGet)) {
    rc |= curl_easy_setopt(e, CURLOPT_POSTFIELDS, static_cast<char*>(nullptr));
    rc |= curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(-1));
    rc |= curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, static_cast<char*>(nullptr));
    rc |= curl_easy_setopt(e, CURLOPT_NOBODY, 0L);
    rc |= curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
  }
  h.plainGet = plainGet;
  const char* custom = nullptr;
  bool sendBody = !r.body.empty();
  switch (r.method) {
  case MethodGet:
    custom = sendBody ? "GET" : nullptr;
    break;
  case MethodPut:
    custom = "PUT";
    sendBody = true;
    break;
  case MethodPost:
    sendBody = true;
    break;
  case MethodDelete:
    custom = "DELETE";
    break;
  case MethodHead:
    rc |= curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
    sendBody = false;
    break;
  default:
    job.response.errorMessage = ComposeErrorMessage("Unknown method " + std::to_string(r.method), 0, CURLE_OK, "");
    return false;
  }
  if (sendBody) {
    rc |= curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(r.body.size()));
    rc |= curl_easy_setopt(e, CURLOPT_POSTFIELDS, r.body.data());
  }
  if (custom)
    rc |= curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, custom);

  // The header list is rebuilt only when its lines change.
  const bool addType = sendBody && !hasContentType(r.headers);
  const size_t lineCount = r.headers.size() + (addType ? 1 : 0);
  bool same =
      h.headerLines.size() == lineCount && std::equal(r.headers.begin(), r.headers.end(), h.headerLines.begin());
  same = same && (!addType || h.headerLines.back() == kOctetContentType);
  if (!same) {
    h.headerLines.assign(r.headers.begin(), r.headers.end());
    if (addType)
      h.headerLines.emplace_back(kOctetContentType);
    curl_slist* list = nullptr;
    for (const std::string& line : h.headerLines)
      if (curl_slist* next = curl_slist_append(list, line.c_str()))
        list = next;
    const CURLcode set = curl_easy_setopt(e, CURLOPT_HTTPHEADER, list);
    h.headerList.reset(list); // after the handle lets go of the old list
    if (set != CURLE_OK)
      h.headerLines.clear();
    rc |= set;
  }
  // The request's own time-out replaces the parameters' one; set on every request, so the
  // handle never keeps a previous request's value.
  const long timeoutMs = r.timeoutMs > 0 ? r.timeoutMs : std::max(0L, parameters.totalTimeoutMs);
  rc |= curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, timeoutMs);
  h.maxBodyBytes = parameters.maxBodyBytes;
  if (job.encodedUrl != h.appliedUrl) {
    h.appliedUrl.clear();
    rc |= curl_easy_setopt(e, CURLOPT_URL, job.encodedUrl.c_str());
    h.appliedUrl = job.encodedUrl;
  }
  if (rc != 0) {
    h.plainGet = false;
    h.appliedUrl.clear();
  }
  if (rc != 0 && job.response.errorMessage.empty())
    job.response.errorMessage =
        ComposeErrorMessage("Error while setting connection parameters", 0, CURLE_OK, h.errorBuffer);
  return rc == 0;
}

namespace {
// A header line with CR or LF would let a caller's value smuggle in lines of its own.
const std::string* lineWithBreak(const std::list<std::string>& lines) {
  for (const std::string& line : lines)
    if (line.find_first_of("\r\n") != std::string::npos)
      return &line;
  return nullptr;
}
} // namespace

void HttpMultiConnection::Private::admit() {
  for (auto it = queue.begin(); it != queue.end() && running.size() < maxInFlight;) {
    Job& job = **it;
    // Without multiplexing, transfers to a host over its limit wait here, not in libcurl, so
    // that their clocks do not start yet.
    const bool limited = maxPerHost > 0 && !multiplexing;
    if (limited && job.origin.empty())
      job.origin = job.request.url.scheme + "://" + job.request.url.host + ":" + std::to_string(job.request.url.port);
    if (limited && perOrigin[job.origin] >= maxPerHost) {
      ++it;
      continue;
    }
    std::unique_ptr<Job> owner = std::move(*it);
    it = queue.erase(it);
    if (const std::string* bad = lineWithBreak(owner->request.headers)) {
      owner->response.errorMessage = ComposeErrorMessage(
          "Header line with CR or LF refused, nothing sent: " + qz::qzLog::EscapeControls(*bad), 0, CURLE_OK, "");
      finish(std::move(owner));
      continue;
    }
    Handle* h = takeHandle();
    if (!h) {
      owner->response.errorMessage = ComposeErrorMessage("Fail to setupconnection", 0, CURLE_OK, "");
      finish(std::move(owner));
      continue;
    }
    h->errorBuffer[0] = 0;
    h->callbackError.clear();
    if (!prepare(*h, *owner)) {
      // A handle that refused an option is not trusted again.
      owned.erase(std::find_if(owned.begin(), owned.end(), [h](const auto& p) { return p.get() == h; }));
      finish(std::move(owner));
      continue;
    }
    owner->startMs = qzSystemUtils::GetTimeBaseMs();
    h->job = std::move(owner);
    if (curl_multi_add_handle(multi.get(), h->easy.get()) != CURLM_OK) {
      h->job->response.errorMessage = ComposeErrorMessage("Fail to setupconnection", 0, CURLE_OK, "");
      std::unique_ptr<Job> failed = std::move(h->job);
      idle.push_back(h);
      finish(std::move(failed));
      continue;
    }
    running.push_back(h);
    if (limited)
      ++perOrigin[h->job->origin];
  }
}

void HttpMultiConnection::Private::drainInbox() {
  std::vector<std::unique_ptr<Job>> added;
  std::vector<uint64_t> cancelled;
  {
    std::lock_guard<std::mutex> lock(mutex);
    added.swap(inbox);
    cancelled.swap(cancels);
  }
  for (auto& job : added)
    queue.push_back(std::move(job));
  for (uint64_t id : cancelled) {
    if (runningHandle(id) != running.end()) {
      cancelRunning(id);
      continue;
    }
    auto it = std::find_if(queue.begin(), queue.end(), [id](const auto& j) { return j->id == id; });
    if (it == queue.end())
      continue; // finished meanwhile
    std::unique_ptr<Job> job = std::move(*it);
    queue.erase(it);
    job->response.cancelled = true;
    job->response.errorMessage =
        ComposeErrorMessage("Request cancelled, " + job->request.url.toDisplayableUrl(), 0, CURLE_OK, "");
    finish(std::move(job));
  }
}

void HttpMultiConnection::Private::cancelRunning(uint64_t id) {
  auto it = runningHandle(id);
  Handle* h = *it;
  forgetRunning(it);
  // Taken out mid-transfer: libcurl closes that connection and the handle is as good as new.
  curl_multi_remove_handle(multi.get(), h->easy.get());
  std::unique_ptr<Job> job = std::move(h->job);
  if (maxPerHost > 0 && !multiplexing)
    --perOrigin[job->origin];
  idle.push_back(h);
  long code = 0;
  curl_easy_getinfo(h->easy.get(), CURLINFO_RESPONSE_CODE, &code);
  job->response.httpCode = code;
  job->response.cancelled = true;
  job->response.errorMessage =
      ComposeErrorMessage("Request cancelled, " + job->request.url.toDisplayableUrl(), code, CURLE_OK, "");
  finish(std::move(job));
}

void HttpMultiConnection::Private::cancelEverything() {
  std::vector<uint64_t> ids;
  for (Handle* h : running)
    ids.push_back(h->job->id);
  {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& job : queue)
      ids.push_back(job->id);
    for (const auto& job : inbox)
      ids.push_back(job->id);
    cancels.insert(cancels.end(), ids.begin(), ids.end());
  }
  drainInbox();
}

void HttpMultiConnection::Private::collectDone() {
  int left = 0;
  while (CURLMsg* msg = curl_multi_info_read(multi.get(), &left)) {
    if (msg->msg != CURLMSG_DONE)
      continue;
    CURL* e = msg->easy_handle;
    const CURLcode code = msg->data.result;
    Handle* h = nullptr;
    curl_easy_getinfo(e, CURLINFO_PRIVATE, reinterpret_cast<char**>(&h));
    curl_multi_remove_handle(multi.get(), e);
    std::unique_ptr<Job> job = std::move(h->job);
    forgetRunning(std::find(running.begin(), running.end(), h));
    if (maxPerHost > 0 && !multiplexing)
      --perOrigin[job->origin];
    idle.push_back(h);

    Response& resp = job->response;
    long httpCode = 0, connects = 0;
    curl_easy_getinfo(e, CURLINFO_RESPONSE_CODE, &httpCode);
    curl_easy_getinfo(e, CURLINFO_NUM_CONNECTS, &connects);
    connections += uint64_t(std::max(0L, connects));
    resp.httpCode = httpCode;
    h->errorBuffer[CURL_ERROR_SIZE - 1] = 0;
    if (code != CURLE_OK) {
      const HostNameResolutionPolicy own = parameters.hostNameResolutionPolicy;
      if (!job->anyFamily && !job->request.url.ipAddress.isValid() &&
          (own == HNRP_PreferIpv6 || own == HNRP_PreferIpv4) &&
          (code == CURLE_COULDNT_RESOLVE_HOST || code == CURLE_PEER_FAILED_VERIFICATION ||
           code == CURLE_SSL_CERTPROBLEM)) {
        // The preferred family failed for this name: this request tries again with any. The
        // caller's parameters stay as they are.
        job->anyFamily = true;
        resp = Response{};
        resp.id = job->id;
        queue.push_front(std::move(job));
        continue;
      }
      std::string internal = TransferFailedText(code, qzSystemUtils::GetTimeBaseMs() - job->startMs,
                                                h->applied.totalTimeoutMs, h->applied.maxBodyBytes, job->request.url);
      if (!h->callbackError.empty())
        internal += ", " + h->callbackError;
      resp.errorMessage = ComposeErrorMessage(internal, httpCode, code, h->errorBuffer);
      resp.timedOut = code == CURLE_OPERATION_TIMEDOUT;
    } else if (job->request.expectedHttpCode > 0 && httpCode != job->request.expectedHttpCode) {
      resp.errorMessage =
          ComposeErrorMessage(UnexpectedStatusText(httpCode, job->request.expectedHttpCode, job->request.url), httpCode,
                              code, h->errorBuffer);
    } else {
      resp.success = true;
    }
    finish(std::move(job));
  }
}

void HttpMultiConnection::Private::finish(std::unique_ptr<Job> job) {
  ++finishedInPass;
  {
    std::lock_guard<std::mutex> lock(mutex);
    retire(job->id);
  }
  if (job->request.onFinished) {
    try {
      job->request.onFinished(job->response);
    } catch (const std::exception& e) {
      qzLogObject(qzLog::Error, "http") << "HttpMultiConnection: a request callback threw: " << e.what();
    } catch (...) {
      qzLogObject(qzLog::Error, "http") << "HttpMultiConnection: a request callback threw";
    }
  }
  // A few jobs are kept for the next requests, with their small buffers: a run of a thousand
  // requests would otherwise grow and shrink the heap each time.
  job->request.onFinished = nullptr;
  job->request.headers.clear();
  releaseIfLarge(job->request.body);
  releaseIfLarge(job->response.body);
  job->keepHeaderNodes();
  releaseIfLarge(job->response.errorMessage);
  job->origin.clear();
  std::lock_guard<std::mutex> lock(mutex);
  if (spareJobs.size() < maxInFlight)
    spareJobs.push_back(std::move(job));
}

bool HttpMultiConnection::Private::runCancelled(const bool* cancel) const {
  if (cancelRun.load())
    return true;
  // Another thread may set the flag: read it as an atomic.
  return cancel && std::atomic_ref<bool>(const_cast<bool&>(*cancel)).load(std::memory_order_relaxed);
}

size_t HttpMultiConnection::Private::onWrite(char* data, size_t size, size_t count, void* user) {
  auto* h = static_cast<Handle*>(user);
  const size_t n = size * count;
  std::string& body = h->job->response.body;
  if (h->maxBodyBytes > 0 && body.size() + n > h->maxBodyBytes) {
    h->callbackError = BodyLimitMessage(static_cast<long long>(h->maxBodyBytes));
    return 0;
  }
  try {
    body.append(data, n);
  } catch (const std::exception& e) {
    h->callbackError = std::string("cannot keep the body: ") + e.what();
    return 0;
  }
  return n;
}

// Headers of the last response only: a redirect or an interim 100 starts the map again.
size_t HttpMultiConnection::Private::onHeader(char* data, size_t size, size_t count, void* user) {
  auto* h = static_cast<Handle*>(user);
  const size_t n = size * count;
  try {
    Job& job = *h->job;
    if (n >= 5 && std::memcmp(data, "HTTP/", 5) == 0) {
      job.keepHeaderNodes();
      return n;
    }
    // Parsed straight into a node kept from an earlier response when there is one.
    HeaderNode node = job.spareHeaders.empty() ? HeaderNode() : std::move(job.spareHeaders.back());
    if (!job.spareHeaders.empty())
      job.spareHeaders.pop_back();
    if (node.empty()) {
      std::string name, value;
      ParseHttpHeader(data, static_cast<unsigned long>(n), name, value);
      if (!name.empty())
        job.response.headers.emplace(std::move(name), std::move(value));
      return n;
    }
    ParseHttpHeader(data, static_cast<unsigned long>(n), node.key(), node.mapped());
    if (node.key().empty()) {
      job.spareHeaders.push_back(std::move(node));
      return n;
    }
    auto inserted = job.response.headers.insert(std::move(node));
    if (!inserted.inserted) // a repeated name: the first one stays
      job.spareHeaders.push_back(std::move(inserted.node));
  } catch (const std::exception& e) {
    h->callbackError = std::string("cannot keep the headers: ") + e.what();
    return 0;
  }
  return n;
}

int HttpMultiConnection::Private::onDebug(CURL*, curl_infotype type, char* data, size_t size, void*) {
  if (type != CURLINFO_TEXT && type != CURLINFO_HEADER_IN && type != CURLINFO_HEADER_OUT)
    return 0;
  try {
    const char* mark = type == CURLINFO_TEXT ? "* " : type == CURLINFO_HEADER_IN ? "< " : "> ";
    qzLogObject(qzLog::Debug, "curl") << mark << std::string(data, size);
  } catch (...) {
  }
  return 0;
}

HttpMultiConnection::HttpMultiConnection(unsigned maxInFlight) : d(std::make_unique<Private>(maxInFlight)) {
  d->initMulti();
}

HttpMultiConnection::~HttpMultiConnection() = default;

HttpConnection::ConnectionParameters& HttpMultiConnection::editConnectionParameters() { return d->parameters; }

void HttpMultiConnection::setMaxConnectionsPerHost(unsigned n) { d->maxPerHost = n; }

void HttpMultiConnection::setMultiplexing(bool on) { d->multiplexing = on; }

uint64_t HttpMultiConnection::addRequest(Request r) {
  std::unique_ptr<Private::Job> job;
  {
    std::lock_guard<std::mutex> lock(d->mutex);
    if (!d->spareJobs.empty()) {
      job = std::move(d->spareJobs.back());
      d->spareJobs.pop_back();
    }
  }
  if (!job)
    job = std::make_unique<Private::Job>();
  job->encodedUrl = r.url.toEncodedUrl();
  job->request = std::move(r);
  job->startMs = 0;
  job->anyFamily = false;
  Response& resp = job->response;
  resp.success = resp.timedOut = resp.cancelled = false;
  resp.httpCode = 0;
  uint64_t id = 0;
  {
    std::lock_guard<std::mutex> lock(d->mutex);
    id = d->liveBase + d->liveWindow.size();
    d->liveWindow.push_back(true);
    ++d->liveCount;
    job->id = resp.id = id;
    d->inbox.push_back(std::move(job));
  }
  wakeup();
  return id;
}

bool HttpMultiConnection::cancelRequest(uint64_t id) {
  {
    std::lock_guard<std::mutex> lock(d->mutex);
    if (!d->isLive(id))
      return false;
    d->cancels.push_back(id);
  }
  wakeup();
  return true;
}

void HttpMultiConnection::cancelPerform() {
  d->cancelRun.store(true);
  wakeup();
}

void HttpMultiConnection::wakeup() {
  // perform() looks at its inbox before it waits: only another thread's call must wake it.
  if (!d->performing.load() || d->performThread.load() == std::this_thread::get_id())
    return;
  if (CURLM* m = d->wakeTarget.load())
    curl_multi_wakeup(m);
}

size_t HttpMultiConnection::pendingCount() const {
  std::lock_guard<std::mutex> lock(d->mutex);
  return d->liveCount;
}

uint64_t HttpMultiConnection::connectionsOpened() const { return d->connections; }

bool HttpMultiConnection::perform(const bool* cancel) {
  if (d->performing.exchange(true))
    return false;
  d->performThread.store(std::this_thread::get_id());
  struct Done {
    Private& p;
    ~Done() {
      p.performThread.store(std::thread::id());
      p.performing.store(false);
    }
  } done{*d};

  if (!d->multi || !qz::IsHttpToolsInitialized()) {
    if (d->multi)
      qzLogObject(qzLog::Error, "http") << "HttpTools library not initialized.";
    // Nothing can run: every request fails with the reason.
    d->drainInbox();
    while (!d->queue.empty()) {
      std::unique_ptr<Private::Job> job = std::move(d->queue.front());
      d->queue.pop_front();
      job->response.errorMessage = ComposeErrorMessage(
          d->multi ? "HttpTools library not initialized." : "Fail to setupconnection", 0, CURLE_OK, "");
      d->finish(std::move(job));
    }
    return false;
  }

  CURLM* m = d->multi.get();
  curl_multi_setopt(m, CURLMOPT_PIPELINING, long(d->multiplexing ? CURLPIPE_MULTIPLEX : CURLPIPE_NOTHING));
  curl_multi_setopt(m, CURLMOPT_MAX_HOST_CONNECTIONS, long(d->multiplexing ? d->maxPerHost : 0));
  // libcurl's default cache shrinks with the number of transfers running, which would close
  // kept connections as a run winds down.
  curl_multi_setopt(m, CURLMOPT_MAXCONNECTS, long(std::max(2 * d->maxInFlight, 16u)));

  for (;;) {
    d->drainInbox();
    if (d->runCancelled(cancel)) {
      d->cancelRun.store(false);
      d->cancelEverything();
      return false;
    }
    d->admit();
    if (d->running.empty() && d->queue.empty()) {
      std::lock_guard<std::mutex> lock(d->mutex);
      if (d->inbox.empty() && d->cancels.empty())
        return true;
      continue;
    }
    int stillRunning = 0;
    d->finishedInPass = 0;
    curl_multi_perform(m, &stillRunning);
    d->collectDone();
    if (d->finishedInPass > 0)
      continue; // free slots: admit before waiting
    curl_multi_poll(m, nullptr, 0, cancel ? kCancelPollMs : 1000, nullptr);
  }
}

void HttpMultiConnection::ParseHttpHeader(const char* line, unsigned long length, std::string& name,
                                          std::string& value) {
  name.clear();
  value.clear();
  if (!line)
    return;
  const char* colon = static_cast<const char*>(std::memchr(line, ':', length));
  if (!colon)
    return;
  assignTrimmed(name, line, colon);
  for (char& c : name)
    c = char(std::tolower(static_cast<unsigned char>(c)));
  assignTrimmed(value, colon + 1, line + length);
}

} // namespace qz::http
