// Probe hosts with ICMP echo requests and print loss and round-trip times. Needs raw sockets
// (root or CAP_NET_RAW) unless net.ipv4.ping_group_range allows datagram ICMP sockets.
//   example_ping 127.0.0.1 ::1
#include <HttpTools/HttpTools.h>

#include <iostream>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: example_ping HOST...\n";
    return 2;
  }
  qz::icmp::ProbeOptions options;
  options.count = 5;      // probes per host
  options.periodMs = 200; // between two probes to one host
  qz::icmp::HostStatisticsRetriever retriever(std::vector<std::string>(argv + 1, argv + argc), options);
  std::vector<qz::icmp::HostStatistics> hosts;
  retriever.retrieve(hosts, nullptr); // one round on this thread
  int rc = 0;
  for (const qz::icmp::HostStatistics& h : hosts) {
    if (!h.error.empty()) {
      std::cerr << h.host << ": " << h.error << "\n";
      rc = 1;
      continue;
    }
    std::cout << h.host << " (" << h.address.getAddressAsString(false) << "): " << h.received << "/" << h.sent
              << " received, min/avg/max " << h.minMs << "/" << h.avgMs << "/" << h.maxMs << " ms, p90 " << h.p90Ms
              << " ms, jitter " << h.jitterMs << " ms\n";
    if (h.received == 0)
      rc = 1;
  }
  return rc;
}
