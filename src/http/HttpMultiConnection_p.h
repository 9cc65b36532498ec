#pragma once

// The multi engine's state, shared by its scheduling (HttpMultiConnection.cpp) and its easy
// handles (HttpMultiHandles.cpp).

#include <HttpTools/http/HttpConnection_p.h>
#include <HttpTools/http/HttpMultiConnection.h>

#include <curl/curl.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace qz::http {

struct CurlShareDeleter {
  void operator()(CURLSH* s) const { curl_share_cleanup(s); }
};

// A finished request's buffers (its handle's response, its own body) up to this size are kept for
// the next request; larger ones are released, so that the engine's memory follows what is in
// flight, not what went through it.
inline constexpr size_t kKeptBufferBytes = 16 * 1024;
// Room for queued jobs that an engine keeps while perform() is not running (about 10,000): a
// caller that queues a batch per perform() reuses it instead of faulting in new heap pages.
inline constexpr size_t kIdleJobBytes = 4 << 20;

using HeaderMap = std::map<std::string, std::string>;

// Room for objects of type T in blocks of 32: a queued request costs no heap call of its own.
// An emptied block is kept for reuse while the queue needed it lately: trim() frees those beyond
// the most blocks in use since the last trim, and beyond a cap. A thousand queued requests a
// round would otherwise have the heap shrink and fault its pages back in every round.
// Not thread-safe.
template <typename T> class SlotBlocks {
public:
  SlotBlocks() = default;
  SlotBlocks(const SlotBlocks&) = delete;
  SlotBlocks& operator=(const SlotBlocks&) = delete;
  ~SlotBlocks() { // every slot given back by then
    delete m_current;
    for (Block* b : m_spare)
      delete b;
  }
  void* take() {
    if (!m_current || m_current->used == kSlots) {
      if (m_spare.empty()) {
        // Room for every block among the spares: give() cannot fail later.
        const size_t blocks = m_inUse + 1;
        if (m_spare.capacity() < blocks)
          m_spare.reserve(std::max(blocks, 2 * m_spare.capacity()));
        m_current = new Block;
      } else {
        m_current = m_spare.back();
        m_spare.pop_back();
      }
      m_peak = std::max(m_peak, ++m_inUse);
    }
    Slot& slot = m_current->slots[m_current->used++];
    ++m_current->live;
    slot.block = m_current;
    return slot.bytes;
  }
  void give(void* bytes) noexcept {
    Block* block = reinterpret_cast<Slot*>(bytes)->block;
    if (--block->live > 0)
      return;
    block->used = 0;
    if (block == m_current)
      return;
    --m_inUse;
    m_spare.push_back(block);
  }
  static constexpr size_t BlocksIn(size_t bytes) { return bytes / sizeof(Block); }
  void trim(size_t maxSpare) {
    while (!m_spare.empty() && (m_spare.size() + m_inUse > m_peak || m_spare.size() > maxSpare)) {
      delete m_spare.back();
      m_spare.pop_back();
    }
    m_peak = m_inUse;
  }

private:
  static constexpr unsigned kSlots = 32;
  struct Block;
  struct Slot {
    alignas(T) unsigned char bytes[sizeof(T)]; // first: the slot's address is its bytes'
    Block* block;
  };
  struct Block {
    Slot slots[kSlots];
    unsigned used = 0, live = 0;
  };
  Block* m_current = nullptr;
  std::vector<Block*> m_spare;
  size_t m_inUse = 0, m_peak = 0; // blocks holding objects, current included
};

class HTTPTOOLS_HIDDEN HttpMultiConnection::Private {
public:
  struct Job {
    Job() = default;
    explicit Job(Request&& r) : request(std::move(r)) {}
    uint64_t id = 0;
    Request request;
    std::string origin;      // scheme://host:port, the per-host limit's key (set when one applies)
    bool anyFamily = false;  // retried after the preferred address family failed
    bool badRequest = false; // refused before sending
  };
  // A job ends on perform()'s thread (or in the destructor): its slot waits in `released` until
  // the next pass under the mutex hands it back.
  struct JobEnd {
    JobEnd() noexcept : engine(nullptr) {}
    explicit JobEnd(Private* e) noexcept : engine(e) {}
    Private* engine;
    void operator()(Job* job) const noexcept {
      job->~Job();
      *reinterpret_cast<void**>(job) = engine->released;
      engine->released = job;
    }
  };
  using JobPtr = std::unique_ptr<Job, JobEnd>;

  // One easy handle, kept between requests. The header list is declared before the handle so
  // that it is destroyed after it.
  struct Handle {
    std::unique_ptr<curl_slist, CurlSlistDeleter> headerList;
    std::unique_ptr<CURL, CurlEasyDeleter> easy;
    std::vector<std::string> headerLines;  // behind headerList
    ResolvedParameters applied, resolving; // what the handle holds, what the next request wants
    bool appliedValid = false;
    int multiplexApplied = -1;
    bool plainGet = false; // the last request was a GET without body: nothing to undo
    long timeoutApplied = -1;
    // The URL that CURLOPT_URL holds and the parameters were resolved for: a request to the
    // same URL under the same parameters and defaults renders and resolves nothing.
    qz::Url url;
    bool urlValid = false;
    bool urlAnyFamily = false;
    uint64_t urlGeneration = 0;
    ProcessDefaults urlDefaults;
    // The response being received, its nodes and buffers kept from the handle's earlier ones
    // (their values wiped after each callback). `order[0, received)`: the entries this response
    // set, in arrival order, with their names as sent. The entries after them are the last
    // response's, matched line by line while this one follows it (a server sends the same names
    // in the same order), which spares lowering the name and looking it up.
    struct Received {
      HeaderMap::iterator entry;
      std::string name;
    };
    Response response; // of the running request; its header map is kept as said above
    std::vector<Received> order;
    size_t received = 0;
    bool inOrder = true;
    std::vector<const void*> nodes; // the map's nodes handed to the callback
    std::string headerName;
    JobPtr job;
    Private* engine = nullptr;
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
    queue.clear();
    inbox.clear();
    giveBackJobs();
  }

  bool initMulti();
  Handle* takeHandle();
  bool prepare(Handle& h, Job& job);
  void admit();
  void drainInbox();
  void collectDone();
  // Calls the job back with `r`: the response of `from`, the handle that ran it, or `loose` when
  // none did. Leaves `r` ready for the next request.
  void finish(JobPtr job, Response& r, Handle* from = nullptr);
  static void resetResponse(Response& r);
  void giveBackJobs() { // under the mutex
    while (void* slot = released) {
      released = *static_cast<void**>(slot);
      jobSlots.give(slot);
    }
  }
  static void StartHeaders(Handle& h) {
    h.received = 0;
    h.inOrder = true;
  }
  // Drops the entries of the handle's map that the last response did not set, and notes its nodes.
  static void SettleHeaders(Handle& h);
  // After the callback: wipes the values, and keeps the order for the next response when the map
  // has the same nodes.
  static void WipeAndKeepOrder(Handle& h);
  static void WipeValues(HeaderMap& headers);
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
  uint64_t parametersGeneration = 1; // changes whenever the parameters may have

  std::unique_ptr<CURLSH, CurlShareDeleter> share;
  std::unique_ptr<CURLM, CurlMultiDeleter> multi;
  std::vector<std::unique_ptr<Handle>> owned; // every handle ever made and not dropped
  std::vector<Handle*> idle;
  std::vector<Handle*> running; // at most maxInFlight: searched, not indexed
  std::deque<JobPtr> queue;
  void* released = nullptr; // slots of ended jobs, each holding the next one's address
  Response loose;           // of a request that ends before a handle runs it
  std::unordered_map<std::string, unsigned> perOrigin;
  uint64_t connections = 0;
  size_t finishedInPass = 0;

  // Shared with other threads.
  mutable std::mutex mutex;
  std::vector<JobPtr> inbox;
  SlotBlocks<Job> jobSlots;
  int64_t lastTrimMs = 0;
  std::vector<uint64_t> cancels;
  // Which ids are added and not yet called back: ids are handed out in order, so a window of
  // flags from the oldest live id on, instead of a node per request.
  std::deque<bool> liveWindow;
  uint64_t liveBase = 1;
  size_t liveCount = 0;

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

} // namespace qz::http
