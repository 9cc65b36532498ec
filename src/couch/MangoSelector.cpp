#include <HttpTools/couch/MangoSelector.h>

#include <cmath>
#include <regex>
#include <vector>

namespace qz::couch {

namespace {

// Rank of a type in CouchDB's collation order.
int Rank(const qzVariant& v) {
  switch (v.type()) {
  case qzVariant::Null:
    return 0;
  case qzVariant::Bool:
    return 1;
  case qzVariant::Int64:
  case qzVariant::Double:
    return 2;
  case qzVariant::String:
    return 3;
  case qzVariant::List:
    return 4;
  default:
    return 5;
  }
}

int Compare(const qzVariant& a, const qzVariant& b) {
  const int ra = Rank(a), rb = Rank(b);
  if (ra != rb)
    return ra < rb ? -1 : 1;
  switch (ra) {
  case 1:
    return int(a.toBool()) - int(b.toBool());
  case 2:
    if (a.isInt64() && b.isInt64())
      return a.toInt64() < b.toInt64() ? -1 : a.toInt64() > b.toInt64();
    return a.toDouble() < b.toDouble() ? -1 : a.toDouble() > b.toDouble();
  case 3:
    return a.stringPtr()->compare(*b.stringPtr()) < 0 ? -1 : *a.stringPtr() != *b.stringPtr();
  case 4: {
    const auto &x = a.toList(), &y = b.toList();
    for (size_t i = 0; i < x.size() && i < y.size(); ++i)
      if (const int c = Compare(x[i], y[i]))
        return c;
    return x.size() < y.size() ? -1 : x.size() > y.size();
  }
  case 5: {
    const auto &x = a.toMap(), &y = b.toMap();
    auto i = x.begin(), j = y.begin();
    for (; i != x.end() && j != y.end(); ++i, ++j) {
      if (i->first != j->first)
        return i->first < j->first ? -1 : 1;
      if (const int c = Compare(i->second, j->second))
        return c;
    }
    return x.size() < y.size() ? -1 : x.size() > y.size();
  }
  default:
    return 0;
  }
}

std::vector<std::string> SplitPath(const std::string& field) {
  std::vector<std::string> parts(1);
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 1 < field.size() && field[i + 1] == '.')
      parts.back().push_back(field[++i]);
    else if (field[i] == '.')
      parts.emplace_back();
    else
      parts.back().push_back(field[i]);
  }
  return parts;
}

// The value at `path` below `doc`, or null when there is none.
const qzVariant* Field(const qzVariant& doc, const std::vector<std::string>& path) {
  const qzVariant* at = &doc;
  for (const std::string& part : path) {
    if (at->isMap()) {
      auto it = at->toMap().find(part);
      if (it == at->toMap().end())
        return nullptr;
      at = &it->second;
    } else if (at->isList() && !part.empty() && part.find_first_not_of("0123456789") == std::string::npos &&
               part.size() < 10) {
      const size_t i = std::stoul(part);
      if (i >= at->toList().size())
        return nullptr;
      at = &at->toList()[i];
    } else {
      return nullptr;
    }
  }
  return at;
}

class Matcher {
public:
  std::string error;

  bool fail(const std::string& why) {
    if (error.empty())
      error = why;
    return false;
  }

  // A selector object against a value: field conditions and combinators, all of which must hold.
  bool selector(const qzVariant& sel, const qzVariant& value) {
    if (!sel.isMap())
      return fail("a selector must be an object");
    for (const auto& [key, arg] : sel.toMap()) {
      bool ok;
      if (key == "$and" || key == "$or" || key == "$nor") {
        if (!arg.isList())
          return fail(key + " takes an array of selectors");
        const bool any = key != "$and";
        ok = !any;
        for (const qzVariant& s : arg.toList()) {
          const bool m = selector(s, value);
          if (!error.empty())
            return false;
          if (m == any) {
            ok = any;
            break;
          }
        }
        ok = key == "$nor" ? !ok : ok;
      } else if (key == "$not") {
        ok = !selector(arg, value);
      } else if (key.starts_with("$")) {
        return fail("unknown operator " + key);
      } else {
        ok = field(SplitPath(key), arg, value);
      }
      if (!error.empty() || !ok)
        return false;
    }
    return true;
  }

  // The condition `cond` on the field at `path` of `value`.
  bool field(const std::vector<std::string>& path, const qzVariant& cond, const qzVariant& value) {
    const bool operators = cond.isMap() && !cond.toMap().empty() && cond.toMap().begin()->first.starts_with("$");
    if (cond.isMap() && !cond.toMap().empty() && !operators) {
      // {"a": {"b": 1}} is {"a.b": 1}
      for (const auto& [key, sub] : cond.toMap()) {
        if (key.starts_with("$"))
          return fail("operator " + key + " mixed with fields");
        std::vector<std::string> longer = path;
        for (std::string& part : SplitPath(key))
          longer.push_back(std::move(part));
        if (!field(longer, sub, value))
          return false;
      }
      return true;
    }
    const qzVariant* v = Field(value, path);
    if (!operators)
      return v && Compare(*v, cond) == 0;
    for (const auto& [op, arg] : cond.toMap())
      if (!apply(op, arg, v))
        return false;
    return true;
  }

  bool apply(const std::string& op, const qzVariant& arg, const qzVariant* v) {
    if (op == "$exists") {
      if (!arg.isBool())
        return fail("$exists takes a boolean");
      return (v != nullptr) == arg.toBool();
    }
    if (op == "$not") {
      if (!arg.isMap())
        return fail("$not takes an object");
      return v && !field({}, arg, *v) && error.empty();
    }
    if (!v) {
      checkArgument(op, arg);
      return false;
    }
    if (op == "$eq")
      return Compare(*v, arg) == 0;
    if (op == "$ne")
      return Compare(*v, arg) != 0;
    if (op == "$gt")
      return Compare(*v, arg) > 0;
    if (op == "$gte")
      return Compare(*v, arg) >= 0;
    if (op == "$lt")
      return Compare(*v, arg) < 0;
    if (op == "$lte")
      return Compare(*v, arg) <= 0;
    if (!checkArgument(op, arg))
      return false;
    if (op == "$in" || op == "$nin") {
      bool found = false;
      for (const qzVariant& a : arg.toList()) {
        if (v->isList()) {
          for (const qzVariant& e : v->toList())
            found = found || Compare(e, a) == 0;
        } else {
          found = found || Compare(*v, a) == 0;
        }
      }
      return found == (op == "$in");
    }
    if (op == "$type") {
      static const char* const names[] = {"null", "boolean", "number", "number", "string", "object", "array"};
      return *arg.stringPtr() == names[v->type()];
    }
    if (op == "$size")
      return v->isList() && int64_t(v->toList().size()) == arg.toInt64();
    if (op == "$mod") {
      const int64_t d = arg.toList()[0].toInt64(), r = arg.toList()[1].toInt64();
      return v->isInt64() && v->toInt64() % d == r;
    }
    if (op == "$regex") {
      try {
        return v->isString() && std::regex_search(*v->stringPtr(), std::regex(*arg.stringPtr()));
      } catch (const std::regex_error&) {
        return fail("invalid $regex " + *arg.stringPtr());
      }
    }
    if (op == "$all") {
      if (!v->isList())
        return false;
      for (const qzVariant& a : arg.toList()) {
        bool found = false;
        for (const qzVariant& e : v->toList())
          found = found || Compare(e, a) == 0;
        if (!found)
          return false;
      }
      return true;
    }
    if (op == "$elemMatch" || op == "$allMatch") {
      if (!v->isList() || v->toList().empty())
        return false;
      const bool all = op == "$allMatch";
      for (const qzVariant& e : v->toList()) {
        const bool m = element(arg, e);
        if (!error.empty())
          return false;
        if (m != all)
          return !all;
      }
      return all;
    }
    // $keyMapMatch: a key of the object matches
    if (!v->isMap())
      return false;
    for (const auto& entry : v->toMap())
      if (element(arg, qzVariant(entry.first)))
        return true;
    return false;
  }

  // An element of an array against a sub-selector: operators apply to the element itself.
  bool element(const qzVariant& sel, const qzVariant& e) {
    if (sel.isMap() && !sel.toMap().empty() && sel.toMap().begin()->first.starts_with("$") &&
        sel.toMap().begin()->first != "$and" && sel.toMap().begin()->first != "$or" &&
        sel.toMap().begin()->first != "$nor" && sel.toMap().begin()->first != "$not")
      return field({}, sel, e);
    return selector(sel, e);
  }

  bool checkArgument(const std::string& op, const qzVariant& arg) {
    const bool ok = ((op == "$in" || op == "$nin" || op == "$all") && arg.isList()) ||
                    (op == "$type" && arg.isString() &&
                     std::string(" null boolean number string object array ").find(" " + *arg.stringPtr() + " ") !=
                         std::string::npos) ||
                    (op == "$size" && arg.isInt64()) ||
                    (op == "$mod" && arg.isList() && arg.toList().size() == 2 && arg.toList()[0].isInt64() &&
                     arg.toList()[1].isInt64() && arg.toList()[0].toInt64() != 0) ||
                    (op == "$regex" && arg.isString()) ||
                    ((op == "$elemMatch" || op == "$allMatch" || op == "$keyMapMatch") && arg.isMap()) || op == "$eq" ||
                    op == "$ne" || op == "$gt" || op == "$gte" || op == "$lt" || op == "$lte";
    if (!ok) {
      const bool known = std::string(" $in $nin $all $type $size $mod $regex $elemMatch $allMatch $keyMapMatch ")
                             .find(" " + op + " ") != std::string::npos;
      return fail(known ? "bad argument of " + op : "unknown operator " + op);
    }
    return true;
  }
};

} // namespace

bool MatchesSelector(const qzVariant& selector, const qzVariant& doc, std::string* error) {
  Matcher m;
  const bool ok = m.selector(selector, doc);
  if (error)
    *error = m.error;
  return ok && m.error.empty();
}

} // namespace qz::couch
