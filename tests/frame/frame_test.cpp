#include <HttpTools/frame/HttpToolsLib.h>

#include <HttpTools/frame/HttpToolsLib_p.h>
#include <HttpTools/platform/LibInit.h>

#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

using namespace qz::http;

namespace {

// Every test starts and ends with the library fully stopped.
class Frame : public testing::Test {
protected:
  void TearDown() override {
    while (qz::IsHttpToolsInitialized())
      qz::terminateHttpTools();
    qz::impl::SetCurlVersionTextForTest(nullptr);
  }
};

// The first initialisation sets the defaults and each one adds a user; the last termination stops
// everything (initialised, its updater, libcurl in the version list) and resets all defaults but
// the proxy's, until a new first initialisation sets them.
TEST_F(Frame, FirstInitSetsTheDefaultsAndTheLastTerminationStops) {
  auto state = [] {
    return std::tuple(qz::IsHttpToolsInitialized(), qz::impl::GetPeriodicalUpdater() != nullptr,
                      qz::impl::GetThirdPartyLibVersionInfo().count("libcurl"), qz::IsVerifySSLCertByDefault(),
                      qz::GetDefaultHostNameResolutionPolicy(), qz::GetDefaultProxyPolicy());
  };
  qz::initializeHttpTools(false, HNRP_PreferIpv6, PP_AutomaticProxy);
  qz::initializeHttpTools(true, HNRP_PreferIpv4, PP_NoProxy);
  EXPECT_NE(qz::impl::GetCurlOpenSSLVersion(), 0);
  EXPECT_EQ(state(), std::tuple(true, true, 1u, false, HNRP_PreferIpv6, PP_AutomaticProxy));
  qz::terminateHttpTools(); // one user left
  EXPECT_EQ(state(), std::tuple(true, true, 1u, false, HNRP_PreferIpv6, PP_AutomaticProxy));
  qz::terminateHttpTools();
  EXPECT_EQ(state(), std::tuple(false, false, 0u, true, HNRP_Whatever, PP_AutomaticProxy));
  qz::initializeHttpTools(true, HNRP_Whatever, PP_NoProxy);
  EXPECT_EQ(qz::GetDefaultProxyPolicy(), PP_NoProxy);
}

// Nothing is rolled back: the library counts as initialised until terminated, and a good libcurl
// initialises afterwards.
TEST_F(Frame, InitialisationRefusesACurlWithoutOpenSSL) {
  qztest::LogCapture cap;
  qz::impl::SetCurlVersionTextForTest("libcurl/7.88.1 GnuTLS/3.7.9 zlib/1.2.13");
  EXPECT_THAT([] { qz::initializeHttpTools(true, HNRP_Whatever, PP_NoProxy); },
              testing::ThrowsMessage<std::runtime_error>(testing::StrEq("qzHttpTools : ssl versionning error")));
  EXPECT_TRUE(cap.has("qzHttpTools", "Cannot get curl openssl version (unknown version)"));
  EXPECT_TRUE(qz::IsHttpToolsInitialized());
  qz::terminateHttpTools();
  qz::impl::SetCurlVersionTextForTest(nullptr);
  EXPECT_NO_THROW(qz::initializeHttpTools(true, HNRP_Whatever, PP_NoProxy));
}

} // namespace
