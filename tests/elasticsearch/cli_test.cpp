// httptools es search/get/bulk, run as a user runs them, against the emulator.
#include "EsFixture.h"
#include "support/Process.h"

#include <gtest/gtest.h>

#ifdef HTTPTOOLS_CLI // the program is not built in every configuration

namespace {

class EsCliTest : public EsFixture {
protected:
  int run(const std::vector<std::string>& args, const std::string& input = "") {
    std::vector<std::string> argv{HTTPTOOLS_CLI};
    argv.insert(argv.end(), args.begin(), args.end());
    out.clear();
    err.clear();
    return qztest::RunProgram(argv, input, out, err);
  }
  std::string out, err;
};

TEST_F(EsCliTest, BulkThenSearchAndGet) {
  ASSERT_EQ(call("PUT", "/cli", R"({"mappings":{"properties":{"n":{"type":"long"}}}})"), 200);
  const std::string index = emulator.baseUrl() + "/cli";
  std::string lines;
  for (int i = 0; i < 25; ++i)
    lines += R"({"_id":"c)" + std::to_string(i) + R"(","n":)" + std::to_string(i) + R"(,"s":"x\"y"})" + "\n";
  EXPECT_EQ(run({"es", "bulk", index, "-"}, lines), 0) << err;
  EXPECT_EQ(out, "indexed 25, failed 0, retried 0\n");

  // A bad line and a mapper error: both counted, each named on stderr, exit 1.
  EXPECT_EQ(run({"es", "bulk", index}, "{\"n\":1}\n{\"_id\":\"bad\",\"n\":\"NaN-ish\"}\n{\"_id\":\"ok\",\"n\":2}\n"),
            1);
  EXPECT_EQ(out, "indexed 1, failed 2, retried 0\n");
  EXPECT_NE(err.find("line 1 is not a JSON object with an \"_id\""), std::string::npos) << err;
  EXPECT_NE(err.find("bad: 400 mapper_parsing_exception"), std::string::npos) << err;

  EXPECT_EQ(run({"es", "search", index, "--query", R"({"query":{"range":{"n":{"gte":23}}},"sort":["n"]})"}), 0) << err;
  EXPECT_EQ(out, "{\"_id\":\"c23\",\"_source\":{\"n\":23,\"s\":\"x\\\"y\"}}\n"
                 "{\"_id\":\"c24\",\"_source\":{\"n\":24,\"s\":\"x\\\"y\"}}\n");
  EXPECT_EQ(run({"es", "search", index, "--size", "3"}), 0) << err;
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 3);
  EXPECT_EQ(emulator.stats().openPits, 0u);

  EXPECT_EQ(run({"es", "get", index, "c3", "nope", "c1"}), 1);
  EXPECT_EQ(out, "{\"_id\":\"c3\",\"_source\":{\"n\":3,\"s\":\"x\\\"y\"}}\n"
                 "{\"_id\":\"c1\",\"_source\":{\"n\":1,\"s\":\"x\\\"y\"}}\n");
  EXPECT_EQ(err, "httptools es get: nope not found\n");
}

TEST_F(EsCliTest, UsageAndServerErrors) {
  const struct {
    std::vector<std::string> args;
    int code;
    const char* err;
  } table[] = {
      {{"es", "search", "http://127.0.0.1:1"}, 3, "is not an index URL"},
      {{"es", "get", "http://127.0.0.1:1/i"}, 2, "ID is required"},
      {{"es", "search", "http://127.0.0.1:1/i"}, 7, "httptools es search: cannot reach"},
      {{"es", "bulk", "http://127.0.0.1:1/i", "/no/such/file"}, 1, "cannot read /no/such/file"},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.args.back());
    EXPECT_EQ(run(row.args), row.code) << err;
    EXPECT_NE(err.find(row.err), std::string::npos) << err;
  }
  EXPECT_EQ(run({"es", "search", emulator.baseUrl() + "/missing"}), 22);
  EXPECT_NE(err.find("index_not_found_exception"), std::string::npos) << err;
}

} // namespace

#endif
