// The official JS client against the emulator: helpers.bulk (with retries of rejected items),
// then every document read back through a point in time with search_after.
// Usage: node check.js URL ; prints one JSON line of what it saw.
'use strict'
const { Client } = require('@elastic/elasticsearch')

async function main () {
  const client = new Client({ node: process.argv[2] })
  await client.indices.create({ index: 'js', mappings: { _meta: { owner: 'js' }, properties: { n: { type: 'long' } } } })
  const docs = Array.from({ length: 1500 }, (_, i) => ({ id: 'j' + i, n: i, text: 'doc "' + i + '" {]' }))
  const dropped = []
  const result = await client.helpers.bulk({
    datasource: docs,
    onDocument (doc) { return { index: { _index: 'js', _id: doc.id } } },
    flushBytes: 20000,
    retries: 5,
    wait: 10,
    onDrop (d) { dropped.push(d) }
  })
  await client.indices.refresh({ index: 'js' })
  const pit = await client.openPointInTime({ index: 'js', keep_alive: '1m' })
  const ids = new Set()
  let after
  let pages = 0
  let ordered = true
  let last = -1
  for (;;) {
    const page = await client.search({ pit: { id: pit.id, keep_alive: '1m' }, size: 400, sort: [{ n: 'asc' }], search_after: after })
    if (page.hits.hits.length === 0) break
    for (const hit of page.hits.hits) {
      ids.add(hit._id)
      ordered = ordered && hit._source.n === last + 1 && hit._id === 'j' + hit._source.n
      last = hit._source.n
    }
    after = page.hits.hits[page.hits.hits.length - 1].sort
    pages++
  }
  await client.closePointInTime({ id: pit.id })
  const count = (await client.count({ index: 'js' })).count
  const mapping = await client.indices.getMapping({ index: 'js' })
  console.log(JSON.stringify({
    successful: result.successful, failed: result.failed, dropped: dropped.length, ids: ids.size, pages, ordered, count,
    meta: mapping.js.mappings._meta
  }))
}

main().catch(e => { console.error(e.stack || String(e)); process.exit(1) })
