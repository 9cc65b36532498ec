// Print the id and source of every document of an Elasticsearch index that a query matches,
// streamed page by page in bounded memory.
//   example_es_search http://127.0.0.1:9200/orders '{"query":{"term":{"status":"paid"}}}'
#include <HttpTools/HttpTools.h>

#include <iostream>

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::cerr << "usage: example_es_search http://host:9200/INDEX [QUERY_JSON]\n";
    return 2;
  }
  qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  int rc = 1;
  {
    qz::elasticsearch::ElasticConnectionParameters server;
    std::string index, error;
    if (!qz::elasticsearch::ElasticConnectionParameters::BuildFromIndexUrl(&server, &index, argv[1]) || index.empty()) {
      std::cerr << argv[1] << " is not an index URL\n";
    } else {
      qz::http::HttpConnection connection;
      size_t hits = 0;
      // An empty query matches every document; 1000 hits per request.
      const bool ok = qz::elasticsearch::FetchSearchResults(
          connection, server, index, argc == 3 ? argv[2] : "",
          [&hits](qz::elasticsearch::SearchHit& hit) {
            std::cout << hit.id << "\t" << hit.source.toString() << "\n";
            ++hits;
            return true; // false would stop the search
          },
          1000, &error, nullptr);
      if (ok) {
        std::cerr << hits << " hits\n";
        rc = 0;
      } else {
        std::cerr << "search failed: " << error << "\n";
      }
    }
  }
  qz::terminateHttpTools();
  return rc;
}
