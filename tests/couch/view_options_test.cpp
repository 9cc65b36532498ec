// The view request's libcurl options on a handle that earlier requests left in another state.
#include <HttpTools/couch/ViewResultStreamParser_p.h>

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

using qz::qzVariant;
using qz::couch::ViewResultStreamParser;

namespace {

struct Seen {
  std::string method, body, contentType;
};

class ViewOptions : public ::testing::Test {
protected:
  void SetUp() override {
    auto handler = [this](const httplib::Request& req, httplib::Response& res) {
      {
        std::lock_guard lock(m_mutex);
        m_seen = {req.method, req.body, req.get_header_value("Content-Type")};
      }
      res.set_content(R"({"total_rows":2,"offset":0,"rows":[{"id":"a","key":"a","value":1},)"
                      R"({"id":"b","key":"b","value":2}]})",
                      "application/json");
    };
    m_http.Get("/db/_all_docs", handler);
    m_http.Post("/db/_all_docs", handler);
    m_port = m_http.bind_to_any_port("127.0.0.1");
    ASSERT_GT(m_port, 0);
    m_thread = std::thread([this] { m_http.listen_after_bind(); });
    while (!m_http.is_running())
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    m_curl.reset(curl_easy_init());
    ASSERT_TRUE(m_curl);
  }
  void TearDown() override {
    m_curl.reset(); // closes the kept-alive connection, so the server stops at once
    m_http.stop();
    m_thread.join();
  }

  // One request the way the connection runs it: installer, then its header lines.
  CURLcode perform(ViewResultStreamParser& parser, int* installResult) {
    std::list<std::string> lines;
    *installResult = qz::couch::InstallViewOptions(m_curl.get(), &parser, lines);
    m_headers.reset();
    for (const auto& l : lines)
      m_headers.reset(curl_slist_append(m_headers.release(), l.c_str()));
    const std::string url = "http://127.0.0.1:" + std::to_string(m_port) + "/db/_all_docs";
    curl_easy_setopt(m_curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(m_curl.get(), CURLOPT_HTTPHEADER, m_headers.get());
    return curl_easy_perform(m_curl.get());
  }
  Seen seen() {
    std::lock_guard lock(m_mutex);
    return m_seen;
  }

  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> m_curl{nullptr, &curl_easy_cleanup};
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> m_headers{nullptr, &curl_slist_free_all};

private:
  httplib::Server m_http;
  std::thread m_thread;
  int m_port = 0;
  std::mutex m_mutex;
  Seen m_seen;
};

std::vector<std::string> g_ids;
bool takeId(const std::string& id, qzVariant&, qzVariant&, void*) {
  g_ids.push_back(id);
  return true;
}

size_t dropBody(char*, size_t size, size_t nmemb, void*) { return size * nmemb; }

} // namespace

TEST_F(ViewOptions, PostWithKeysThenGetOnTheSameHandle) {
  // What an earlier call on this connection may have left behind.
  curl_easy_setopt(m_curl.get(), CURLOPT_CUSTOMREQUEST, "DELETE");
  curl_easy_setopt(m_curl.get(), CURLOPT_NOBODY, 1L);
  curl_easy_setopt(m_curl.get(), CURLOPT_HEADERFUNCTION, &dropBody);

  const bool notCancelled = false;
  const std::string body = R"({"keys":["a","b"]})";
  g_ids.clear();
  int rc = -1;
  ViewResultStreamParser post(&takeId, nullptr, &notCancelled);
  post.setRequestBody(&body);
  ASSERT_EQ(perform(post, &rc), CURLE_OK);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(seen().method, "POST");
  EXPECT_EQ(seen().body, body);
  EXPECT_EQ(seen().contentType, "application/json");
  EXPECT_EQ(g_ids, (std::vector<std::string>{"a", "b"}));

  g_ids.clear();
  ViewResultStreamParser get(&takeId, nullptr, &notCancelled);
  ASSERT_EQ(perform(get, &rc), CURLE_OK);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(seen().method, "GET");
  EXPECT_EQ(seen().body, "");
  EXPECT_EQ(g_ids, (std::vector<std::string>{"a", "b"}));
}

TEST_F(ViewOptions, CancelOrRefusalAbortsTheTransfer) {
  bool cancel = true;
  g_ids.clear();
  int rc = -1;
  ViewResultStreamParser cancelled(&takeId, nullptr, &cancel);
  EXPECT_EQ(perform(cancelled, &rc), CURLE_WRITE_ERROR);
  // The rows of the one chunk were parsed before the flag was seen.
  EXPECT_LE(g_ids.size(), 2u);

  const bool notCancelled = false;
  ViewResultStreamParser refusing([](const std::string&, qzVariant&, qzVariant&, void*) { return false; }, nullptr,
                                  &notCancelled);
  EXPECT_EQ(perform(refusing, &rc), CURLE_WRITE_ERROR);
}
