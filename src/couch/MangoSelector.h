#pragma once

#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzVariant.h>

#include <string>

namespace qz::couch {

/// Whether `doc` matches a Mango selector (the "selector" of _find and of filter=_selector) the
/// way CouchDB decides it, so that a client can apply the feed's filter itself: to a document
/// read another way, or to tell that an edit made a document stop matching (CouchDB's filtered
/// feed never sends that edit). Operators: $eq $ne $gt $gte $lt $lte $in $nin $exists $type
/// $size $mod $regex $all $elemMatch $allMatch $keyMapMatch, and $and $or $nor $not. A plain
/// value is $eq (an array is not searched: use $elemMatch or $all); a field path is dotted
/// ("a.b", "a\\.b" for a key with a dot, digits index an array). Values of different types
/// compare in CouchDB's order (null < booleans < numbers < strings < arrays < objects); strings
/// compare by their bytes, not by ICU collation as CouchDB's range operators do. A missing field
/// matches only {"$exists": false}.
///
/// False when the document does not match, and also, with `error` set, when the selector cannot
/// be read (an unknown operator, an argument of the wrong type, an invalid regular expression).
HTTPTOOLS_API bool MatchesSelector(const qzVariant& selector, const qzVariant& doc, std::string* error = nullptr);

} // namespace qz::couch
