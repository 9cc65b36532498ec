#pragma once

#include <HttpTools/elasticsearch/ElasticConnectionParameters.h>
#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/http/HttpHelpers.h>

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

  // Sends one request to the emulator; returns the status, the answer in `out`. A large bulk keeps
  // the emulator quiet for longer than the low-speed limit under a sanitizer: no limit here.
  int call(const std::string& method, const std::string& path, const std::string& body = "",
           std::string* out = nullptr) {
    std::string ignored;
    std::string& text = out ? *out : ignored;
    qz::http::HttpHelpers::HttpResult result;
    std::string error;
    result.body = &text;
    result.errorMessage = &error;
    const qz::Url url(emulator.baseUrl() + path);
    const std::list<std::string> json{"Content-Type: application/json"};
    qz::http::HttpConnection::ConnectionParameters patient;
    patient.lowSpeedTime = 0;
    if (method == "GET")
      qz::http::HttpHelpers::HttpGet(connection, url, &result, &patient);
    else if (method == "PUT")
      qz::http::HttpHelpers::HttpPut(connection, url, body, 0, &result, &patient, &json);
    else if (method == "POST")
      qz::http::HttpHelpers::HttpPost(connection, url, body, 0, &result, &patient, &json);
    else if (method == "DELETE")
      qz::http::HttpHelpers::HttpDelete(connection, url, &result, &patient);
    return result.httpCode;
  }

  qztest::ElasticEmulator emulator;
  qz::elasticsearch::ElasticConnectionParameters server;
  qz::http::HttpConnectionPool pool;
  qz::http::HttpConnection connection;
};
