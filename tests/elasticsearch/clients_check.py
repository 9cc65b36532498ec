# The official Python client (7.17) against the emulator: helpers.bulk with retries of rejected
# items, helpers.scan over a scroll and in two slices, mget, the mapping's _meta, a data stream; then gzip
# bodies with an API key the emulator demands, and a scan that a partial answer stops. Usage: python3 clients_check.py URL
import json
import sys
import urllib.request

from elasticsearch import Elasticsearch, helpers

es = Elasticsearch(sys.argv[1])
es.indices.create(index="py", body={"mappings": {"_meta": {"owner": "py"}, "properties": {"n": {"type": "long"}}}})
actions = ({"_index": "py", "_id": str(i), "_source": {"n": i, "text": 'doc "%d" {]' % i}} for i in range(2000))
# Per-item 429s are retried only with raise_on_error=False: otherwise the first one raises.
ok, errors = helpers.bulk(es, actions, chunk_size=500, max_retries=5, initial_backoff=0.01, max_backoff=0.05,
                          raise_on_error=False)
es.indices.refresh(index="py")
scanned = [h for h in helpers.scan(es, index="py", query={"query": {"match_all": {}}}, size=300)]
ids = sorted(int(h["_id"]) for h in scanned)
intact = all(h["_source"]["n"] == int(h["_id"]) and h["_source"]["text"] == 'doc "%s" {]' % h["_id"] for h in scanned)
docs = es.mget(index="py", body={"ids": ["5", "1999", "nope"]})["docs"]
halves = [{h["_id"] for h in helpers.scan(es, index="py", query={"slice": {"id": s, "max": 2}}, size=500)} for s in (0, 1)]
# A data stream made by its first creates; an index op is refused; a search on its name reads them
# from its backing index.
es.indices.put_index_template(name="logs", body={"index_patterns": ["logs-*"], "data_stream": {}})
ops = [{"_op_type": "create", "_index": "logs-py", "_source": {"@timestamp": n}} for n in (1, 2, 3)]
created, refused = helpers.bulk(es, ops + [{"_index": "logs-py", "_id": "x", "_source": {"@timestamp": 4}}], raise_on_error=False)
hits = es.search(index="logs-py", body={"query": {"match_all": {}}})["hits"]["hits"]
stream = [created, refused[0]["index"]["error"]["type"], len(hits), all(h["_index"].startswith(".ds-logs-py-") for h in hits)]


def faults(**f):
    urllib.request.urlopen(urllib.request.Request(sys.argv[1] + "/_emulator/faults", json.dumps(f).encode(), method="PUT"))


faults(require_header="Authorization: ApiKey aWQ6a2V5")
es = Elasticsearch(sys.argv[1], http_compress=True, api_key=("id", "key"))
zipped, _ = helpers.bulk(es, ({"_index": "gz", "_id": str(i), "_source": {"n": i}} for i in range(300)))
faults(partial_search_pages=1)
try:
    partial = "not seen: %d hits" % len(list(helpers.scan(es, index="gz", size=100)))
except helpers.ScanError as e:
    partial = str(e)
print(json.dumps({"ok": ok, "errors": len(errors), "count": es.count(index="py")["count"], "distinct": len(set(ids)),
                  "intact": intact and len(ids) == 2000, "found": [d["found"] for d in docs],
                  "sliced": [len(halves[0] | halves[1]), len(halves[0] & halves[1]), min(map(len, halves)) > 0],
                  "meta": es.indices.get_mapping(index="py")["py"]["mappings"]["_meta"], "zipped": zipped,
                  "zipped_count": es.count(index="gz")["count"], "partial": partial, "stream": stream},
                 separators=(",", ":")))
