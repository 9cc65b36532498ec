#pragma once

#include "support/PouchDbFixture.h"

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzVariant.h>

#include <gtest/gtest.h>

#include <string>

namespace qztest {

// One pouchdb-server for the whole test program, started on first use and stopped at exit.
PouchDbServer& SharedPouchDb();

// A case on the shared server: the library started around the suite, a pool, and a fresh
// database named after the case.
class PouchDbTest : public ::testing::Test {
protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void SetUp() override;

  qz::couch::CouchConnectionParameters server() const;
  // A JSON answer read without the code under test.
  qz::qzVariant get(const std::string& path, int* status = nullptr) const;

  static inline PouchDbServer* s_server = nullptr;
  static inline qz::http::HttpConnectionPool* s_pool = nullptr;
  std::string db;
};

} // namespace qztest
