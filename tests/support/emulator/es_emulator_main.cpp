// The Elasticsearch emulator as a program of its own, for the official clients' checks, the
// benchmark and the demo:
//
//   es_emulator [--port N] [--watch-stdin] [--opensearch VERSION]
//
// Prints "port N" on its first line once it listens on 127.0.0.1, then serves until SIGINT or
// SIGTERM, or, with --watch-stdin, until its standard input closes (so that it never outlives
// the process that started it).
#include "support/ElasticEmulator.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>

int main(int argc, char** argv) {
  int port = 0;
  bool watchStdin = false;
  std::string openSearch; // OpenSearch mode at this version
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--port") == 0 && i + 1 < argc) {
      port = std::atoi(argv[++i]);
    } else if (std::strcmp(argv[i], "--watch-stdin") == 0) {
      watchStdin = true;
    } else if (std::strcmp(argv[i], "--opensearch") == 0 && i + 1 < argc) {
      openSearch = argv[++i];
    } else {
      std::cerr << "usage: es_emulator [--port N] [--watch-stdin] [--opensearch VERSION]\n";
      return 2;
    }
  }
  // Signals go to the waiting thread only.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  qztest::ElasticEmulator emulator;
  emulator.setOpenSearch(openSearch);
  std::thread signalWaiter([&] {
    int sig = 0;
    sigwait(&signals, &sig);
    emulator.stop();
  });
  signalWaiter.detach();
  if (watchStdin) {
    std::thread([&] {
      char buffer[256];
      while (read(0, buffer, sizeof buffer) > 0) {
      }
      emulator.stop();
    }).detach();
  }
  const bool ok = emulator.listenBlocking(port, [](int bound) {
    std::printf("port %d\n", bound);
    std::fflush(stdout);
  });
  if (!ok && emulator.port() == 0) {
    std::cerr << "es_emulator: " << emulator.lastError() << "\n";
    return 1;
  }
  std::_Exit(0); // the detached waiters may still block in sigwait/read
}
