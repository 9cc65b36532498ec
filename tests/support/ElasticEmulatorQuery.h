#pragma once

// Query matching and sort tuples of the emulator's search area.
#include "support/ElasticEmulatorState.h"

namespace qztest::emu {

// One value of a hit's sort tuple.
struct SortValue {
  enum Kind { Null, Int, Dbl, Str } kind = Null;
  int64_t i = 0;
  double d = 0;
  std::string s;
  double num() const { return kind == Int ? double(i) : d; }
};

int compareValues(const SortValue& a, const SortValue& b);
SortValue toSortValue(const Value* v);
void writeSortValue(Writer& w, const SortValue& v);

struct SortKey {
  std::string field; // _shard_doc, _doc, _id, _score or a source field
  bool desc = false;
};

struct Entry {
  std::string index;
  DocPtr doc;
  int64_t position;
  std::vector<SortValue> sort;
};

std::vector<SortKey> parseSort(const Value* sort);
int compareEntries(const Entry& a, const Entry& b, const std::vector<SortKey>& keys);

struct QueryError {
  std::string reason;
};

// Evaluates a query on one document; `source` is parsed on first need. Throws QueryError on a
// query it cannot read.
class Matcher {
public:
  explicit Matcher(const Doc& doc) : m_doc(doc) {}
  bool match(const Value& q);
  const Value* field(const std::string& path);

private:
  bool matchBool(const Value& body);
  bool matchText(const Value* field, const Value& v);

  const Doc& m_doc;
  Document m_source;
  bool m_parsed = false;
};

// The documents matching `query` (all when null), ordered by `keys`.
void runQuery(std::vector<Entry>& out, const std::vector<std::pair<std::string, DocPtr>>& docs, const Value* query,
              const std::vector<SortKey>& keys);

} // namespace qztest::emu
