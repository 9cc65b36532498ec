// The reference side of bench/couch_bench: the same work done with nano, the CouchDB client most
// Node.js users pick. Prints one JSON line: docs, ms, client CPU ms.
//   node couch_nano.js upload|feed SERVER_URL DB DOCS THREADS BATCH PAD
// and a backup loop written with nano, beside couchbackup (JSON lines on stdout, the JSON summary
// line on stderr), and its restore (JSON lines on stdin):
//   node couch_nano.js backup|restore SERVER_URL DB 0 THREADS BATCH 0
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
  } else if (mode === 'backup') {
    // Pages of the feed with every leaf, each page's leaves by _bulk_get, `threads` pages in
    // flight, written in feed order.
    let since = 0, done = false;
    const pending = [];
    const write = (text) => new Promise((resolve) => (process.stdout.write(text) ? resolve() : process.stdout.once('drain', resolve)));
    while (!done || pending.length) {
      while (!done && pending.length < threads) {
        const page = await db.changes({ style: 'all_docs', since, limit: batch });
        since = page.last_seq;
        done = page.results.length < batch;
        const wanted = [];
        for (const r of page.results) for (const c of r.changes) wanted.push({ id: r.id, rev: c.rev });
        pending.push(wanted.length ? db.server.request({ db: dbName, method: 'POST', path: '_bulk_get', qs: { revs: true }, body: { docs: wanted } }) : Promise.resolve({ results: [] }));
      }
      const res = await pending.shift();
      let lines = '';
      for (const r of res.results) for (const d of r.docs) if (d.ok) { delete d.ok._attachments; lines += JSON.stringify(d.ok) + '\n'; ++count; }
      await write(lines);
    }
  } else if (mode === 'restore') {
    const rl = require('readline').createInterface({ input: process.stdin, crlfDelay: Infinity });
    const inFlight = new Set();
    let docsBatch = [];
    const send = async (body) => {
      const p = db.bulk({ docs: body, new_edits: false }).then((res) => { count += body.length - res.length; });
      inFlight.add(p);
      p.finally(() => inFlight.delete(p));
      if (inFlight.size >= threads) await Promise.race(inFlight);
    };
    for await (const line of rl) {
      if (!line.trim()) continue;
      docsBatch.push(JSON.parse(line));
      if (docsBatch.length >= batch) { await send(docsBatch); docsBatch = []; }
    }
    if (docsBatch.length) await send(docsBatch);
    await Promise.all(inFlight);
  } else {
    const res = await db.changes({ include_docs: true, since: 0 });
    for (const r of res.results) if (r.doc) ++count;
  }
  const ms = Number(process.hrtime.bigint() - t0) / 1e6;
  const cpu = process.cpuUsage(cpu0);
  const summary = JSON.stringify({ docs: count, ms, cpuMs: (cpu.user + cpu.system) / 1000 });
  if (mode === 'backup') console.error(summary); else console.log(summary);
}

main().catch((e) => {
  console.error(String(e && e.stack || e));
  process.exit(1);
});
