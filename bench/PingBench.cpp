// One asynchronous run of the ICMP echo engine over the targets of a file (one address
// per line), as bench/ping-compare runs it beside fping and collectd:
//
//   ping_bench TARGETS_FILE [TIMEOUT_MS]
//
// Prints `answered=N targets=N start_ms=MS`: the targets answered, and the whole call
// of Ping::start (the receiver thread's start included). The send phase and the CPU
// time come from bench/PingShim.cpp, loaded with LD_PRELOAD as for the peers.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "foundation/List.h"
#include "sources/ping/Ping.h"
#include "sources/ping/PingTarget.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: ping_bench TARGETS_FILE [TIMEOUT_MS]\n");
    return 2;
  }
  const int timeout = argc > 2 ? std::atoi(argv[2]) : 500;
  std::ifstream in(argv[1]);
  std::vector<std::unique_ptr<PingTarget>> targets;
  List list;
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) {
      targets.push_back(std::make_unique<PingTarget>(line.c_str()));
      list.add(targets.back().get());
    }
  }
  Ping engine;
  if (!engine.openSocket(AF_INET)) {
    std::fprintf(stderr, "ping_bench: no ICMP socket\n");
    return 1;
  }
  const auto start = std::chrono::steady_clock::now();
  engine.start(&list, timeout, 0, 0);
  const double millis =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  int answered = 0;
  for (const auto& target : targets) {
    answered += target->getState() == PingTarget::STATE_ANSWERED ? 1 : 0;
  }
  std::printf("answered=%d targets=%zu start_ms=%.3f\n", answered, targets.size(), millis);
  return answered == static_cast<int>(targets.size()) ? 0 : 3;
}
