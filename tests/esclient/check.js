// An official JS client against the emulator: cluster info, helpers.bulk (with retries of rejected
// items), every document read back through a point in time with search_after. (The Python check
// covers scrolls, slices and data streams.)
// Usage: node check.js URL elasticsearch|opensearch ; prints one JSON line of what it saw.
'use strict'
const os = process.argv[3] === 'opensearch'
const { Client } = require(os ? '@opensearch-project/opensearch' : '@elastic/elasticsearch')

async function main () {
  const client = new Client({ node: process.argv[2] })
  const call = async (request) => { const r = await request; return os ? r.body : r } // OpenSearch wraps answers
  const info = await call(client.info())
  await client.indices.create({ index: 'c', body: { mappings: { _meta: { owner: 'js' }, properties: { n: { type: 'long' } } } } })
  const docs = Array.from({ length: 1200 }, (_, i) => ({ id: 'c' + i, n: i, text: 'doc "' + i + '" {]' }))
  let dropped = 0
  const result = await client.helpers.bulk({
    datasource: docs, flushBytes: 20000, retries: 5, wait: 10, onDrop () { dropped++ },
    onDocument (doc) { return { index: { _index: 'c', _id: doc.id } } }
  })
  await client.indices.refresh({ index: 'c' })
  const pit = os ? (await call(client.createPit({ index: 'c', keep_alive: '1m' }))).pit_id
    : (await client.openPointInTime({ index: 'c', keep_alive: '1m' })).id
  let after, ordered = true, seen = 0
  for (;;) {
    const body = { pit: { id: pit, keep_alive: '1m' }, size: 500, sort: [{ n: 'asc' }] }
    if (after) body.search_after = after
    const hits = (await call(client.search({ body }))).hits.hits
    if (hits.length === 0) break
    for (const hit of hits) {
      ordered = ordered && hit._source.n === seen && hit._id === 'c' + seen && hit._source.text === docs[seen].text
      seen++
    }
    after = hits[hits.length - 1].sort
  }
  const closed = os ? (await call(client.deletePit({ body: { pit_id: [pit] } }))).pits[0].successful
    : (await client.closePointInTime({ id: pit })).succeeded
  console.log(JSON.stringify({
    distribution: info.version.distribution || 'elasticsearch', number: info.version.number,
    successful: result.successful, failed: result.failed, dropped, seen, ordered, closed
  }))
}

main().catch(e => { console.error(e.stack || String(e)); process.exit(1) })
