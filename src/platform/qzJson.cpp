#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzJson_p.h>

#include <rapidjson/error/en.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <locale.h>

namespace qz::json {

namespace {

// SAX handler that builds the variant directly, without an intermediate DOM.
class VariantBuilder {
public:
  qzVariant root;

  bool Null() { return add(qzVariant()); }
  bool Bool(bool b) { return add(qzVariant(b)); }
  bool Int(int i) { return add(qzVariant(int64_t(i))); }
  bool Uint(unsigned u) { return add(qzVariant(int64_t(u))); }
  bool Int64(int64_t i) { return add(qzVariant(i)); }
  bool Uint64(uint64_t u) {
    if (u <= uint64_t(std::numeric_limits<int64_t>::max()))
      return add(qzVariant(int64_t(u)));
    return add(qzVariant(double(u)));
  }
  bool Double(double d) { return add(qzVariant(d)); }
  // Numbers arrive as text (see kParseFlags) and are converted with from_chars (correctly
  // rounded, locale-free); strtod in the C locale settles the out-of-range cases.
  bool RawNumber(const char* s, rapidjson::SizeType n, bool) {
    const char* end = s + n;
    if (std::find_if(s, end, [](char c) { return c == '.' || c == 'e' || c == 'E'; }) == end) {
      int64_t i = 0;
      auto r = std::from_chars(s, end, i);
      if (r.ec == std::errc() && r.ptr == end)
        return Int64(i);
      uint64_t u = 0;
      r = std::from_chars(s, end, u);
      if (r.ec == std::errc() && r.ptr == end)
        return Uint64(u);
    }
    double quick = 0;
    auto r = std::from_chars(s, end, quick);
    if (r.ec == std::errc() && r.ptr == end)
      return Double(quick);
    // Out of range: strtod tells overflow (refused) from underflow (kept as 0 or subnormal).
    static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", locale_t(0));
    const std::string text(s, n);
    char* stop = nullptr;
    const double d = strtod_l(text.c_str(), &stop, cLocale);
    // Overflow fails, as it did before; underflow gives zero or a subnormal.
    if (stop != text.c_str() + text.size() || std::isinf(d))
      return false;
    return Double(d);
  }
  bool String(const char* s, rapidjson::SizeType n, bool) { return add(qzVariant(std::string(s, n))); }
  bool Key(const char* s, rapidjson::SizeType n, bool) {
    m_key.assign(s, n);
    return true;
  }
  bool StartObject() { return open(qzVariant(qzVariantMapImpl{})); }
  bool EndObject(rapidjson::SizeType) { return close(); }
  bool StartArray() { return open(qzVariant(qzVariantListImpl{})); }
  bool EndArray(rapidjson::SizeType) { return close(); }

private:
  std::vector<qzVariant*> m_stack;
  std::string m_key;

  qzVariant* place(qzVariant&& v) {
    if (m_stack.empty()) {
      root = std::move(v);
      return &root;
    }
    qzVariant* top = m_stack.back();
    if (top->isMap()) {
      auto& slot = top->asMap()[m_key];
      slot = std::move(v); // a repeated key keeps its last value
      return &slot;
    }
    auto& list = top->asList();
    list.push_back(std::move(v));
    return &list.back();
  }
  bool add(qzVariant&& v) {
    place(std::move(v));
    return true;
  }
  bool open(qzVariant&& v) {
    if (m_stack.size() >= Json2Variant::MaxDepth)
      return false;
    m_stack.push_back(place(std::move(v)));
    return true;
  }
  bool close() {
    m_stack.pop_back();
    return true;
  }
};

// Numbers are taken as text and converted by the builder: RapidJSON's own full-precision
// conversion gives garbage for a zero significand with a large exponent ("0E46", "0.0e-30").
constexpr unsigned kParseFlags = rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseIterativeFlag;

bool parse(const char* text, size_t length, qzVariant& out) {
  if (!text)
    return false;
  VariantBuilder b;
  rapidjson::MemoryStream ms(text, length);
  rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> is(ms);
  rapidjson::Reader reader;
  if (!reader.Parse<kParseFlags>(is, b))
    return false;
  out = std::move(b.root);
  return true;
}

// Writes a value; NaN and infinities fail, or are written as null when `nanAsNull`.
template <typename W> bool writeValue(W& w, const qzVariant& v, bool nanAsNull);

template <typename W> bool writeMap(W& w, const qzVariantMapImpl& map, bool nanAsNull) {
  if (!w.StartObject())
    return false;
  for (const auto& [k, val] : map)
    if (!w.Key(k.data(), rapidjson::SizeType(k.size())) || !writeValue(w, val, nanAsNull))
      return false;
  return w.EndObject();
}

template <typename W> bool writeList(W& w, const qzVariantListImpl& list, bool nanAsNull) {
  if (!w.StartArray())
    return false;
  for (const auto& val : list)
    if (!writeValue(w, val, nanAsNull))
      return false;
  return w.EndArray();
}

template <typename W> bool writeValue(W& w, const qzVariant& v, bool nanAsNull) {
  switch (v.type()) {
  case qzVariant::Null:
    return w.Null();
  case qzVariant::Bool:
    return w.Bool(v.toBool());
  case qzVariant::Int64:
    return w.Int64(v.toInt64());
  case qzVariant::Double: {
    const double d = v.toDouble();
    if (!std::isfinite(d))
      return nanAsNull && w.Null();
    return w.Double(d);
  }
  case qzVariant::String: {
    const std::string& s = *v.stringPtr();
    return w.String(s.data(), rapidjson::SizeType(s.size()));
  }
  case qzVariant::Map:
    return writeMap(w, v.toMap(), nanAsNull);
  case qzVariant::List:
    return writeList(w, v.toList(), nanAsNull);
  }
  return false;
}

// Writes with `write(writer)` into `text`, compact or indented; `append` keeps what `text` holds.
// The compact writer and its buffer are kept per thread: no allocation once warm.
template <typename F> bool writeText(std::string& text, bool pretty, bool append, F&& write) {
  if (pretty) {
    rapidjson::StringBuffer buf;
    rapidjson::PrettyWriter<rapidjson::StringBuffer> w(buf);
    w.SetIndent(' ', 2);
    if (!write(w))
      return false;
    text.assign(buf.GetString(), buf.GetSize());
    return true;
  }
  thread_local rapidjson::StringBuffer buf;
  thread_local rapidjson::Writer<rapidjson::StringBuffer> w;
  buf.Clear();
  w.Reset(buf);
  if (!write(w))
    return false;
  if (append)
    text.append(buf.GetString(), buf.GetSize());
  else
    text.assign(buf.GetString(), buf.GetSize());
  if (buf.GetSize() > (1 << 20)) { // a large document's buffer is not kept
    buf.Clear();
    buf.ShrinkToFit();
  }
  return true;
}

} // namespace

bool Json2Variant::Convert(const char* text, size_t length, qzVariant& out) { return parse(text, length, out); }

bool Json2Variant::Convert(const char* text, size_t length, qzVariantMapImpl& out) {
  qzVariant v;
  if (!parse(text, length, v) || !v.isMap())
    return false;
  out = std::move(v.asMap());
  return true;
}

bool Json2Variant::Convert(const std::string& text, qzVariantMapImpl& out) {
  return Convert(text.data(), text.size(), out);
}

bool Json2Variant::Convert(const char* text, size_t length, qzVariantListImpl& out) {
  qzVariant v;
  if (!parse(text, length, v) || !v.isList())
    return false;
  out = std::move(v.asList());
  return true;
}

bool Json2Variant::Convert(const std::string& text, qzVariantListImpl& out) {
  return Convert(text.data(), text.size(), out);
}

bool Json2Variant::Convert(const qzVariantMapImpl& in, std::string& text, bool pretty) {
  return writeText(text, pretty, false, [&](auto& w) { return writeMap(w, in, false); });
}
bool Json2Variant::Convert(const qzVariantListImpl& in, std::string& text, bool pretty) {
  return writeText(text, pretty, false, [&](auto& w) { return writeList(w, in, false); });
}
bool Json2Variant::Convert(const qzVariant& in, std::string& text, bool pretty) {
  return writeText(text, pretty, false, [&](auto& w) { return writeValue(w, in, false); });
}

void AppendJson(std::string& out, const qzVariant& value) {
  writeText(out, false, true, [&](auto& w) { return writeValue(w, value, true); });
}
void AppendJson(std::string& out, const qzVariantMapImpl& map) {
  writeText(out, false, true, [&](auto& w) { return writeMap(w, map, true); });
}
void AppendJsonString(std::string& out, std::string_view s) {
  writeText(out, false, true, [&](auto& w) { return w.String(s.data(), rapidjson::SizeType(s.size())); });
}
std::string ErrorReasonOf(const qzVariantMapImpl& answer) {
  const auto error = answer.find("error");
  if (error == answer.end())
    return {};
  const qzVariantMapImpl* holder = &answer;
  std::string text;
  if (error->second.isMap()) {
    holder = &error->second.toMap();
    const auto type = holder->find("type");
    text = type != holder->end() ? type->second.toString() : "error";
  } else {
    text = error->second.toString();
  }
  const auto reason = holder->find("reason");
  return reason == holder->end() ? text : text + ": " + reason->second.toString();
}

std::string JsonStringArray(std::string_view key, const std::string* first, const std::string* last) {
  std::string text;
  writeText(text, false, false, [&](auto& w) {
    w.StartObject();
    w.Key(key.data(), rapidjson::SizeType(key.size()));
    w.StartArray();
    for (const std::string* s = first; s != last; ++s)
      w.String(s->data(), rapidjson::SizeType(s->size()));
    w.EndArray();
    return w.EndObject();
  });
  return text;
}

// ---- JsonStreamer ----

namespace streamer { // named: JsonStreamer::Impl holds these
// RapidJSON output stream that writes through to a device in blocks.
class DeviceStream {
public:
  using Ch = char;
  explicit DeviceStream(qzIoDevice& d) : m_dev(d) {}
  void Put(char c) {
    m_buf[m_len++] = c;
    if (m_len == sizeof m_buf)
      Flush();
  }
  void Flush() {
    if (m_len && m_dev.writeBytes(m_buf, m_len) != int64_t(m_len))
      m_failed = true;
    m_len = 0;
  }
  bool failed() const { return m_failed; }

private:
  qzIoDevice& m_dev;
  char m_buf[4096];
  size_t m_len = 0;
  bool m_failed = false;
};
} // namespace streamer
using streamer::DeviceStream;

struct JsonStreamer::Impl {
  explicit Impl(qzIoDevice& d) : stream(d), writer(stream) {}
  DeviceStream stream;
  rapidjson::Writer<DeviceStream> writer;
  bool ok = true;
  bool step(bool r) {
    ok = ok && r;
    return ok;
  }
};

JsonStreamer::JsonStreamer(qzIoDevice& device) : d(std::make_unique<Impl>(device)) {}
JsonStreamer::~JsonStreamer() { d->stream.Flush(); }

size_t JsonStreamer::ConvertToJsonStringSize(const std::string& s) {
  size_t n = 2;
  for (unsigned char c : s) {
    if (c == '"' || c == '\\' || c == '\b' || c == '\f' || c == '\n' || c == '\r' || c == '\t')
      n += 2;
    else if (c < 0x20)
      n += 6; // \u00XX
    else
      n += 1;
  }
  return n;
}

size_t JsonStreamer::ConvertToJsonStringSize(const std::string& arrayName, const std::vector<std::string>& strings) {
  size_t n = 2 + ConvertToJsonStringSize(arrayName) + 1 + 2; // { "name" : [ ] }
  for (const auto& s : strings)
    n += ConvertToJsonStringSize(s);
  if (!strings.empty())
    n += strings.size() - 1; // commas
  return n;
}

bool JsonStreamer::begin() { return d->step(d->writer.StartObject()); }
bool JsonStreamer::arrayBegin(const std::string& key) {
  return d->step(d->writer.Key(key.data(), rapidjson::SizeType(key.size())) && d->writer.StartArray());
}
bool JsonStreamer::arrayString(const std::string& s) {
  return d->step(d->writer.String(s.data(), rapidjson::SizeType(s.size())));
}
bool JsonStreamer::arrayEnd() { return d->step(d->writer.EndArray()); }
bool JsonStreamer::addString(const std::string& key, const std::string& value) {
  return d->step(d->writer.Key(key.data(), rapidjson::SizeType(key.size())) &&
                 d->writer.String(value.data(), rapidjson::SizeType(value.size())));
}
bool JsonStreamer::addInt(const std::string& key, int64_t value) {
  return d->step(d->writer.Key(key.data(), rapidjson::SizeType(key.size())) && d->writer.Int64(value));
}
bool JsonStreamer::end() {
  d->step(d->writer.EndObject());
  d->stream.Flush();
  return d->step(!d->stream.failed());
}
bool JsonStreamer::good() const { return d->ok && !d->stream.failed(); }

} // namespace qz::json
