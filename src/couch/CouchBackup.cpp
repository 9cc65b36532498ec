#include <HttpTools/couch/CouchBackup.h>
#include <HttpTools/platform/qzJson_p.h>

#include <HttpTools/couch/ChangesFeed.h>
#include <HttpTools/couch/CouchDocuments.h>
#include <HttpTools/couch/CouchRequest_p.h>
#include <HttpTools/http/CancelToken.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>

#include <rapidjson/reader.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <istream>
#include <map>
#include <mutex>
#include <ostream>
#include <thread>
#include <utility>
#include <vector>

namespace qz::couch {

namespace {

// One page of the feed: its leaves as a _bulk_get body, then the lines to write.
struct Batch {
  size_t index = 0;
  std::string body;
  std::string checkpoint;
  std::string lines;
  size_t revisions = 0;
  std::string error; // not written: the backup stops before it
};

// Cuts the documents of a _bulk_get answer into JSON lines without building them: the text of
// each "ok" value is copied as it came, an "_attachments" object cut out unless wanted. Depths: 1 the
// answer, 3 a result, 5 an entry of its docs, 6 the document.
struct AnswerLines : rapidjson::BaseReaderHandler<rapidjson::UTF8<>, AnswerLines> {
  enum Next { kNone, kId, kOk, kError, kSkip };
  bool attachments = false;
  Batch* batch = nullptr;
  const rapidjson::StringStream* in = nullptr;
  std::string id, error;
  int depth = 0, capture = 0, skip = 0; // containers open; depth of the value copied, left out
  size_t from = 0, cut = 0;             // where the value copied and the member left out begin
  std::vector<std::pair<size_t, size_t>> cuts;
  Next next = kNone, kind = kNone;

  size_t at() const { return in->Tell(); }
  bool Key(const char* s, rapidjson::SizeType n, bool) {
    const std::string_view key(s, n);
    if (skip)
      return true;
    if (capture) {
      if (depth == capture && !attachments && key == "_attachments")
        cut = at(), next = kSkip; // the stream stands at the key's opening quote
      return true;
    }
    next = depth == 3 && key == "id"      ? kId
           : depth == 5 && key == "ok"    ? kOk
           : depth == 5 && key == "error" ? kError
                                          : kNone;
    return true;
  }
  // The member left out ends here: cut with the comma before it, or after it when it is first.
  void endCut() {
    const char* text = in->head_;
    size_t begin = cut, end = at();
    while (begin > from && std::strchr(" \t\r\n", text[begin - 1]))
      --begin;
    if (text[begin - 1] == ',')
      --begin;
    else {
      while (std::strchr(" \t\r\n", text[end]) && text[end])
        ++end;
      end += text[end] == ',';
      begin = cut;
    }
    cuts.emplace_back(begin, end);
  }
  bool Start(bool object) {
    if (++depth == 1 && !object)
      return false;
    const Next was = next;
    next = kNone;
    if (skip || was == kSkip)
      return skip = skip ? skip : depth, true;
    if (!capture && (was == kOk || was == kError)) {
      capture = depth, kind = was;
      from = at() - 1;
      cuts.clear();
    }
    return true;
  }
  bool End(bool) {
    const int was = depth--;
    if (skip) {
      if (was == skip)
        skip = 0, endCut();
      return true;
    }
    return !capture || was != capture || finish();
  }
  bool finish() {
    capture = 0;
    const char* text = in->head_;
    std::string& lines = batch->lines; // the copy goes there; an error is taken back out
    const size_t start = lines.size();
    for (size_t pos = from; const auto& [begin, end] : cuts)
      lines.append(text + pos, begin - pos), pos = end;
    lines.append(text + (cuts.empty() ? from : cuts.back().second), text + at());
    // Spaces between tokens: the line stays one line.
    if (lines.find('\n', start) != std::string::npos || lines.find('\r', start) != std::string::npos)
      std::replace_if(
          lines.begin() + std::ptrdiff_t(start), lines.end(), [](char c) { return c == '\r' || c == '\n'; }, ' ');
    if (kind == kOk) {
      lines += '\n';
      ++batch->revisions;
      return true;
    }
    const std::string value = lines.substr(start);
    lines.resize(start);
    qzVariantMapImpl e; // a leaf replaced since the feed was read: its later change brings it
    if (json::Json2Variant::Convert(value.data(), value.size(), e) && e["error"].toString() == "not_found")
      return true;
    error = "reading " + id + ": " + value;
    return false;
  }
  // A scalar: passed over, left out, or the id of a result.
  bool Scalar(const char* s = nullptr, rapidjson::SizeType n = 0) {
    const Next was = next;
    next = kNone;
    if (skip || was == kSkip || capture)
      return true;
    if (was == kId && s)
      id.assign(s, n);
    return was != kOk && was != kError;
  }
  bool StartObject() { return Start(true); }
  bool StartArray() { return Start(false); }
  bool EndObject(rapidjson::SizeType) { return End(true); }
  bool EndArray(rapidjson::SizeType) { return End(false); }
  bool String(const char* s, rapidjson::SizeType n, bool) { return Scalar(s, n); }
  bool RawNumber(const char*, rapidjson::SizeType, bool) { return Scalar(); }
  bool Bool(bool) { return Scalar(); }
  bool Null() { return Scalar(); }
};

// The documents of a _bulk_get answer as JSON lines.
bool LinesOfAnswer(const std::string& answer, bool attachments, Batch& batch, std::string& error) {
  AnswerLines handler;
  handler.attachments = attachments;
  handler.batch = &batch;
  rapidjson::Reader reader;
  rapidjson::StringStream in(answer.c_str());
  handler.in = &in;
  if (reader.Parse<rapidjson::kParseNumbersAsStringsFlag>(in, handler).IsError()) {
    error = handler.error.empty() ? "invalid json answer of _bulk_get" : handler.error;
    return false;
  }
  return true;
}

// The _id of a line that is one JSON object, read without building the document; false when the
// line is not a JSON object with a string _id.
bool IdOfLine(const std::string& line, std::string& id) {
  struct Handler : rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Handler> {
    int depth = 0;
    bool object = false, wanted = false, found = false;
    std::string* id = nullptr;
    bool StartObject() {
      object = object || depth == 0;
      wanted = false;
      return ++depth, true;
    }
    bool StartArray() {
      wanted = false;
      return depth++ > 0;
    }
    bool EndObject(rapidjson::SizeType) { return --depth, true; }
    bool EndArray(rapidjson::SizeType) { return --depth, true; }
    bool Key(const char* s, rapidjson::SizeType n, bool) {
      wanted = depth == 1 && n == 3 && std::memcmp(s, "_id", 3) == 0;
      return true;
    }
    bool String(const char* s, rapidjson::SizeType n, bool) {
      if (wanted)
        id->assign(s, n), found = true;
      return wanted = false, true;
    }
    bool Default() { return wanted = false, true; }
  } handler;
  handler.id = &id;
  rapidjson::Reader reader;
  rapidjson::StringStream in(line.c_str());
  return !reader.Parse(in, handler).IsError() && handler.object && handler.found;
}

} // namespace

bool BackupDatabase(http::HttpConnectionPool& pool, const CouchConnectionParameters& server, const std::string& db,
                    const BackupOptions& options, std::ostream& out,
                    const std::function<void(const std::string& checkpoint, uint64_t written)>& onBatchWritten,
                    BackupStats* stats, std::string* error, const bool* cancel) {
  const unsigned threads = std::max(1u, options.threads);
  const http::HttpConnectionPool::ParallelUse use(pool, threads + 1); // the workers and the feed
  qz::Url bulkGet =
      server.toDatabaseUrl(db, {}).toUrl(std::vector<std::string>{"_bulk_get"},
                                         {{"revs", "true"}, {"attachments", options.attachments ? "true" : "false"}});

  std::mutex mutex;
  std::condition_variable changed;
  std::map<size_t, Batch> todo, done; // by index
  // The buffers of written batches, reused: fresh ones of this size cost a page fault per 4 KiB.
  std::vector<std::string> spare;
  size_t submitted = 0, written = 0, busy = 0;
  uint64_t bytes = 0;
  bool feedOver = false;
  std::string failure;
  BackupStats counts;
  counts.lastSeq = options.since;

  auto worker = [&] {
    detail::Reply reply; // its body's memory serves every answer of this worker
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      changed.wait(lock, [&] { return !todo.empty() || feedOver || !failure.empty(); });
      if (todo.empty() || !failure.empty())
        return;
      Batch batch = std::move(todo.begin()->second);
      todo.erase(todo.begin());
      if (!spare.empty()) {
        batch.lines = std::move(spare.back());
        spare.pop_back();
      }
      ++busy;
      lock.unlock();
      std::string why;
      http::TransferError transfer;
      if (!detail::RequestWithRetry(pool, bulkGet, http::Method::Post, &batch.body, reply, cancel, 10) ||
          reply.code != 200) {
        why = "_bulk_get of " + db + ": " + reply.reason();
        transfer = reply.failure();
      } else {
        batch.lines.reserve(reply.body.size()); // the lines are the answer less its wrapping
        LinesOfAnswer(reply.body, options.attachments, batch, why);
      }
      batch.body.clear();
      lock.lock();
      --busy;
      batch.error = why;
      if (!why.empty() && failure.empty()) {
        failure = why;
        counts.transfer = transfer;
      }
      done.emplace(batch.index, std::move(batch));
      changed.notify_all();
    }
  };
  // Writes finished batches in feed order, up to a failed one; on the feed's thread only.
  bool writeFailed = false;
  auto writeDone = [&](std::unique_lock<std::mutex>& lock) {
    while (!writeFailed && !done.empty() && done.begin()->first == written && done.begin()->second.error.empty()) {
      Batch batch = std::move(done.begin()->second);
      done.erase(done.begin());
      lock.unlock();
      out.write(batch.lines.data(), std::streamsize(batch.lines.size()));
      out.flush();
      const bool good = bool(out);
      bytes += batch.lines.size();
      if (good && onBatchWritten && !batch.checkpoint.empty())
        onBatchWritten(batch.checkpoint, bytes);
      lock.lock();
      batch.lines.clear();
      if (spare.size() < size_t(threads) * 4)
        spare.push_back(std::move(batch.lines));
      if (!good) {
        writeFailed = true;
        failure = "writing the backup failed";
        break;
      }
      ++written;
      counts.revisions += batch.revisions;
      if (!batch.checkpoint.empty())
        counts.lastSeq = batch.checkpoint;
    }
  };

  std::vector<std::thread> workers;
  for (unsigned t = 0; t < threads; ++t)
    workers.emplace_back(worker);

  // The feed is read in pages of four batches: fewer sequential requests, each a cheaper
  // read per change for the server. A batch ends at its last change's seq, a checkpoint too.
  const size_t batchSize = std::max<size_t>(1, options.batchSize);
  ChangesOptions feedOptions;
  feedOptions.since = options.since;
  feedOptions.allLeafRevs = true;
  feedOptions.batchLimit = unsigned(std::min<size_t>(batchSize * 4, 100000));
  ChangesFeedListener feed(pool, server, db, feedOptions);
  std::string feedError;
  auto submit = [&](const Change* begin, const Change* end, std::string checkpoint) {
    Batch batch;
    batch.checkpoint = std::move(checkpoint);
    batch.body = "{\"docs\":[";
    bool first = true;
    for (const Change* c = begin; c != end; ++c) {
      // A lone live leaf is the winner: asked for by id alone, which spares the server a
      // look-up of the revision (PouchDB reads the revision tree for it). Should the
      // document change meanwhile, its later change brings every leaf.
      const bool winner = c->revs.size() == 1 && !c->deleted;
      for (const std::string& rev : c->revs) {
        batch.body += first ? "{\"id\":" : ",{\"id\":";
        json::AppendJsonString(batch.body, c->id);
        if (!winner) {
          batch.body += ",\"rev\":";
          json::AppendJsonString(batch.body, rev);
        }
        batch.body += "}";
        first = false;
      }
    }
    batch.body += "]}";
    std::unique_lock<std::mutex> lock(mutex);
    counts.documents += size_t(end - begin);
    batch.index = submitted++;
    todo.emplace(batch.index, std::move(batch));
    changed.notify_all();
  };
  const bool feedOk = feed.runBatches(
      [&](std::vector<Change>& changes, const std::string& checkpoint) {
        for (size_t at = 0; at < changes.size() || at == 0; at += batchSize) {
          const size_t end = std::min(changes.size(), at + batchSize);
          submit(changes.data() + at, changes.data() + end, end == changes.size() ? checkpoint : changes[end - 1].seq);
        }
        std::unique_lock<std::mutex> lock(mutex);
        // A few batches ahead of the writer at most.
        for (;;) {
          writeDone(lock);
          if (!failure.empty() || http::CancelToken::IsSet(cancel))
            return false;
          if (submitted - written <= size_t(threads) * 2)
            return true;
          changed.wait(lock);
        }
      },
      &feedError, cancel);
  {
    std::unique_lock<std::mutex> lock(mutex);
    feedOver = true;
    changed.notify_all();
    changed.wait(lock, [&] {
      writeDone(lock);
      return busy == 0 && (todo.empty() || !failure.empty());
    });
    writeDone(lock);
  }
  for (auto& t : workers)
    t.join();
  if (failure.empty() && !feedOk)
    failure = feedError;
  if (failure.empty() && http::CancelToken::IsSet(cancel))
    failure = "cancelled";
  if (failure.empty() && written != submitted)
    failure = "backup of " + db + " ended with batches unwritten";
  if (stats)
    *stats = counts;
  if (!failure.empty() && error)
    *error = failure;
  return failure.empty();
}

bool RestoreDatabase(http::HttpConnectionPool& pool, const CouchConnectionParameters& server, const std::string& db,
                     std::istream& in, unsigned threads, size_t batchDocs, RestoreStats* stats, std::string* error,
                     const bool* cancel) {
  RestoreStats counts;
  bool ok = true;
  {
    DocumentUploader up(pool, server, db, std::max(1u, threads), std::max<size_t>(1, batchDocs));
    up.setNewEdits(false);
    // Lines are cut from reads of 64 KiB: getline on std::cin, kept in step with stdio, takes
    // two library calls per byte.
    auto take = [&](std::string&& line) {
      if (http::CancelToken::IsSet(cancel)) {
        if (error)
          *error = "cancelled";
        return false;
      }
      if (line.find_first_not_of(" \t\r") == std::string::npos)
        return true;
      ++counts.lines;
      std::string id;
      if (!IdOfLine(line, id))
        ++counts.invalid;
      else
        up.addJson(std::move(line), id);
      return true;
    };
    std::string buffer;
    std::vector<char> chunk(size_t(1) << 16);
    for (bool more = true; more && ok;) {
      in.read(chunk.data(), std::streamsize(chunk.size()));
      const size_t got = size_t(in.gcount());
      more = got > 0;
      size_t start = 0, scan = buffer.size();
      buffer.append(chunk.data(), got);
      for (size_t nl; ok && (nl = buffer.find('\n', scan)) != std::string::npos; scan = start = nl + 1)
        ok = take(buffer.substr(start, nl - start));
      buffer.erase(0, start);
      if (!more && ok && !buffer.empty())
        ok = take(std::move(buffer));
    }
    std::string flushError;
    if (!up.flush(&flushError) && ok && error)
      *error = flushError;
    counts.stored = up.uploaded();
    counts.failures = up.failures();
  }
  if (ok && counts.invalid > 0 && counts.failures.empty() && error)
    *error = std::to_string(counts.invalid) + " line(s) are not documents";
  ok = ok && counts.failures.empty() && counts.invalid == 0;
  if (stats)
    *stats = std::move(counts);
  return ok;
}

} // namespace qz::couch
