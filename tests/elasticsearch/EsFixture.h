#pragma once

#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>
#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/http/HttpConnectionPool.h>

#include "support/ElasticEmulator.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

// A fresh emulator per test, its address and a pool.
class EsFixture : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(emulator.start()) << "the Elasticsearch emulator cannot start: " << emulator.lastError();
    server = qz::elasticsearch::ElasticConnectionParameters(qz::Url(emulator.baseUrl()));
  }

  // Sends one GET, PUT or POST to the emulator; returns the status (0: no answer), the answer in `out`.
  int call(const std::string& method, const std::string& path, const std::string& body = "",
           std::string* out = nullptr) {
    httplib::Client client("127.0.0.1", emulator.port());
    client.set_read_timeout(300); // a large bulk under a sanitizer
    const auto r = method == "GET"   ? client.Get(path)
                   : method == "PUT" ? client.Put(path, body, "application/json")
                                     : client.Post(path, body, "application/json");
    if (out)
      *out = r ? r->body : "";
    return r ? r->status : 0;
  }

  // Changes the emulator's faults: inject([](auto& f) { f.noPit = true; }).
  template <typename F> void inject(F change) {
    auto f = emulator.faults();
    change(f);
    emulator.setFaults(f);
  }
  // Waits up to 5 s for `done`.
  template <typename F> static bool eventually(F done) {
    for (int i = 0; i < 500 && !done(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done();
  }

  qztest::ElasticEmulator emulator;
  qz::elasticsearch::ElasticConnectionParameters server;
  qz::http::HttpConnectionPool pool;
  qz::http::HttpConnection connection;
};
