// The official OpenSearch JS client against the emulator in OpenSearch mode: cluster info,
// helpers.bulk (with retries of rejected items), every document read back through a point in
// time with search_after, the point in time listed and deleted, then a scroll.
// Usage: node check_opensearch.js URL ; prints one JSON line of what it saw.
'use strict'
const { Client } = require('@opensearch-project/opensearch')

async function main () {
  const client = new Client({ node: process.argv[2] })
  const info = (await client.info()).body
  await client.indices.create({ index: 'os', body: { mappings: { properties: { n: { type: 'long' } } } } })
  const docs = Array.from({ length: 1200 }, (_, i) => ({ id: 'o' + i, n: i }))
  const dropped = []
  const result = await client.helpers.bulk({
    datasource: docs,
    onDocument (doc) { return { index: { _index: 'os', _id: doc.id } } },
    flushBytes: 20000,
    retries: 5,
    wait: 10,
    onDrop (d) { dropped.push(d) }
  })
  await client.indices.refresh({ index: 'os' })
  const pit = (await client.createPit({ index: 'os', keep_alive: '1m' })).body
  const listed = (await client.getAllPits()).body.pits.length
  let after
  let ordered = true
  let last = -1
  let seen = 0
  for (;;) {
    const body = { pit: { id: pit.pit_id, keep_alive: '1m' }, size: 500, sort: [{ n: 'asc' }] }
    if (after) body.search_after = after
    const page = (await client.search({ body })).body
    if (page.hits.hits.length === 0) break
    for (const hit of page.hits.hits) {
      ordered = ordered && hit._source.n === last + 1 && hit._id === 'o' + hit._source.n
      last = hit._source.n
      seen++
    }
    after = page.hits.hits[page.hits.hits.length - 1].sort
  }
  const deleted = (await client.deletePit({ body: { pit_id: [pit.pit_id] } })).body.pits
  let scrolled = 0
  let page = (await client.search({ index: 'os', scroll: '1m', size: 500, body: { sort: ['_doc'] } })).body
  while (page.hits.hits.length) {
    scrolled += page.hits.hits.length
    page = (await client.scroll({ body: { scroll: '1m', scroll_id: page._scroll_id } })).body
  }
  await client.clearScroll({ body: { scroll_id: page._scroll_id } })
  console.log(JSON.stringify({
    distribution: info.version.distribution, number: info.version.number,
    successful: result.successful, failed: result.failed, dropped: dropped.length,
    listed, seen, ordered, deleted: deleted.length === 1 && deleted[0].successful, scrolled
  }))
}

main().catch(e => { console.error(e.stack || String(e)); process.exit(1) })
