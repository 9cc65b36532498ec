// Dead letters: the file of items Elasticsearch refused for good, and their replay.
#include <HttpTools/river/River.h>

#include <HttpTools/couch/ChangesFeed.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/river/RiverPipeline_p.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <mutex>
#include <set>

namespace qz::river {

namespace {

using namespace detail;

std::mutex fileMutex; // one line at a time, whichever river writes it

std::string IsoTime(int64_t ms) {
  const std::time_t seconds = std::time_t(ms / 1000);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[96];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, int(ms % 1000));
  return text;
}

int64_t IsoMs(const std::string& text) {
  std::tm utc{};
  int millis = 0;
  if (std::sscanf(text.c_str(), "%d-%d-%dT%d:%d:%d.%dZ", &utc.tm_year, &utc.tm_mon, &utc.tm_mday, &utc.tm_hour,
                  &utc.tm_min, &utc.tm_sec, &millis) < 6)
    return 0;
  utc.tm_year -= 1900;
  utc.tm_mon -= 1;
  return int64_t(timegm(&utc)) * 1000 + millis;
}

// One letter as a line; the source goes in as the object it is.
std::string LetterLine(const RiverDeadLetter& l) {
  std::string line = JsonText(qzVariantMapImpl{{"id", l.id},
                                               {"rev", l.rev},
                                               {"seq", l.seq},
                                               {"status", int64_t(l.status)},
                                               {"type", l.errorType},
                                               {"reason", l.reason},
                                               {"time", IsoTime(l.timeMs)}});
  line.pop_back(); // the closing brace
  return line + ",\"source\":" + (l.source.empty() ? std::string("null") : l.source) + "}\n";
}

} // namespace

std::function<bool(const RiverDeadLetter&)> DeadLetterFile(const std::string& path) {
  return [path](const RiverDeadLetter& letter) {
    const std::string line = LetterLine(letter);
    std::lock_guard<std::mutex> lock(fileMutex);
    std::ofstream out(path, std::ios::app | std::ios::binary);
    out << line;
    out.flush();
    return bool(out);
  };
}

bool ReadDeadLetters(const std::string& path, std::vector<RiverDeadLetter>& letters, std::string* error) {
  letters.clear();
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::FILE* exists = std::fopen(path.c_str(), "rb");
    if (!exists)
      return true; // no file: no letters
    std::fclose(exists);
    if (error)
      *error = "cannot read " + path;
    return false;
  }
  std::string line;
  for (size_t number = 1; std::getline(in, line); ++number) {
    if (line.find_first_not_of(" \t\r") == std::string::npos)
      continue;
    qzVariantMapImpl doc;
    if (!qz::json::Json2Variant::Convert(line, doc) || doc["id"].toString().empty()) {
      if (error)
        *error = path + ":" + std::to_string(number) + ": not a dead letter";
      return false;
    }
    RiverDeadLetter l;
    l.id = doc["id"].toString();
    l.rev = doc["rev"].toString();
    l.seq = doc["seq"].toString();
    l.status = int(doc["status"].toInt64());
    l.errorType = doc["type"].toString();
    l.reason = doc["reason"].toString();
    l.timeMs = IsoMs(doc["time"].toString());
    if (doc["source"].isMap())
      l.source = JsonText(doc["source"]);
    letters.push_back(std::move(l));
  }
  return true;
}

bool ReplayDeadLetters(qz::http::HttpConnectionPool& pool, const RiverDefinition& definition, const std::string& path,
                       RiverReplay& replay, std::string* error, const bool* cancel) {
  replay = RiverReplay();
  auto fail = [&](const std::string& why) {
    if (error)
      *error = why;
    return false;
  };
  std::vector<RiverDeadLetter> letters;
  std::string why;
  if (!ReadDeadLetters(path, letters, &why))
    return fail(why);
  std::set<std::string> seen;
  qz::couch::ChangesOptions options;
  for (const auto& l : letters)
    if (seen.insert(l.id).second)
      options.docIds.push_back(l.id);
  replay.ids = options.docIds.size();
  std::vector<RiverDeadLetter> still;
  if (!options.docIds.empty()) {
    // Each listed document's last change: its current state, deleted or not.
    options.includeDocs = true;
    options.allLeafRevs = true;
    options.maxRetries = 3;
    qz::couch::ChangesFeedListener feed(pool, definition.couch, definition.database, options);
    std::vector<BulkOp> ops;
    const Transform transform = RiverTransform(definition);
    std::string index;
    if (auto found = WriteIndex(pool, definition, index, cancel); !found.ok())
      return fail(found.message);
    if (!feed.run(
            [&](const qz::couch::Change& change) {
              BulkOp op;
              bool skipped = false;
              if (ChangeToOp(change, index, transform, op, skipped))
                ops.push_back(std::move(op));
              return true;
            },
            &why, cancel))
      return fail("CouchDB: " + why);
    StopSignal stop;
    const size_t count = ops.size();
    auto sender = RouteIfNeeded(pool, definition,
                                MakeBulkSender(
                                    pool, definition.elastic, definition.name, stop, [](const BulkProgress&) {}, 5,
                                    [&](const RiverDeadLetter& letter) {
                                      still.push_back(letter);
                                      return true;
                                    }));
    if (const RiverOutcome sent = sender->send(ops, cancel); !sent.ok())
      return fail(sent.idle() ? "cancelled" : sent.message);
    replay.refused = still.size();
    replay.written = count - still.size();
  }
  // The new file replaces the old one whole, or not at all.
  const std::string temporary = path + ".replay";
  {
    std::ofstream out(temporary, std::ios::trunc | std::ios::binary);
    for (const auto& l : still)
      out << LetterLine(l);
    out.flush();
    if (!out)
      return std::remove(temporary.c_str()), fail("cannot write " + temporary);
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0)
    return std::remove(temporary.c_str()), fail("cannot replace " + path);
  return true;
}

} // namespace qz::river
