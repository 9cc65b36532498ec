// Starts the library once for a whole suite (httptools_add_suite(NAME LIBRARY_STARTED)).
#include <HttpTools/frame/HttpToolsLib.h>

#include <gtest/gtest.h>

namespace {

class HttpToolsEnvironment : public testing::Environment {
public:
  void SetUp() override { qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy); }
  void TearDown() override { qz::terminateHttpTools(); }
};

const auto* const kEnv = testing::AddGlobalTestEnvironment(new HttpToolsEnvironment);

} // namespace
