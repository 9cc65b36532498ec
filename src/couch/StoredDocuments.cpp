#include <HttpTools/couch/StoredDocuments_p.h>

#include <HttpTools/couch/CouchRequest_p.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzJson_p.h>
#include <HttpTools/platform/qzOpenSSLCrypto.h>
#include <HttpTools/platform/qzSystemUtils.h>

#include <openssl/evp.h>

#include <cstdlib>
#include <unordered_map>

namespace qz::couch::detail {

bool FetchDocuments(http::HttpConnectionPool& pool, const CouchConnectionParameters& server, const std::string& db,
                    const std::vector<std::string>& ids, size_t begin, size_t end, std::vector<FetchedRow>& rows,
                    std::string& error, const bool* cancel) {
  const qz::Url url =
      server.toDatabaseUrl(db, {}).toUrl(std::vector<std::string>{"_all_docs"}, {{"include_docs", "true"}});
  const std::string body = json::JsonStringArray("keys", ids.data() + begin, ids.data() + end);
  Reply reply;
  if (!RequestWithRetry(pool, url, http::Method::Post, &body, reply, cancel) || reply.code != 200) {
    error = "reading documents of " + db + ": " + reply.reason();
    return false;
  }
  qzVariantMapImpl answer;
  if (!json::Json2Variant::Convert(reply.body, answer)) {
    error = "reading documents of " + db + ": invalid json answer";
    return false;
  }
  // Rows by key: an id asked twice is answered twice, in order.
  std::unordered_map<std::string, std::vector<qzVariantMapImpl*>> byKey;
  for (qzVariant& row : answer["rows"].asList())
    if (row.isMap())
      byKey[row.toMap().count("key") ? row.toMap().at("key").toString() : std::string()].push_back(&row.asMap());
  std::unordered_map<std::string, size_t> used;
  rows.clear();
  for (size_t i = begin; i < end; ++i) {
    FetchedRow out;
    out.id = ids[i];
    auto found = byKey.find(ids[i]);
    const size_t n = used[ids[i]]++;
    if (found == byKey.end() || n >= found->second.size()) {
      out.error = "not answered";
    } else {
      qzVariantMapImpl& r = *found->second[n];
      auto e = r.find("error");
      const qzVariantMapImpl& value = r["value"].toMap();
      if (e != r.end() && e->second.toString() != "not_found")
        out.error = json::ErrorReasonOf(r);
      else if (e == r.end() && value.count("rev"))
        out.rev = value.at("rev").toString();
      out.deleted = value.count("deleted") && value.at("deleted").toBool();
      if (e == r.end() && !out.deleted && r["doc"].isMap())
        out.doc = std::move(r["doc"]);
    }
    rows.push_back(std::move(out));
  }
  return true;
}

namespace {

int64_t Generation(const std::string& rev) { return std::strtoll(rev.c_str(), nullptr, 10); }

int64_t Generation(const qzVariantMapImpl& doc) {
  auto rev = doc.find("_rev");
  return rev == doc.end() ? 0 : Generation(rev->second.toString());
}

qzVariantMapImpl Content(qzVariantMapImpl doc) {
  for (const char* meta : {"_rev", "_revisions", "_conflicts", "_deleted_conflicts", "_revs_info", "_local_seq",
                           "_attachments", "_deleted"})
    doc.erase(meta);
  return doc;
}

// "md5-" and the base64 MD5 of `data`: the digest the server gives an attachment it stores as sent.
std::string Md5Digest(const std::vector<char>& data) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  std::string b64;
  if (!EVP_Digest(data.data(), data.size(), md, &size, EVP_md5(), nullptr) ||
      !qzOpenSSL::base64Encode(reinterpret_cast<const char*>(md), size, b64, qzOpenSSL::B64_Standard))
    return {};
  return "md5-" + b64;
}

// Attachments sent inline are stored as stubs: compare what the stub tells of them.
bool SameAttachments(const qzVariant& stored, const qzVariant& sent) {
  static const qzVariantMapImpl none;
  const qzVariantMapImpl& have = stored.isMap() ? stored.toMap() : none;
  const qzVariantMapImpl& want = sent.isMap() ? sent.toMap() : none;
  if (have.size() != want.size())
    return false;
  for (const auto& [name, att] : want) {
    auto got = have.find(name);
    if (got == have.end() || !att.isMap() || !got->second.isMap())
      return false;
    const qzVariantMapImpl& a = att.toMap();
    const qzVariantMapImpl& g = got->second.toMap();
    if (a.count("stub") && a.at("stub").toBool())
      continue;
    std::vector<char> data;
    if (!a.count("data") || !qzOpenSSL::base64Decode(a.at("data").toString(), data, qzOpenSSL::B64_Standard))
      return false;
    if ((a.count("content_type") && (!g.count("content_type") || g.at("content_type") != a.at("content_type"))) ||
        !g.count("length") || g.at("length").toInt64() != int64_t(data.size()))
      return false;
    // A compressed attachment's digest is of its stored (compressed) bytes: only its length tells.
    if (!g.count("encoding") && (!g.count("digest") || g.at("digest").toString() != Md5Digest(data)))
      return false;
  }
  return true;
}

} // namespace

bool HoldsWhatWasSent(const FetchedRow& stored, const qzVariantMapImpl& sent) {
  auto deleted = sent.find("_deleted");
  if (deleted != sent.end() && deleted->second.toBool())
    return stored.deleted && Generation(stored.rev) == Generation(sent) + 1;
  if (!stored.doc.isMap())
    return false;
  const qzVariantMapImpl& doc = stored.doc.toMap();
  if (sent.count("_rev") && Generation(doc) != Generation(sent) + 1)
    return false;
  static const qzVariant none;
  auto attachments = [](const qzVariantMapImpl& d) -> const qzVariant& {
    auto a = d.find("_attachments");
    return a == d.end() ? none : a->second;
  };
  return SameAttachments(attachments(doc), attachments(sent)) && Content(doc) == Content(sent);
}

bool AlreadyStored(http::HttpConnectionPool& pool, const CouchConnectionParameters& server, const std::string& db,
                   const std::map<std::string, qzVariantMapImpl>& sent, std::set<std::string>& stored,
                   std::string& error, const bool* cancel) {
  std::vector<std::string> ids;
  for (const auto& entry : sent)
    ids.push_back(entry.first);
  std::vector<FetchedRow> rows;
  constexpr size_t kBatch = 200;
  for (size_t begin = 0; begin < ids.size(); begin += kBatch) {
    if (!FetchDocuments(pool, server, db, ids, begin, std::min(ids.size(), begin + kBatch), rows, error, cancel))
      return false;
    for (const FetchedRow& row : rows)
      if (HoldsWhatWasSent(row, sent.at(row.id)))
        stored.insert(row.id);
  }
  return true;
}

std::string NewDocumentId() {
  unsigned char bytes[16];
  qzSystemUtils::Rand(reinterpret_cast<char*>(bytes), sizeof bytes);
  bytes[6] = (bytes[6] & 0x0f) | 0x40; // version 4
  bytes[8] = (bytes[8] & 0x3f) | 0x80; // RFC 4122 variant
  static const char digits[] = "0123456789abcdef";
  std::string id;
  for (unsigned char b : bytes) {
    id.push_back(digits[b >> 4]);
    id.push_back(digits[b & 15]);
  }
  return id;
}

} // namespace qz::couch::detail
