// Fetch several URLs at once over one multi handle; print each status and body size.
//   example_multi_get http://127.0.0.1:5984/ http://127.0.0.1:5984/_all_dbs
#include <HttpTools/HttpTools.h>

#include <iostream>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: example_multi_get URL...\n";
    return 2;
  }
  qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  int failed = 0;
  {
    qz::http::HttpMultiConnection multi(8); // up to 8 transfers at once, the others queue
    for (int i = 1; i < argc; ++i) {
      const std::string url = argv[i];
      qz::http::HttpMultiConnection::Request request; // a GET expecting 200 unless told otherwise
      request.url = qz::Url(url);
      request.onFinished = [url, &failed](qz::http::HttpMultiConnection::Response& r) {
        // Called once per request, on the thread that runs perform().
        if (r.success) {
          std::cout << url << ": " << r.httpCode << ", " << r.body.size() << " bytes\n";
        } else {
          ++failed;
          std::cerr << url << ": " << r.errorMessage << "\n";
        }
      };
      multi.addRequest(std::move(request));
    }
    multi.perform(); // returns once every request was called back
  }
  qz::terminateHttpTools();
  return failed == 0 ? 0 : 1;
}
