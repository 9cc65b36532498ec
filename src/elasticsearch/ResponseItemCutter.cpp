#include <HttpTools/elasticsearch/ResponseItemCutter_p.h>

#include <algorithm>
#include <cstring>

namespace qz::elasticsearch {

ResponseItemCutter::ResponseItemCutter(std::string outerKey, std::string innerKey, ItemFunction onItem)
    : m_outerKey(std::move(outerKey)), m_innerKey(std::move(innerKey)), m_onItem(std::move(onItem)) {}

void ResponseItemCutter::reset() {
  m_buffer.clear();
  m_itemStart = 0;
  m_inItem = false;
  m_depth = 0;
  m_inString = m_skipNext = m_stringIsKey = false;
  m_key.clear();
  m_top = Member::None;
  m_innerMatch = false;
  m_itemsDepth = -1;
  m_pitId.clear();
  m_scrollId.clear();
  m_capture = nullptr;
  m_errors = -1;
  m_timedOut = false;
  m_shards.clear();
  m_shardsFrom = std::string::npos;
  m_items = 0;
  m_failed = m_stoppedByItem = m_sawValue = false;
}

bool ResponseItemCutter::complete() const { return !m_failed && m_sawValue && m_depth == 0 && !m_inString; }

void ResponseItemCutter::keepShards(const char* text, size_t length) {
  // A long failure list is cut: the summary then fails to parse, which still tells a partial answer.
  constexpr size_t kMaxShards = 64 * 1024;
  m_shards.append(text, std::min(length, kMaxShards - std::min(kMaxShards, m_shards.size())));
}

void ResponseItemCutter::keyDone() {
  if (m_depth == 1) {
    if (m_key == m_outerKey)
      m_top = Member::Outer;
    else if (m_key == "pit_id")
      m_top = Member::PitId;
    else if (m_key == "_scroll_id")
      m_top = Member::ScrollId;
    else if (m_key == "errors")
      m_top = Member::Errors;
    else if (m_key == "timed_out")
      m_top = Member::TimedOut;
    else if (m_key == "_shards")
      m_top = Member::Shards;
    else
      m_top = Member::Other;
  } else if (m_depth == 2 && m_top == Member::Outer) {
    m_innerMatch = !m_innerKey.empty() && m_key == m_innerKey;
  }
  m_expectKey[m_depth] = false;
}

bool ResponseItemCutter::feed(const char* data, size_t length) {
  if (m_failed)
    return false;
  if (length == 0)
    return true;
  const size_t scanFrom = m_buffer.size();
  m_buffer.append(data, length);
  const char* const b = m_buffer.data();
  const size_t size = m_buffer.size();

  for (size_t i = scanFrom; i < size; ++i) {
    if (m_inString) {
      if (m_skipNext) {
        m_skipNext = false;
        if (m_capture) {
          // Kept strings are ids: the short escapes are decoded, \u sequences kept as written.
          const char e = b[i];
          switch (e) {
          case 'n':
            m_capture->push_back('\n');
            break;
          case 't':
            m_capture->push_back('\t');
            break;
          case 'r':
            m_capture->push_back('\r');
            break;
          case 'b':
            m_capture->push_back('\b');
            break;
          case 'f':
            m_capture->push_back('\f');
            break;
          case 'u':
            m_capture->append("\\u");
            break;
          default:
            m_capture->push_back(e);
          }
        }
        continue;
      }
      size_t j = i;
      while (j < size && b[j] != '"' && b[j] != '\\')
        ++j;
      if (m_capture)
        m_capture->append(b + i, j - i);
      if (j == size)
        break;
      i = j;
      if (b[i] == '\\') {
        m_skipNext = true;
        continue;
      }
      m_inString = false;
      m_capture = nullptr;
      if (m_stringIsKey)
        keyDone();
      continue;
    }
    const char c = b[i];
    switch (c) {
    case '"': {
      m_inString = true;
      m_sawValue = true;
      m_stringIsKey = false;
      m_capture = nullptr;
      const int d = m_depth;
      if ((d == 1 || d == 2) && m_isObject[d] && m_expectKey[d]) {
        m_stringIsKey = true;
        m_key.clear();
        m_capture = &m_key;
      } else if (d == 1 && m_top == Member::PitId) {
        m_pitId.clear();
        m_capture = &m_pitId;
      } else if (d == 1 && m_top == Member::ScrollId) {
        m_scrollId.clear();
        m_capture = &m_scrollId;
      }
      break;
    }
    case '{':
    case '[':
      if (c == '{' && m_depth == m_itemsDepth && !m_inItem) {
        m_inItem = true;
        m_itemStart = i;
      }
      if (m_depth == 0 && m_sawValue) {
        m_failed = true; // a second value after the first one closed
        return false;
      }
      if (c == '{' && m_depth == 1 && m_top == Member::Shards)
        m_shardsFrom = i;
      ++m_depth;
      m_sawValue = true;
      if (m_depth <= kTracked) {
        m_isObject[m_depth] = c == '{';
        m_expectKey[m_depth] = c == '{';
      }
      if (c == '[' && m_itemsDepth < 0 && m_top == Member::Outer &&
          ((m_innerKey.empty() && m_depth == 2) || (m_innerMatch && m_depth == 3)))
        m_itemsDepth = m_depth;
      break;
    case '}':
    case ']':
      if (m_depth == 0 || (m_depth <= kTracked && m_isObject[m_depth] != (c == '}'))) {
        m_failed = true;
        return false;
      }
      if (c == ']' && m_depth == m_itemsDepth)
        m_itemsDepth = -2; // the items array is over; no second one is cut
      --m_depth;
      if (m_depth == 1)
        m_innerMatch = false;
      if (m_depth == 1 && m_shardsFrom != std::string::npos) {
        keepShards(b + m_shardsFrom, i - m_shardsFrom + 1);
        m_shardsFrom = std::string::npos;
      }
      if (c == '}' && m_inItem && m_depth == m_itemsDepth) {
        m_inItem = false;
        ++m_items;
        if (m_onItem && !m_onItem(b + m_itemStart, i - m_itemStart + 1)) {
          m_stoppedByItem = true;
          m_failed = true;
          return false;
        }
      }
      break;
    case ',':
      if (m_depth >= 1 && m_depth <= kTracked && m_isObject[m_depth]) {
        m_expectKey[m_depth] = true;
        if (m_depth == 1)
          m_top = Member::None;
        else if (m_depth == 2)
          m_innerMatch = false;
      }
      break;
    case 't':
    case 'f':
      if (m_depth == 1 && m_top == Member::Errors) {
        m_errors = c == 't' ? 1 : 0;
        m_top = Member::Other;
      } else if (m_depth == 1 && m_top == Member::TimedOut) {
        m_timedOut = c == 't';
        m_top = Member::Other;
      }
      break;
    default:
      break;
    }
  }
  // Compact once per chunk: only a partial item is still needed.
  if (m_shardsFrom != std::string::npos) {
    keepShards(b + m_shardsFrom, size - m_shardsFrom);
    m_shardsFrom = 0;
    m_buffer.clear();
  } else if (m_inItem) {
    if (m_itemStart)
      m_buffer.erase(0, m_itemStart);
    m_itemStart = 0;
  } else {
    m_buffer.clear();
  }
  return true;
}

} // namespace qz::elasticsearch
