#include <HttpTools/couch/ChangesFeedParser_p.h>

#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzJson_p.h>

#include <rapidjson/reader.h>

#include <algorithm>
#include <cstring>

namespace qz::couch {

namespace {

// A single change larger than this is taken for a runaway stream.
constexpr size_t kMaxObjectBytes = size_t(256) << 20;

// Reads one member of a JSON object as the server wrote it: a number's own text (exact beyond
// 2^53, no exponent added), a string's value. Stops at that member.
struct MemberText : rapidjson::BaseReaderHandler<rapidjson::UTF8<>, MemberText> {
  enum Kind { kAbsent, kNull, kText, kOther };
  explicit MemberText(const char* name) : key(name) {}

  bool take(Kind k, const char* s = nullptr, size_t n = 0) {
    if (!wanted)
      return true;
    kind = k;
    if (s)
      text.assign(s, n);
    return false;
  }
  bool Key(const char* s, rapidjson::SizeType n, bool) {
    wanted = depth == 1 && n == std::strlen(key) && std::memcmp(s, key, n) == 0;
    return true;
  }
  bool Null() { return take(kNull); }
  bool RawNumber(const char* s, rapidjson::SizeType n, bool) { return take(kText, s, n); }
  bool String(const char* s, rapidjson::SizeType n, bool) { return depth != 1 || take(kText, s, n); }
  bool Default() { return take(kOther); }
  bool StartObject() { return depth++ != 1 || take(kOther); }
  bool StartArray() { return depth++ != 1 || take(kOther); }
  bool EndObject(rapidjson::SizeType) { return --depth, true; }
  bool EndArray(rapidjson::SizeType) { return --depth, true; }

  static MemberText Read(const std::string& json, const char* name) {
    MemberText handler(name);
    rapidjson::Reader reader;
    rapidjson::StringStream in(json.c_str());
    reader.Parse<rapidjson::kParseNumbersAsStringsFlag>(in, handler);
    return handler;
  }

  const char* key;
  int depth = 0;
  bool wanted = false;
  Kind kind = kAbsent;
  std::string text;
};

// The seq member of an object as opaque text: strings and numbers as sent, arrays as compact JSON.
// Null (a row under seq_interval) gives "".
std::string SeqOf(const std::string& json, const char* name, const qzVariant& parsed) {
  const MemberText m = MemberText::Read(json, name);
  if (m.kind == MemberText::kText)
    return m.text;
  return m.kind == MemberText::kNull ? std::string() : ChangesFeedParser::SeqText(parsed);
}

} // namespace

ChangesFeedParser::ChangesFeedParser(std::function<bool(Change&)> onChange,
                                     std::function<void(const std::string&)> onLastSeq)
    : m_onChange(std::move(onChange)), m_onLastSeq(std::move(onLastSeq)) {}

void ChangesFeedParser::reset() {
  m_top.clear();
  m_row.clear();
  m_key.clear();
  m_lastKey.clear();
  m_error.clear();
  m_depth = m_square = 0;
  m_inString = m_escaped = m_keyCapture = m_inResults = m_inRow = m_refused = false;
}

bool ChangesFeedParser::fail(const std::string& why) {
  if (m_error.empty())
    m_error = why;
  return false;
}

std::string ChangesFeedParser::SeqText(const qzVariant& seq) {
  if (const std::string* s = seq.stringPtr())
    return *s;
  return seq.toString();
}

bool ChangesFeedParser::ToChange(const qzVariantMapImpl& entry, Change& out) {
  auto id = entry.find("id");
  auto seq = entry.find("seq");
  if (id == entry.end() || !id->second.isString() || seq == entry.end())
    return false;
  out.id = *id->second.stringPtr();
  out.seq = SeqText(seq->second);
  out.revs.clear();
  if (auto changes = entry.find("changes"); changes != entry.end())
    for (const qzVariant& c : changes->second.toList())
      if (auto rev = c.toMap().find("rev"); rev != c.toMap().end())
        out.revs.push_back(rev->second.toString());
  auto deleted = entry.find("deleted");
  out.deleted = deleted != entry.end() && deleted->second.toBool();
  auto doc = entry.find("doc");
  out.doc = doc != entry.end() ? doc->second : qzVariant();
  return true;
}

bool ChangesFeedParser::deliverRow() {
  qzVariantMapImpl entry;
  if (!json::Json2Variant::Convert(m_row, entry))
    return fail("invalid json in change feed: " + m_row.substr(0, 200));
  const bool ok = deliver(entry, m_row);
  m_row.clear();
  return ok;
}

bool ChangesFeedParser::deliver(const qzVariantMapImpl& entry, const std::string& text) {
  Change change;
  if (!ToChange(entry, change))
    return fail("change without id or seq in change feed");
  change.seq = SeqOf(text, "seq", entry.at("seq"));
  ++m_changes;
  if (!m_onChange(change)) {
    m_refused = true;
    return fail("change refused");
  }
  return true;
}

// A whole top-level object: a continuous feed's change or last_seq, a normal feed's envelope
// (its rows already delivered), or an error from the server.
bool ChangesFeedParser::finishTop() {
  qzVariantMapImpl top;
  if (!json::Json2Variant::Convert(m_top, top))
    return fail("invalid json in change feed: " + m_top.substr(0, 200));
  const std::string text = std::move(m_top);
  m_top.clear();
  if (top.count("error"))
    return fail(json::ErrorReasonOf(top));
  if (top.count("results") == 0 && top.count("id") != 0)
    return deliver(top, text);
  if (auto last = top.find("last_seq"); last != top.end()) {
    // A checkpoint must say where to resume: null would restart the feed from its beginning.
    if (last->second.isNull())
      return fail("null last_seq in change feed");
    m_sawLastSeq = true;
    if (auto pending = top.find("pending"); pending != top.end() && pending->second.isNumber())
      m_pending = std::max<int64_t>(0, pending->second.toInt64());
    if (m_onLastSeq)
      m_onLastSeq(SeqOf(text, "last_seq", last->second));
  }
  return true;
}

bool ChangesFeedParser::feed(const char* data, size_t length) {
  if (!m_error.empty())
    return false;
  for (size_t i = 0; i < length; ++i) {
    const char c = data[i];
    if (m_depth == 0) {
      if (c == '{') {
        m_depth = 1;
        m_square = 0;
        m_top.assign(1, '{');
        m_lastKey.clear();
        m_inResults = false;
        continue;
      }
      if (c == ' ' || c == '\n' || c == '\r' || c == '\t')
        continue; // heartbeats and line breaks between objects
      return fail("unexpected byte outside an object in change feed");
    }
    // Inside a results array only the rows are kept (in m_row); the envelope keeps the rest.
    if (m_inRow)
      m_row.push_back(c);
    else if (!m_inResults)
      m_top.push_back(c);
    if (m_inString) {
      if (m_escaped)
        m_escaped = false;
      else if (c == '\\')
        m_escaped = true;
      else if (c == '"') {
        m_inString = false;
        continue;
      }
      if (m_keyCapture)
        m_key.push_back(c);
      continue;
    }
    switch (c) {
    case '"':
      m_inString = true;
      m_keyCapture = m_depth == 1 && m_square == 0;
      m_key.clear();
      break;
    case ':':
      if (m_depth == 1 && m_square == 0)
        m_lastKey = m_key;
      break;
    case '[':
      ++m_square;
      if (!m_inRow && m_depth == 1 && m_square == 1 && m_lastKey == "results")
        m_inResults = true;
      break;
    case ']':
      if (m_square == 0)
        return fail("unbalanced ']' in change feed");
      if (m_inResults && !m_inRow && m_depth == 1 && m_square == 1) {
        m_inResults = false;
        m_top.push_back(']');
      }
      --m_square;
      break;
    case '{':
      ++m_depth;
      if (m_inResults && !m_inRow && m_depth == 2 && m_square == 1) {
        m_inRow = true;
        m_row.assign(1, '{');
      }
      break;
    case '}':
      if (m_inRow && m_depth == 2) {
        m_inRow = false;
        --m_depth;
        if (!deliverRow())
          return false;
      } else if (m_depth == 1) {
        m_depth = 0;
        if (m_square != 0)
          return fail("unbalanced '[' in change feed");
        if (!finishTop())
          return false;
      } else {
        --m_depth;
      }
      break;
    default:
      break;
    }
  }
  if (m_top.size() > kMaxObjectBytes || m_row.size() > kMaxObjectBytes)
    return fail("change feed object too large");
  return true;
}

} // namespace qz::couch
