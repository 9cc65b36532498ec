#include <HttpTools/http/HttpMultiConnection_p.h>

#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzSystemUtils.h>

#include <algorithm>

// The engine's scheduling: its queue, admission, completion, cancellation and the perform loop.

namespace qz::http {

namespace {

// While perform() waits, a caller's cancel flag is looked at this often.
const long kCancelPollMs = 20;

// Overwrites a finished request's bytes (URLs, bodies and messages may hold credentials) and
// keeps the buffer only when it is small.
void wipe(std::string& s) {
  std::fill(s.begin(), s.end(), '\0');
  if (s.capacity() > kKeptBufferBytes)
    std::string().swap(s);
  else
    s.clear();
}

// A header line with CR or LF would let a caller's value smuggle in lines of its own.
const std::string* lineWithBreak(const std::list<std::string>& lines) {
  for (const std::string& line : lines)
    if (line.find('\r') != std::string::npos || line.find('\n') != std::string::npos)
      return &line;
  return nullptr;
}

} // namespace

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
    JobPtr owner = std::move(*it);
    it = queue.erase(it);
    std::string refusal = SchemeRefusal(owner->request.url.scheme);
    if (const std::string* bad = lineWithBreak(owner->request.headers); bad && refusal.empty())
      refusal = "Header line with CR or LF refused, nothing sent: " + qz::qzLog::EscapeControls(*bad);
    if (!refusal.empty()) {
      owner->badRequest = true;
      loose.error.context = std::move(refusal);
      finish(std::move(owner), loose);
      continue;
    }
    Handle* h = takeHandle();
    if (!h) {
      loose.error.context = "Fail to setupconnection";
      finish(std::move(owner), loose);
      continue;
    }
    h->errorBuffer[0] = 0;
    h->callbackError.clear();
    if (!prepare(*h, *owner)) {
      // A handle that refused an option is not trusted again.
      owned.erase(std::find_if(owned.begin(), owned.end(), [h](const auto& p) { return p.get() == h; }));
      finish(std::move(owner), loose);
      continue;
    }
    h->job = std::move(owner);
    if (curl_multi_add_handle(multi.get(), h->easy.get()) != CURLM_OK) {
      loose.error.context = "Fail to setupconnection";
      JobPtr failed = std::move(h->job);
      idle.push_back(h);
      finish(std::move(failed), loose);
      continue;
    }
    running.push_back(h);
    if (limited)
      ++perOrigin[h->job->origin];
  }
}

void HttpMultiConnection::Private::drainInbox() {
  std::vector<JobPtr> added;
  std::vector<uint64_t> cancelled;
  {
    std::lock_guard<std::mutex> lock(mutex);
    added.swap(inbox);
    cancelled.swap(cancels);
    giveBackJobs();
    const int64_t now = qzSystemUtils::GetTimeBaseMs();
    if (now - lastTrimMs >= 1000) {
      jobSlots.trim(SIZE_MAX);
      lastTrimMs = now;
    }
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
    JobPtr job = std::move(*it);
    queue.erase(it);
    loose.cancelled = true;
    loose.error.context = "Request cancelled, " + job->request.url.toDisplayableUrl();
    finish(std::move(job), loose);
  }
}

void HttpMultiConnection::Private::cancelRunning(uint64_t id) {
  auto it = runningHandle(id);
  Handle* h = *it;
  forgetRunning(it);
  // Taken out mid-transfer: libcurl closes that connection and the handle is as good as new.
  curl_multi_remove_handle(multi.get(), h->easy.get());
  JobPtr job = std::move(h->job);
  if (maxPerHost > 0 && !multiplexing)
    --perOrigin[job->origin];
  idle.push_back(h);
  long code = 0;
  curl_easy_getinfo(h->easy.get(), CURLINFO_RESPONSE_CODE, &code);
  h->response.httpCode = code;
  h->response.cancelled = true;
  h->response.error.context = "Request cancelled, " + job->request.url.toDisplayableUrl();
  finish(std::move(job), h->response, h);
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
    JobPtr job = std::move(h->job);
    forgetRunning(std::find(running.begin(), running.end(), h));
    if (maxPerHost > 0 && !multiplexing)
      --perOrigin[job->origin];
    idle.push_back(h);

    Response& resp = h->response;
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
        WipeValues(resp.headers);
        resetResponse(resp);
        queue.push_front(std::move(job));
        continue;
      }
      curl_off_t elapsedUs = 0;
      curl_easy_getinfo(e, CURLINFO_TOTAL_TIME_T, &elapsedUs);
      std::string internal = TransferFailedText(code, int64_t(elapsedUs / 1000), h->applied.totalTimeoutMs,
                                                h->applied.maxBodyBytes, job->request.url);
      if (!h->callbackError.empty())
        internal += ", " + h->callbackError;
      resp.timedOut = code == CURLE_OPERATION_TIMEDOUT;
      resp.error.kind = code == CURLE_FILESIZE_EXCEEDED ? ErrorKind::BodyTooLarge : TransferError::KindOfCurlCode(code);
      resp.error.curlCode = int(code);
      resp.error.context = std::move(internal);
      resp.error.curlText = h->errorBuffer;
    } else if (job->request.expectedHttpCode > 0 && httpCode != job->request.expectedHttpCode) {
      resp.error.kind = ErrorKind::HttpStatus;
      resp.error.context = UnexpectedStatusText(httpCode, job->request.expectedHttpCode, job->request.url);
      resp.error.curlText = h->errorBuffer;
    } else {
      resp.success = true;
    }
    finish(std::move(job), resp, h);
  }
}

void HttpMultiConnection::Private::finish(JobPtr job, Response& r, Handle* from) {
  ++finishedInPass;
  r.id = job->id;
  if (!r.success) {
    r.error.httpStatus = r.httpCode;
    if (r.cancelled)
      r.error.kind = ErrorKind::Cancelled;
    else if (r.error.ok()) // refused before it started: a bad header line, no handle, no library
      r.error.kind = job->badRequest ? ErrorKind::BadRequest : ErrorKind::LocalIo;
    r.errorMessage = r.error.message();
  }
  if (from)
    SettleHeaders(*from);
  {
    std::lock_guard<std::mutex> lock(mutex);
    retire(job->id);
  }
  if (job->request.onFinished) {
    try {
      job->request.onFinished(r);
    } catch (const std::exception& e) {
      qzLogObject(qzLog::Error, "http") << "HttpMultiConnection: a request callback threw: " << e.what();
    } catch (...) {
      qzLogObject(qzLog::Error, "http") << "HttpMultiConnection: a request callback threw";
    }
  }
  // What no destructor wipes: header lines, bodies, header values, messages.
  for (std::string& line : job->request.headers)
    wipe(line);
  wipe(job->request.body);
  wipe(r.body);
  if (from) {
    WipeAndKeepOrder(*from);
  } else {
    WipeValues(r.headers);
    r.headers.clear();
  }
  wipe(r.errorMessage);
  resetResponse(r);
} // the job's destructor wipes its URL

void HttpMultiConnection::Private::resetResponse(Response& r) {
  r.success = r.timedOut = r.cancelled = false;
  r.httpCode = 0;
  r.body.clear();
  r.errorMessage.clear();
  r.error.kind = ErrorKind::None; // its buffers kept: a callback may have written anything there
  r.error.curlCode = 0;
  r.error.httpStatus = 0;
  r.error.reason.clear();
  r.error.context.clear();
  r.error.curlText.clear();
}

bool HttpMultiConnection::Private::runCancelled(const bool* cancel) const {
  if (cancelRun.load())
    return true;
  // Another thread may set the flag: read it as an atomic.
  return cancel && std::atomic_ref<bool>(const_cast<bool&>(*cancel)).load(std::memory_order_relaxed);
}

HttpMultiConnection::HttpMultiConnection(unsigned maxInFlight) : d(std::make_unique<Private>(maxInFlight)) {
  d->initMulti();
}

HttpMultiConnection::~HttpMultiConnection() = default;

HttpConnection::ConnectionParameters& HttpMultiConnection::editConnectionParameters() {
  ++d->parametersGeneration; // handles resolve them again
  return d->parameters;
}

void HttpMultiConnection::setMaxConnectionsPerHost(unsigned n) { d->maxPerHost = n; }

void HttpMultiConnection::setMultiplexing(bool on) { d->multiplexing = on; }

uint64_t HttpMultiConnection::addRequest(Request r) {
  uint64_t id = 0;
  {
    std::lock_guard<std::mutex> lock(d->mutex);
    if (d->inbox.size() == d->inbox.capacity()) // grown first: the push below cannot throw
      d->inbox.reserve(std::max<size_t>(16, 2 * d->inbox.capacity()));
    d->liveWindow.push_back(true);
    Private::JobPtr job;
    try {
      job = Private::JobPtr(new (d->jobSlots.take()) Private::Job(std::move(r)), Private::JobEnd(d.get()));
    } catch (...) {
      d->liveWindow.pop_back();
      throw;
    }
    id = d->liveBase + d->liveWindow.size() - 1;
    ++d->liveCount;
    job->id = id;
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
      Private::JobPtr job = std::move(d->queue.front());
      d->queue.pop_front();
      d->loose.error.context = d->multi ? "HttpTools library not initialized." : "Fail to setupconnection";
      d->finish(std::move(job), d->loose);
    }
    return false;
  }

  ++d->parametersGeneration;
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
      std::lock_guard<std::mutex> lock(d->mutex);
      d->giveBackJobs();
      d->jobSlots.trim(SlotBlocks<Private::Job>::BlocksIn(kIdleJobBytes));
      return false;
    }
    d->admit();
    if (d->running.empty() && d->queue.empty()) {
      std::lock_guard<std::mutex> lock(d->mutex);
      d->giveBackJobs();
      d->jobSlots.trim(SlotBlocks<Private::Job>::BlocksIn(kIdleJobBytes)); // what an idle engine keeps
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

} // namespace qz::http
