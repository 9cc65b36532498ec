// httptools couch backup | restore | find: a database to JSON lines and back, and Mango queries.

#include "Commands.h"

#include <HttpTools/HttpTools.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace httptools {

ConnectionOptions& Conn(); // couch_tools_cmd.cpp
bool SplitDbUrl(const std::string& dbUrl, qz::couch::CouchConnectionParameters& server, std::string& db,
                const char* command);

namespace {

// A failed request gives curl's code for its kind; other failures (data, output) give 1.
int ExitCodeOf(bool ok, const qz::http::TransferError& transfer) {
  return ok ? kExitOk : transfer.ok() ? kExitFailure : ExitCodeOfTransferError(transfer);
}

struct BackupArgs {
  std::string dbUrl, log;
  bool attachments = false;
  unsigned threads = 4;
  size_t batch = 500;
};

// The last complete line of the log: the bytes of output written, and the checkpoint after them.
bool ReadLog(const std::string& path, unsigned long long& bytes, std::string& seq) {
  std::ifstream in(path);
  bytes = 0;
  seq = "0";
  for (std::string line; std::getline(in, line) && !in.eof();) { // a torn last line has no newline
    const size_t space = line.find(' ');
    if (space == std::string::npos || space == 0)
      return false;
    bytes = std::stoull(line.substr(0, space));
    seq = line.substr(space + 1);
  }
  return true;
}

void RunBackup(const BackupArgs& a) {
  qz::couch::CouchConnectionParameters server;
  std::string db;
  if (!SplitDbUrl(a.dbUrl, server, db, "backup"))
    return;
  qz::couch::BackupOptions o;
  o.attachments = a.attachments;
  o.threads = a.threads;
  o.batchSize = a.batch;
  unsigned long long bytes = 0;
  std::ofstream log;
  if (!a.log.empty()) {
    if (!ReadLog(a.log, bytes, o.since)) {
      std::cerr << "httptools couch backup: " << a.log << " is not a backup log\n";
      exitCode = kExitFailure;
      return;
    }
    // Resuming into a file (opened with >>): drop what a broken run wrote after its last
    // logged batch, so that no line is torn.
    struct stat st {};
    if (bytes > 0 && fstat(STDOUT_FILENO, &st) == 0 && S_ISREG(st.st_mode)) {
      if ((unsigned long long)st.st_size < bytes) {
        std::cerr << "httptools couch backup: the output holds less than " << a.log
                  << " says was written: resume by appending (>>) to the same file\n";
        exitCode = kExitFailure;
        return;
      }
      if ((unsigned long long)st.st_size > bytes && ftruncate(STDOUT_FILENO, off_t(bytes)) != 0) {
        std::cerr << "httptools couch backup: cannot cut the output back: " << std::strerror(errno) << "\n";
        exitCode = kExitFailure;
        return;
      }
    }
    log.open(a.log, std::ios::app);
    if (!log) {
      std::cerr << "httptools couch backup: cannot write " << a.log << "\n";
      exitCode = kExitFailure;
      return;
    }
  }
  qz::http::HttpConnectionPool pool;
  Prepare(pool);
  qz::couch::BackupStats stats;
  std::string error;
  const bool ok = qz::couch::BackupDatabase(
      pool, server, db, o, std::cout,
      [&](const std::string& seq, uint64_t written) {
        if (log.is_open())
          log << bytes + written << ' ' << seq << std::endl;
      },
      &stats, &error, InterruptFlag());
  std::string summary;
  qz::json::Json2Variant::Convert(
      qz::qzVariantMapImpl{{"documents", stats.documents}, {"revisions", stats.revisions}, {"last_seq", stats.lastSeq}},
      summary, false);
  std::cerr << summary << "\n";
  if (!ok)
    std::cerr << "httptools couch backup: " << error << "\n";
  exitCode = ExitCodeOf(ok, stats.transfer);
}

struct RestoreArgs {
  std::string dbUrl, file = "-";
  unsigned threads = 4;
  size_t batch = 500;
};

void RunRestore(const RestoreArgs& a) {
  qz::couch::CouchConnectionParameters server;
  std::string db;
  if (!SplitDbUrl(a.dbUrl, server, db, "restore"))
    return;
  std::ifstream file;
  if (a.file != "-") {
    file.open(a.file);
    if (!file) {
      std::cerr << "httptools couch restore: cannot read " << a.file << "\n";
      exitCode = kExitFailure;
      return;
    }
  }
  qz::http::HttpConnectionPool pool;
  Prepare(pool);
  qz::couch::RestoreStats stats;
  std::string error;
  const bool ok = qz::couch::RestoreDatabase(pool, server, db, a.file == "-" ? std::cin : file, a.threads, a.batch,
                                             &stats, &error, InterruptFlag());
  for (const auto& [id, reason] : stats.failures)
    std::cerr << id << ": " << reason << "\n";
  if (!ok)
    std::cerr << "httptools couch restore: " << error << "\n";
  std::cout << "{\"revisions\":" << stats.lines << ",\"stored\":" << stats.stored
            << ",\"failed\":" << stats.failures.size() << ",\"invalid\":" << stats.invalid << "}\n";
  exitCode = ok ? kExitOk : kExitFailure;
}

struct FindArgs {
  std::string dbUrl, selector;
  std::vector<std::string> fields, sort;
  long limit = -1;
  size_t page = 1000;
};

void RunFind(const FindArgs& a) {
  qz::couch::CouchConnectionParameters server;
  std::string db;
  if (!SplitDbUrl(a.dbUrl, server, db, "find"))
    return;
  qz::couch::FindQuery q;
  q.selector = a.selector;
  q.fields = a.fields;
  q.limit = a.limit;
  q.pageSize = a.page;
  for (const std::string& s : a.sort) {
    const bool desc = s.ends_with(":desc");
    q.sort.emplace_back(desc || s.ends_with(":asc") ? s.substr(0, s.rfind(':')) : s, desc);
  }
  qz::http::HttpConnectionPool pool;
  Prepare(pool);
  qz::couch::FindStats stats;
  std::string error;
  const bool ok = qz::couch::FindDocuments(
      pool, server, db, q,
      [](qz::qzVariant& doc) {
        std::string text;
        qz::json::Json2Variant::Convert(doc, text, false);
        std::cout << text << '\n';
        return bool(std::cout);
      },
      &stats, &error, InterruptFlag());
  std::cout.flush();
  if (!stats.warning.empty())
    std::cerr << "httptools couch find: the server warns: " << stats.warning << "\n";
  if (!ok)
    std::cerr << "httptools couch find: " << error << "\n";
  exitCode = ExitCodeOf(ok, stats.transfer);
}

} // namespace

void AddCouchDataCommands(CLI::App& couch) {
  auto b = std::make_shared<BackupArgs>();
  CLI::App* backup = couch.add_subcommand(
      "backup",
      "write every revision of a database (leaves, conflicts, deleted ones) as JSON lines to standard output");
  backup->add_option("url", b->dbUrl, "database URL (http://host:port/db)")->required();
  backup->add_flag("--attachments", b->attachments, "include attachments, base64 (default: left out)");
  backup->add_option("--log", b->log,
                     "log of the batches written; an existing one resumes after its last batch (append the output "
                     "with >> to the same file)");
  backup->add_option("--threads", b->threads, "_bulk_get requests in flight (default 4)")->check(CLI::Range(1, 64));
  backup->add_option("--batch", b->batch, "changes per batch (default 500)")->check(CLI::Range(1, 100000));
  backup->callback([b] { RunBackup(*b); });

  auto r = std::make_shared<RestoreArgs>();
  CLI::App* restore =
      couch.add_subcommand("restore", "write a backup's JSON lines into a database, keeping revisions and conflicts");
  restore->add_option("url", r->dbUrl, "database URL (the database must exist)")->required();
  restore->add_option("file", r->file, "backup file, - for standard input (default)");
  restore->add_option("--threads", r->threads, "_bulk_docs requests in flight (default 4)")->check(CLI::Range(1, 64));
  restore->add_option("--batch", r->batch, "revisions per request (default 500)")->check(CLI::Range(1, 100000));
  restore->callback([r] { RunRestore(*r); });

  auto f = std::make_shared<FindArgs>();
  CLI::App* find = couch.add_subcommand("find", "print the documents a Mango selector matches, one JSON line each");
  find->add_option("url", f->dbUrl, "database URL")->required();
  find->add_option("selector", f->selector, "the selector, a JSON object, e.g. '{\"type\":\"order\"}'")->required();
  find->add_option("--fields", f->fields, "only these fields, comma-separated")->delimiter(',');
  find->add_option("--sort", f->sort, "sort by these fields, comma-separated, each FIELD or FIELD:desc")
      ->delimiter(',');
  find->add_option("--limit", f->limit, "at most N documents")->check(CLI::NonNegativeNumber);
  find->add_option("--page", f->page, "documents per request (default 1000)")->check(CLI::Range(1, 100000));
  find->callback([f] { RunFind(*f); });

  for (CLI::App* sub : {backup, restore, find}) {
    sub->set_help_flag("-h,--help", "print this help and exit");
    AddConnectionOptions(sub, Conn());
  }
}

} // namespace httptools
