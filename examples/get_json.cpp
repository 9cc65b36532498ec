// Fetch a JSON document through a connection pool and print one of its fields.
//   example_get_json http://127.0.0.1:5984/
#include <HttpTools/HttpTools.h>

#include <iostream>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: example_get_json URL\n";
    return 2;
  }
  // Once per process, before any other call: verify certificates, any address family, no proxy.
  qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  int rc = 1;
  {
    qz::http::HttpConnectionPool pool; // after initialisation: it ages idle connections
    qz::Url url;
    std::string error, body;
    if (!url.fromEncodedUtf8String(argv[1], &error, false)) {
      std::cerr << error << "\n";
    } else {
      qz::http::HttpConnectionLocker conn(pool, url); // borrowed until the end of the scope
      qz::http::HttpHelpers::HttpResult result;
      result.errorMessage = &error;
      qz::qzVariantMapImpl doc;
      if (!qz::http::HttpHelpers::HttpGetJson(*conn, url, body, &result))
        std::cerr << "GET " << url.toDisplayableUrl() << " failed (" << result.httpCode << "): " << error << "\n";
      else if (!qz::json::Json2Variant::Convert(body, doc))
        std::cerr << "not a JSON object\n";
      else {
        for (const auto& [name, value] : doc)
          std::cout << name << " = " << value.toString() << "\n";
        rc = 0;
      }
    }
  }
  qz::terminateHttpTools();
  return rc;
}
