#pragma once

#include <HttpTools/platform/Export.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace qz::elasticsearch {

// Cuts the objects of one array out of an Elasticsearch response while it arrives: the hits of
// `hits.hits` in a search answer, the `docs` of _mget, the `items` of _bulk. Each object's text
// goes to the item function as soon as its closing brace is read; the buffer holds only the
// unconsumed tail (one partial object plus the current chunk). On the way it keeps the top-level
// string members `pit_id` and `_scroll_id`, the literals of `errors` and `timed_out`, and the
// text of the `_shards` object.
class ResponseItemCutter {
public:
  // Returning false stops the cut (feed() then returns false).
  using ItemFunction = std::function<bool(const char* text, size_t length)>;

  // outerKey: the top-level member holding the array ("hits", "docs", "items"); innerKey: the
  // member of that object holding the array ("hits"), or "" when the top-level member is the
  // array itself.
  ResponseItemCutter(std::string outerKey, std::string innerKey, ItemFunction onItem);

  // One chunk; false on malformed nesting or when the item function said stop.
  bool feed(const char* data, size_t length);
  // True when what was fed is one complete JSON value (all nesting closed).
  bool complete() const;
  void reset(); // before a new response

  size_t itemCount() const { return m_items; }
  const std::string& pitId() const { return m_pitId; }
  const std::string& scrollId() const { return m_scrollId; }
  int errors() const { return m_errors; } // -1 not seen, 0 false, 1 true
  bool timedOut() const { return m_timedOut; }
  const std::string& shards() const { return m_shards; } // "" when not seen
  size_t bufferCapacity() const { return m_buffer.capacity(); }
  bool stoppedByItem() const { return m_stoppedByItem; }

private:
  enum class Member : uint8_t { None, Outer, PitId, ScrollId, Errors, TimedOut, Shards, Other };
  static constexpr int kTracked = 8; // container kinds are remembered this deep

  void keyDone();
  void keepShards(const char* text, size_t length);

  std::string m_outerKey, m_innerKey;
  ItemFunction m_onItem;
  std::string m_buffer;
  size_t m_itemStart = 0;
  bool m_inItem = false;
  int m_depth = 0;
  bool m_isObject[kTracked + 1] = {};
  bool m_expectKey[kTracked + 1] = {};
  bool m_inString = false;
  bool m_skipNext = false;
  bool m_stringIsKey = false;
  std::string m_key;
  Member m_top = Member::None;
  bool m_innerMatch = false;
  int m_itemsDepth = -1; // depth inside the items array, -1 outside it
  std::string m_pitId, m_scrollId;
  std::string* m_capture = nullptr;
  int m_errors = -1;
  bool m_timedOut = false;
  std::string m_shards;
  size_t m_shardsFrom = std::string::npos; // where `_shards` starts in the buffer while it is open
  size_t m_items = 0;
  bool m_failed = false;
  bool m_stoppedByItem = false;
  bool m_sawValue = false;
};

} // namespace qz::elasticsearch
