#include "support/PouchDbTest.h"

#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/platform/qzJson.h>

#include <algorithm>

namespace qztest {

PouchDbServer& SharedPouchDb() {
  static PouchDbServer server;
  return server;
}

void PouchDbTest::SetUpTestSuite() {
  qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  s_server = &SharedPouchDb();
  s_pool = new qz::http::HttpConnectionPool;
}

void PouchDbTest::TearDownTestSuite() {
  delete s_pool;
  s_pool = nullptr;
  qz::terminateHttpTools();
}

void PouchDbTest::SetUp() {
  ASSERT_TRUE(s_server->ok()) << s_server->error();
  db = ::testing::UnitTest::GetInstance()->current_test_info()->name();
  std::transform(db.begin(), db.end(), db.begin(), [](unsigned char c) { return char(std::tolower(c)); });
  s_server->request("DELETE", "/" + db); // left by an earlier repeat
  ASSERT_EQ(s_server->request("PUT", "/" + db), 201);
}

qz::couch::CouchConnectionParameters PouchDbTest::server() const {
  return qz::couch::CouchConnectionParameters(qz::Url(s_server->baseUrl()));
}

qz::qzVariant PouchDbTest::get(const std::string& path, int* status) const {
  std::string text;
  const int code = s_server->request("GET", path, {}, &text);
  if (status)
    *status = code;
  qz::qzVariant out;
  qz::json::Json2Variant::Convert(text.data(), text.size(), out);
  return out;
}

} // namespace qztest
