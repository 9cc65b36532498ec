#pragma once

#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>
#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/http/HttpConnectionPool.h>

#include "support/ElasticEmulator.h"

#include <gtest/gtest.h>

#include <string>

// A fresh emulator per test, its address and a pool.
class EsFixture : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(emulator.start()) << "the Elasticsearch emulator cannot start: " << emulator.lastError();
    server = qz::elasticsearch::ElasticConnectionParameters(qz::Url(emulator.baseUrl()));
  }

  // Sends one request to the emulator; returns the status (0: no answer), the answer in `out`.
  int call(const std::string& method, const std::string& path, const std::string& body = "",
           std::string* out = nullptr) {
    httplib::Client client("127.0.0.1", emulator.port());
    client.set_read_timeout(300); // a large bulk under a sanitizer
    const auto r = method == "GET"    ? client.Get(path)
                   : method == "PUT"  ? client.Put(path, body, "application/json")
                   : method == "POST" ? client.Post(path, body, "application/json")
                                      : client.Delete(path);
    if (out)
      *out = r ? r->body : "";
    return r ? r->status : 0;
  }

  qztest::ElasticEmulator emulator;
  qz::elasticsearch::ElasticConnectionParameters server;
  qz::http::HttpConnectionPool pool;
  qz::http::HttpConnection connection;
};
