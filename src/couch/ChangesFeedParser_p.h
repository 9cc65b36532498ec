#pragma once

#include <HttpTools/couch/ChangesFeed.h>
#include <HttpTools/platform/Export.h>

#include <cstddef>
#include <functional>
#include <string>

namespace qz::couch {

// Cuts the changes out of a change feed while it arrives, whatever its layout: the normal and
// longpoll feeds' {"results":[...],"last_seq":..} (on one line or one change per line) and the
// continuous feed's one object per change with blank heartbeat lines between. Chunk boundaries
// may fall anywhere.
class ChangesFeedParser {
public:
  // onChange: false stops the feed. onLastSeq: the feed's own last_seq (end of a normal feed,
  // or a continuous feed closed by the server). Seqs are the text the server sent (numbers
  // exactly as written); a change whose seq is null (seq_interval) has an empty seq, and a null
  // last_seq is an error.
  ChangesFeedParser(std::function<bool(Change&)> onChange, std::function<void(const std::string&)> onLastSeq);

  // False on malformed text, an error object from the server, or a change refused by onChange;
  // error() says which. After false the parser must be reset() before it is fed again.
  bool feed(const char* data, size_t length);
  void reset(); // forgets a partial object (a cut feed)

  const std::string& error() const { return m_error; }
  bool refused() const { return m_refused; }
  bool sawLastSeq() const { return m_sawLastSeq; }
  size_t changeCount() const { return m_changes; }
  // The changes the server says follow its last_seq (CouchDB's `pending`); -1 when it did not say.
  int64_t pending() const { return m_pending; }
  // Bytes of the object being read (a partial change); bounded by the largest change.
  size_t pendingBytes() const { return m_top.size() + m_row.size(); }

  // An entry of the feed as text ({"seq":..,"id":..,"changes":[..]}) to a Change; false when it
  // is not one.
  static bool ToChange(const qzVariantMapImpl& entry, Change& out);
  // A seq as opaque text: strings as they are, numbers and anything else as compact JSON.
  static std::string SeqText(const qzVariant& seq);

private:
  bool fail(const std::string& why);
  bool deliverRow();
  bool deliver(const qzVariantMapImpl& entry, const std::string& text); // one change to the callback
  bool finishTop();

  std::function<bool(Change&)> m_onChange;
  std::function<void(const std::string&)> m_onLastSeq;
  std::string m_top; // the top-level object, without the rows of its results array
  std::string m_row; // the results row being read
  std::string m_key; // the last key read at depth 1
  std::string m_lastKey;
  std::string m_error;
  size_t m_changes = 0;
  int64_t m_pending = -1;
  int m_depth = 0;
  int m_square = 0;
  bool m_inString = false;
  bool m_escaped = false;
  bool m_keyCapture = false;
  bool m_inResults = false;
  bool m_inRow = false;
  bool m_refused = false;
  bool m_sawLastSeq = false;
};

} // namespace qz::couch
