#include <HttpTools/platform/EnumHelperInterface.h>
#include <HttpTools/platform/LibInit.h>
#include <HttpTools/platform/qzOpenSSL.h>
#include <HttpTools/platform/qzStringUtils.h>
#include <HttpTools/platform/qzThread.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

using qz::EnumHelperInterface;

namespace {

TEST(EnumHelper, ParsesValuesAliasesSkipsMalformedPiecesAndUnknownNamesAreInvalidNotFatal) {
  using Map = EnumHelperInterface::EnumMap;
  // Values reset the counter, aliases share a value; malformed pieces are skipped.
  for (const auto& [text, want] :
       {std::pair<const char*, Map>{"X = 5,Y,Z=0x10,W,V=5,U=-2,T",
                                    {{5, {"X", "V"}}, {6, {"Y"}}, {16, {"Z"}}, {17, {"W"}}, {-2, {"U"}}, {-1, {"T"}}}},
        {" , A, = 3, 9B, C = x, D ,", {{0, {"A"}}, {1, {"D"}}}}})
    EXPECT_EQ(EnumHelperInterface::GetEnumToStringMap(text), want) << text;
  EXPECT_TRUE(EnumHelperInterface::GetEnumToStringMap(nullptr).empty());
  // Unknown names and values are invalid, not fatal.
  static const auto vals = EnumHelperInterface::GetEnumToStringMap("E_A = 0, E_B");
  static const std::string type = "ns::E";
  EnumHelperInterface qualified(std::string("ns::E::E_B"), vals, type);
  EXPECT_EQ(std::to_string(qualified.getValue()) + " " + qualified.toQualifiedString() + " " +
                EnumHelperInterface(std::string("E_B"), vals, type).toString(),
            "1 ns::E::E_B E_B");
  EnumHelperInterface unknown(std::string("E_Z"), vals, type), out(7, vals, type);
  EXPECT_FALSE(unknown.isValid() || out.isValid() || unknown.getValue() != 0);
  EXPECT_EQ(out.toString() + out.toQualifiedString(), "");
}

TEST(StringUtils, HumanizeDurationAndFromInt) {
  using S = qz::qzStringUtils;
  std::string texts;
  for (double ms : {0.0, 999.0, 1000.0, 1500.0, 90000.0, 3600000.0, 86400000 * 2.5, -1500.0})
    texts += S::humanizeDuration(ms, 1, true) + " ";
  texts += S::humanizeDuration(1234.5678901, 7, true) + " " + S::humanizeDuration(2000, 3, false); // 6 digits at most
  EXPECT_EQ(texts, "0ms 999ms 1s 1.5s 1.5min 1h 2.5d -1.5s 1.234568s 2 seconds");
  EXPECT_EQ(S::fromInt(7, 3) + " " + S::fromInt(1234, 2) + " " + S::fromInt(-5, 2) + " " + S::fromInt(INT64_MIN),
            "007 1234 -05 -9223372036854775808");
}

TEST(OpenSSLVersion, ParsesReleaseTexts) {
  for (const auto& [text, version] :
       {std::pair{"1.1.1k", 0x101010bf}, {"1.0.2", 0x1000200f}, {"3.0.11", 0x300000b0}, {"3.2", 0x30200000}})
    EXPECT_EQ(qz::qzOpenSSL::ParseOpenSSLVersionString(text), version) << text;
  for (const char* text : {"", "x1.1", "3", "3.", ".1.1", "0.9.8", "1.1.x", "3.999.1"})
    EXPECT_EQ(qz::qzOpenSSL::ParseOpenSSLVersionString(text), 0) << text;
}

// Only the first and the last user do the work, also when threads race.
TEST(LibInitCounter, CountsExactlyAcrossThreads) {
  qz::impl::LibInitCounter c("t", 1);
  EXPECT_FALSE(c.decrementInitCounter()); // unbalanced: ignored
  EXPECT_EQ(std::vector<bool>({c.incrementInitCounter(), c.incrementInitCounter(), c.isInitialized(),
                               c.decrementInitCounter(), c.decrementInitCounter(), c.isInitialized()}),
            std::vector<bool>({true, false, true, false, true, false}));
  std::atomic<int> firstsLessLasts{0};
  std::vector<std::thread> threads(8);
  for (auto& t : threads)
    t = std::thread([&] {
      for (int i = 0; i < 1000; ++i)
        firstsLessLasts += c.incrementInitCounter() - c.decrementInitCounter();
    });
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(firstsLessLasts.load(), 0);
  EXPECT_FALSE(c.isInitialized());
}

// Counts its calls; can take its time or remove itself from the updater.
struct Probe {
  qz::qzThreadPeriodicalUpdater* removeFrom = nullptr;
  int sleepMs = 0;
  std::atomic<int> calls{0};
  std::atomic<bool> inside{false};
};
void probe(void* data) {
  auto* p = static_cast<Probe*>(data);
  p->inside = true;
  qz::qzThread::msleep(p->sleepMs);
  ++p->calls;
  p->inside = false;
  if (p->removeFrom)
    p->removeFrom->removeCallback(probe, data);
}
bool WaitFor(const std::function<bool()>& done) {
  for (int i = 0; i < 5000 && !done(); ++i) // up to 10 s
    qz::qzThread::msleep(2);
  return done();
}

TEST(PeriodicalUpdater, RunsCallbacksUntilRemovedAndRemoveWaitsForARunningOne) {
  Probe a, b, self, slow; // outlive the updater: its thread calls b until it stops
  qz::qzThreadPeriodicalUpdater u(2);
  u.setPeriodMs(2);
  self.removeFrom = &u; // a callback may remove itself
  for (Probe* p : {&a, &b, &self})
    u.addCallback(probe, p);
  EXPECT_TRUE(WaitFor([&] { return a.calls >= 3 && b.calls >= 3; }));
  u.removeCallback(probe, &a);
  const int frozen = a.calls, bBefore = b.calls;
  // Rounds run one after the other: b's next ones show that a's have stopped.
  EXPECT_TRUE(WaitFor([&] { return b.calls >= bBefore + 3; }));
  EXPECT_EQ(std::pair(a.calls.load(), self.calls.load()), std::pair(frozen, 1));

  slow.sleepMs = 200;
  u.addCallback(probe, &slow);
  ASSERT_TRUE(WaitFor([&] { return slow.inside.load(); }));
  u.removeCallback(probe, &slow);
  // A further call may have started before the removal; none runs or starts after it.
  EXPECT_FALSE(slow.inside.load()) << "returned only after the running call ended";
  const int ended = slow.calls, bAfter = b.calls;
  EXPECT_TRUE(WaitFor([&] { return b.calls >= bAfter + 3; }));
  EXPECT_EQ(slow.calls.load(), ended);
}

// A logged value cannot forge a line (CR, LF, terminal escapes) nor flood the log; the default sink
// (stderr) comes back when the capture ends.
TEST(Log, EachStatementIsOneBoundedLineAndTheDefaultSinkComesBack) {
  {
    qztest::LogCapture cap;
    qz::qzLogObject(qz::qzLog::Error, "jwt") << "kid a\r\n[error] jwt: forged\x1b[2J\t\x7f end " << 42;
    qz::qzLogObject(qz::qzLog::Error, "c\nat") << std::string(100000, 'x');
    ASSERT_EQ(cap.size(), 2u);
    EXPECT_TRUE(cap.has("jwt", "kid a\\r\\n[error] jwt: forged\\x1B[2J\\t\\x7F end 42"));
    EXPECT_TRUE(cap.has("c\\nat", std::string(qz::qzLog::kMaxLineLength, 'x') + " [" +
                                      std::to_string(100000 - qz::qzLog::kMaxLineLength) + " bytes cut]"));
  }
  testing::internal::CaptureStderr();
  qz::qzLogObject(qz::qzLog::Warning, "c") << "to stderr";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "[warning] c: to stderr\n");
}

} // namespace
