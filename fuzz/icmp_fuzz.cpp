// Received ICMP bytes to the reply parser: never reads outside the buffer; a reply it accepts has
// its payload inside the message, a verified IPv4 checksum, and a payload tag that writes back to
// the same bytes.
#include <HttpTools/icmp/IcmpEcho_p.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

#define Check(cond)                                                                                                    \
  do {                                                                                                                 \
    if (!(cond)) {                                                                                                     \
      std::fprintf(stderr, "check failed at line %d: %s\n", __LINE__, #cond);                                          \
      std::abort();                                                                                                    \
    }                                                                                                                  \
  } while (0)

using namespace qz::icmp::impl;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1)
    return 0;
  const ReplyLayout layouts[] = {ReplyLayout::IPv4WithHeader, ReplyLayout::IPv4Datagram, ReplyLayout::IPv6};
  const ReplyLayout layout = layouts[data[0] % 3];
  // An exact-size copy, so that any read past the end is caught.
  std::vector<unsigned char> bytes(data + 1, data + size);
  const unsigned char* begin = bytes.data();
  const unsigned char* end = begin + bytes.size();

  EchoReply reply;
  if (!ParseEchoReply(begin, bytes.size(), layout, reply))
    return 0;
  Check(reply.payload >= begin + kHeaderSize && reply.payload + reply.payloadSize <= end);
  if (layout != ReplyLayout::IPv6)
    Check(InternetChecksum(reply.payload - kHeaderSize, reply.payloadSize + kHeaderSize) == 0);

  ProbeTag tag;
  if (ReadPayload(reply.payload, reply.payloadSize, tag)) {
    unsigned char again[kPayloadSize];
    WritePayload(tag, again);
    Check(std::memcmp(again, reply.payload, kPayloadSize) == 0);
    ProbeBook book(4, 4);
    book.markSent(tag.host % 4, tag.probe % 4, reply.sequence, 0, 1000);
    Check(book.record(tag.host, tag.probe, reply.sequence, 1000000, 10) ==
          (tag.host < 4 && tag.probe < 4 ? ProbeBook::Matched : ProbeBook::Unknown));
  }
  return 0;
}
