// The emulator is checked by code we did not write: the official Python and JS clients run their
// bulk helpers (with rejected items to retry) and their paging against it and read back what they
// wrote.
#include "EsFixture.h"
#include "support/Process.h"
#include "support/SourcePaths.h"

#include <HttpTools/platform/qzJson.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <sys/stat.h>

namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

qz::qzVariantMapImpl lastJsonLine(const std::string& out) {
  qz::qzVariantMapImpl map;
  const size_t start = out.rfind("\n{", out.size() >= 2 ? out.size() - 2 : 0);
  qz::json::Json2Variant::Convert(out.substr(start == std::string::npos ? 0 : start + 1), map);
  return map;
}

using ClientsTest = EsFixture;

TEST_F(ClientsTest, OfficialPythonClient) {
  auto f = emulator.faults();
  f.rejectItems = 5;
  emulator.setFaults(f);
  std::string out, err;
  const std::string script = readFile(qztest::SourceDir() + "/tests/elasticsearch/clients_check.py");
  ASSERT_FALSE(script.empty());
  ASSERT_EQ(qztest::RunProgram({"/usr/bin/python3", "-c", script, emulator.baseUrl()}, "", out, err), 0)
      << "the Python client (Debian python3-elasticsearch) failed: " << err << out;
  auto got = lastJsonLine(out);
  EXPECT_EQ(got["ok"].toInt64(), 2000) << out;
  EXPECT_EQ(got["errors"].toInt64(), 0);
  EXPECT_EQ(got["count"].toInt64(), 2000);
  EXPECT_EQ(got["scanned"].toInt64(), 2000);
  EXPECT_EQ(got["distinct"].toInt64(), 2000);
  EXPECT_TRUE(got["intact"].toBool());
  EXPECT_EQ(got["found"], qz::qzVariant(qz::qzVariantListImpl{true, true, false}));
  EXPECT_EQ(got["meta"].toMap().at("owner").toString(), "py");
  EXPECT_EQ(got["zipped"].toInt64(), 300);
  EXPECT_EQ(got["zipped_count"].toInt64(), 300);
  EXPECT_NE(got["partial"].toString().find("succeeded on 1"), std::string::npos) << got["partial"].toString();
  const auto s = emulator.stats();
  EXPECT_EQ(s.lastBulkContentEncoding, "gzip");
  EXPECT_EQ(s.bulkItems, 2305u); // only the rejected items went twice
  EXPECT_EQ(s.scrollsOpened, 2u);
  EXPECT_EQ(s.openScrolls, 0u); // helpers.scan cleared its scroll
}

TEST_F(ClientsTest, OfficialJsClient) {
  const std::string dir = qztest::SourceDir() + "/tests/esclient";
  struct stat st {};
  ASSERT_EQ(stat((dir + "/node_modules/@elastic/elasticsearch").c_str(), &st), 0)
      << "the JS client is not installed: run scripts/install-deps (npm ci in tests/esclient)";
  auto f = emulator.faults();
  f.rejectItems = 5;
  emulator.setFaults(f);
  std::string out, err;
  ASSERT_EQ(qztest::RunProgram({"node", dir + "/check.js", emulator.baseUrl()}, "", out, err), 0)
      << "the JS client failed: " << err << out;
  auto got = lastJsonLine(out);
  EXPECT_EQ(got["successful"].toInt64(), 1500) << out;
  EXPECT_EQ(got["failed"].toInt64(), 0);
  EXPECT_EQ(got["dropped"].toInt64(), 0);
  EXPECT_EQ(got["ids"].toInt64(), 1500);
  EXPECT_TRUE(got["ordered"].toBool());
  EXPECT_EQ(got["count"].toInt64(), 1500);
  EXPECT_EQ(got["meta"].toMap().at("owner").toString(), "js");
  const auto s = emulator.stats();
  EXPECT_EQ(s.bulkItems, 1505u);
  EXPECT_EQ(s.pitsOpened, 1u);
  EXPECT_EQ(s.openPits, 0u);
}

} // namespace
