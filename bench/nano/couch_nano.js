// The reference side of bench/couch_bench: the same work done with nano, the CouchDB client most
// Node.js users pick. Prints one JSON line: docs, ms, client CPU ms.
//   node couch_nano.js upload|feed SERVER_URL DB DOCS THREADS BATCH PAD
'use strict';
const nano = require('nano');

async function main() {
  const [mode, url, dbName, docsArg, threadsArg, batchArg, padArg] = process.argv.slice(2);
  const docs = Number(docsArg), threads = Number(threadsArg), batch = Number(batchArg), pad = 'x'.repeat(Number(padArg));
  const db = nano(url).use(dbName);
  const cpu0 = process.cpuUsage();
  const t0 = process.hrtime.bigint();
  let count = 0;
  if (mode === 'upload') {
    // `threads` requests in flight, each a batch of `batch` documents, as the C++ uploader does.
    let next = 0;
    async function worker() {
      for (;;) {
        const start = next;
        if (start >= docs) return;
        next = Math.min(docs, start + batch);
        const body = [];
        for (let i = start; i < next; ++i) body.push({ _id: 'doc-' + String(i).padStart(6, '0'), i, pad });
        const res = await db.bulk({ docs: body });
        for (const r of res) if (!r.error) ++count;
      }
    }
    await Promise.all(Array.from({ length: threads }, worker));
  } else {
    const res = await db.changes({ include_docs: true, since: 0 });
    for (const r of res.results) if (r.doc) ++count;
  }
  const ms = Number(process.hrtime.bigint() - t0) / 1e6;
  const cpu = process.cpuUsage(cpu0);
  console.log(JSON.stringify({ docs: count, ms, cpuMs: (cpu.user + cpu.system) / 1000 }));
}

main().catch((e) => {
  console.error(String(e && e.stack || e));
  process.exit(1);
});
