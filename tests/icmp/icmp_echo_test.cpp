// The reply parser, the payload tag, the statistics arithmetic and the probe book, on bytes and
// times made by hand.
#include <HttpTools/icmp/IcmpEcho_p.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace qz::icmp;
using namespace qz::icmp::impl;

namespace {

using u8 = unsigned char;
using Bytes = std::vector<u8>;
const ProbeTag kTag{0x0123456789abcdefULL, 7, 3};

// An echo message of `type` (0 or 129 a reply) carrying kTag, as a peer sends it: checksum redone.
Bytes Echo(bool ipv6, unsigned char type) {
  unsigned char payload[kPayloadSize];
  WritePayload(kTag, payload);
  Bytes b(kHeaderSize + kPayloadSize);
  BuildEchoRequest(ipv6, 0x1234, 42, payload, sizeof payload, b.data());
  b[0] = type;
  b[2] = b[3] = 0;
  const uint16_t sum = ipv6 ? 0 : InternetChecksum(b.data(), b.size());
  b[2] = u8(sum >> 8);
  b[3] = u8(sum);
  return b;
}

// An IPv4 header (version, header length, total length, TTL, protocol ICMP), then `icmp`.
Bytes WithIpHeader(const Bytes& icmp, size_t optionWords = 0, int lengthDelta = 0) {
  const size_t header = 20 + 4 * optionWords, total = header + icmp.size() + lengthDelta;
  Bytes b{u8(0x40 | header / 4), 0, u8(total >> 8), u8(total), 0, 0, 0, 0, 64, 1};
  b.resize(header);
  b.insert(b.end(), icmp.begin(), icmp.end());
  return b;
}

auto Near(std::vector<double> want) { return testing::Pointwise(testing::DoubleEq(), want); }

std::vector<double> Figures(const HostStatistics& s) {
  return {double(s.sent), double(s.received), double(s.duplicates), s.lossPercent, s.minMs, s.avgMs, s.maxMs, s.mdevMs};
}

} // namespace

// The checksum (RFC 1071's example, an odd length, a carry), then replies intact and damaged.
TEST(IcmpEcho, ParserTakesIntactEchoRepliesOnly) {
  const unsigned char even[] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7}, odd[] = {0x01},
                      carry[] = {0xff, 0xff, 0, 1};
  EXPECT_EQ(std::tuple(InternetChecksum(even, 8), InternetChecksum(odd, 1), InternetChecksum(carry, 4)),
            std::tuple(0x220d, 0xfeff, 0xfffe)); // the carry out of 0xffff + 1 folded back
  const Bytes icmp4 = Echo(false, 0), icmp6 = Echo(true, 129), framed = WithIpHeader(icmp4);
  Bytes padded = framed;
  padded.push_back(0xee); // bytes past the IP total length are not part of the message
  auto mutate = [](Bytes b, size_t at, unsigned char v) { return b[at] = v, b; };
  using L = ReplyLayout;
  const std::tuple<ReplyLayout, bool, std::vector<Bytes>> cases[] = {
      {L::IPv4Datagram, true, {icmp4}},
      // with options, with bytes past the end
      {L::IPv4WithHeader, true, {framed, WithIpHeader(icmp4, 2), padded}},
      {L::IPv6, true, {icmp6}},
      // a flipped payload bit, an echo request, nothing
      {L::IPv4Datagram, false, {mutate(icmp4, 20, icmp4[20] ^ 1), Echo(false, 8), {}}},
      // code 1, an echo request, shorter than the header
      {L::IPv6, false, {mutate(icmp6, 1, 1), Echo(true, 128), Bytes(icmp6.begin(), icmp6.begin() + 7)}},
      // no ICMP header after the IP header, total length past the end or inside the header
      {L::IPv4WithHeader, false, {WithIpHeader(Bytes(4)), WithIpHeader(icmp4, 0, 1), WithIpHeader({}, 0, -1)}},
      // header length 4 words, version 6, protocol UDP, a datagram without the IP header
      {L::IPv4WithHeader, false, {mutate(framed, 0, 0x44), mutate(framed, 0, 0x65), mutate(framed, 9, 17), icmp4}}};
  const auto tagged = std::tuple(uint16_t{0x1234}, uint16_t{42}, kTag.token, kTag.host, kTag.probe);
  for (const auto& [layout, ok, list] : cases)
    for (size_t i = 0; i < list.size(); ++i) {
      SCOPED_TRACE(testing::Message() << "layout " << int(layout) << (ok ? ", good " : ", bad ") << i);
      EchoReply r;
      ProbeTag tag;
      EXPECT_EQ(ParseEchoReply(list[i].data(), list[i].size(), layout, r), ok);
      EXPECT_EQ(ok && ReadPayload(r.payload, r.payloadSize, tag), ok);
      EXPECT_EQ(std::tuple(r.identifier, r.sequence, tag.token, tag.host, tag.probe), ok ? tagged : decltype(tagged){});
    }
}

TEST(IcmpEcho, PayloadTagOnlyFromAnUnchangedPayload) {
  // Sizes below the tag carry the filler alone; the tag comes back from any size that holds it.
  for (size_t size : {size_t{0}, size_t{8}, kTagSize - 1, kTagSize, kPayloadSize, size_t{1400}}) {
    SCOPED_TRACE(size);
    std::vector<unsigned char> p(size + 1, 0);
    WritePayload(kTag, p.data(), size);
    ProbeTag tag;
    ASSERT_TRUE(ReadPayload(p.data(), size, tag, size));
    EXPECT_EQ(std::pair(tag.token, tag.probe),
              size >= kTagSize ? std::pair(kTag.token, kTag.probe) : std::pair(uint64_t{0}, 0u));
    EXPECT_FALSE(ReadPayload(p.data(), size + 1, tag, size)) << "longer than sent";
    if (size == 0)
      continue;
    EXPECT_FALSE(ReadPayload(p.data(), size - 1, tag, size)) << "truncated";
    p[size - 1] ^= 0x80;
    EXPECT_EQ(ReadPayload(p.data(), size, tag, size), size == kTagSize) << "last byte changed: filler, or tag alone";
  }
}

TEST(IcmpStatistics, ComputedByHand) {
  // Newton's iteration from above stops one step late when a + 1 is a square.
  const long long roots[][2] = {{0, 0},  {1, 1},   {2, 1},    {3, 2},    {8, 3},     {24, 5}, {25, 5},
                                {26, 5}, {99, 10}, {100, 10}, {101, 10}, {6666, 81}, {-4, -4}};
  for (const auto& c : roots)
    EXPECT_EQ(IntegerSqrt(c[0]), c[1]) << c[0];
  // Times in us, then sent, received and duplicates (given and expected back), loss, min, avg, max, mdev.
  const std::tuple<const char*, std::vector<long long>, std::vector<double>> cases[] = {
      // sum 600, sum of squares 140000: variance (140000 - 360000 / 3) / 3 = 6666, sqrt 81
      {"three of four", {100, 200, 300}, {4, 3, 0, 25, 0.1, 0.2, 0.3, 0.081}},
      // avg 1001 / 2 = 500 in integers; variance (1000001 - 1002001 / 2) / 2 = 249500, sqrt 499
      {"spread", {1, 1000}, {2, 2, 0, 0, 0.001, 0.5, 1.0, 0.499}},
      // variance (456 - 1296 / 3) / 3 = 8: ping reports 3, the square root of 9
      {"sqrt quirk", {10, 10, 16}, {3, 3, 0, 0, 0.010, 0.012, 0.016, 0.003}},
      {"all lost", {}, {5, 0, 0, 100, 0, 0, 0, 0}},
      {"nothing sent", {}, {0, 0, 0, 0, 0, 0, 0, 0}},
      // sums past INT_MAX take the other order: sum2 / n - avg^2 = 1625000001500000000 - 1250000000^2
      {"large sums", {1000000000, 1500000001}, {2, 2, 0, 0, 1000000.0, 1250000.0, 1500000.001, 250000.002}},
  };
  for (const auto& [name, rtt, want] : cases) {
    HostStatistics s;
    ComputeStatistics(rtt, unsigned(want[0]), unsigned(want[1]), unsigned(want[2]), s);
    EXPECT_THAT(Figures(s), Near(want)) << name;
  }
}

TEST(IcmpProbeBook, MatchesDuplicatesLateStrangersAndExpiry) {
  ProbeBook book(2, 3);
  const int64_t t0 = 1'000'000'000'000;
  for (unsigned k = 0; k < 3; ++k)
    book.markSent(0, k, static_cast<uint16_t>(10 + k), t0, 1000);
  book.markSent(0, 0, 99, t0, 5000); // a probe leaves once
  EXPECT_EQ(book.nextDeadline(), 1000);
  // 100.9 us counts as 100; then a sequence of another probe, a probe never sent, no such host; at
  // its deadline the third probe is lost, and stays lost.
  const std::vector<ProbeBook::Outcome> got = {
      book.record(0, 0, 10, t0 + 100'900, 500), book.record(0, 0, 10, t0 + 300'000, 500),
      book.record(0, 1, 11, t0 + 200'000, 999), book.record(0, 2, 99, t0 + 1, 500),
      book.record(1, 0, 0, t0 + 1, 500),        book.record(2, 0, 10, t0 + 1, 500),
      book.record(0, 2, 12, t0 + 1, 1000),      book.record(0, 2, 12, t0 + 1, 1000)};
  using B = ProbeBook;
  EXPECT_EQ(got, (std::vector{B::Matched, B::Duplicate, B::Matched, B::Unknown, B::Unknown, B::Unknown, B::TimedOut,
                              B::Late}));
  EXPECT_FALSE(book.hasPending());
  HostStatistics s;
  book.fill(0, s);
  // A duplicate's time counts in the times, not in the received count.
  EXPECT_THAT(Figures(s), Near({3, 2, 1, 100.0 / 3, 0.1, 0.2, 0.3, 0.081}));
  EXPECT_EQ(s.timeouts, 1u);
  // The probes in order, the duplicate left out: 0.1, 0.2, and the third lost.
  EXPECT_EQ(s.probeMs, (std::vector<std::optional<double>>{0.1, 0.2, std::nullopt}));

  // Expiry: unanswered probes are lost once each; a refused one is sent but waits for nothing.
  ProbeBook expiring(1, 4);
  for (unsigned k = 0; k < 3; ++k)
    expiring.markSent(0, k, static_cast<uint16_t>(k + 1), 0, 100 * (k + 1), k == 2);
  EXPECT_TRUE(expiring.hasPending());
  std::vector<unsigned> lost;
  auto onLost = [&lost](size_t host, unsigned probe) { lost.push_back(static_cast<unsigned>(host * 10 + probe)); };
  expiring.expire(150, onLost);
  EXPECT_EQ(expiring.nextDeadline(), 200) << "the first probe is given up, the second still waits";
  expiring.expire(200, onLost);
  EXPECT_EQ(lost, (std::vector<unsigned>{0, 1})) << "each once; the refused one is not a time-out";
  EXPECT_FALSE(expiring.hasPending()) << "a refused probe waits for nothing";
  EXPECT_EQ(expiring.nextDeadline(), INT64_MAX);
  expiring.fill(0, s = {});
  // The refused probe counts as sent; the unsent fourth has no place.
  EXPECT_THAT(Figures(s), Near({3, 0, 0, 100, 0, 0, 0, 0}));
  EXPECT_EQ(s.timeouts, 2u) << "the refused one is not a time-out";
  EXPECT_EQ(s.probeMs.size(), 3u);
}

TEST(IcmpStatistics, ProbeFiguresComputedByHand) {
  using Us = std::optional<long long>;
  const Us lost;
  // Probe times in us, then stddev, p50, p90, p99 and jitter.
  const std::tuple<const char*, std::vector<Us>, std::vector<double>> cases[] = {
      // mean 0.25, squares 0.0225 + 0.0025 + 0.0025 + 0.0225 over 4: sqrt(0.0125)
      {"four", {100, 200, 300, 400}, {0.11180339887498948, 0.2, 0.4, 0.4, 0.1}},
      // jitter over the answered neighbours: |0.3 - 0.1| and |0.2 - 0.3|; ranks of 0.1 0.2 0.3
      {"lost ones skipped", {lost, 100, lost, 300, 200}, {0.081649658092772609, 0.2, 0.3, 0.3, 0.15}},
      {"one reply", {lost, 500}, {0, 0.5, 0.5, 0.5, 0}},
      {"none", {lost, lost}, {0, 0, 0, 0, 0}},
      // ten times 1..10 ms: p50 the 5th, p90 the 9th, p99 the 10th
      {"ten", {1000, 2000, 3000, 4000, 5000, 6000, 7000, 8000, 9000, 10000}, {2.8722813232690143, 5, 9, 10, 1}}};
  for (const auto& [name, probes, figures] : cases) {
    HostStatistics s;
    ComputeProbeFigures(probes, s); // probeMs: the probe book test
    EXPECT_THAT((std::vector{s.stddevMs, s.p50Ms, s.p90Ms, s.p99Ms, s.jitterMs}), Near(figures)) << name;
  }
}
