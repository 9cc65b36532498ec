// Bring an Elasticsearch alias in step with a CouchDB database once (catch up, then exit), and
// print the river's counts. Run it again later: it resumes from its checkpoint.
//   example_river_once http://127.0.0.1:5984/shop http://127.0.0.1:9200/shop
#include <HttpTools/HttpTools.h>

#include <iostream>

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: example_river_once http://host:5984/DB http://host:9200/ALIAS\n";
    return 2;
  }
  qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  int rc = 1;
  {
    qz::river::RiverDefinition river;
    if (!qz::couch::CouchConnectionParameters::BuildFromDbUrl(&river.couch, &river.database, argv[1]) ||
        !qz::elasticsearch::ElasticConnectionParameters::BuildFromIndexUrl(&river.elastic, &river.index, argv[2])) {
      std::cerr << "usage: example_river_once http://host:5984/DB http://host:9200/ALIAS\n";
    } else {
      river.name = river.database + "-to-" + river.index; // names its checkpoint and lease
      river.mappingJson = "{}";                           // dynamic mapping
      qz::http::HttpConnectionPool pool;
      qz::river::RiverManager rivers(pool, 1);
      std::string error;
      if (rivers.addRiver(river, &error) && rivers.runOnce(&error, nullptr))
        rc = 0;
      else
        std::cerr << "river failed: " << error << "\n";
      for (const qz::river::RiverStatus& s : rivers.status())
        std::cout << s.name << ": indexed " << s.indexed << ", deleted " << s.deleted << ", checkpoint " << s.lastSeq
                  << "\n";
    }
  }
  qz::terminateHttpTools();
  return rc;
}
