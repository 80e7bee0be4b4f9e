#include "bench/support/Table.h"

#include <cstdio>

namespace oplbench {

Table::Table() {
  std::printf("%-44s %10s  %-18s %10s %7s %7s  %s\n", "what", "QVOPL ns", "peer", "peer ns", "ratio",
              "target", "met?");
}

void Table::Add(const std::string& what, double ns, const std::string& peer, double peerNs, double target) {
  const double ratio = ns / peerNs;
  std::printf("%-44s %10.1f  %-18s %10.1f %7.2f", what.c_str(), ns, peer.c_str(), peerNs, ratio);
  if (target != 0)
    std::printf(" %7.2f  %s\n", target, ratio <= target ? "yes" : "NO");
  else
    std::printf(" %7s  %s\n", "-", "-");
}

void Table::Add(const std::string& what, double ns) {
  std::printf("%-44s %10.1f  %-18s %10s %7s %7s  %s\n", what.c_str(), ns, "-", "-", "-", "-", "-");
}

void Table::AddLimited(const std::string& what, double ns, double limitNs) {
  std::printf("%-44s %10.1f  %-18s %10s %7s %7.0f  %s\n", what.c_str(), ns, "-", "-", "-", limitNs,
              ns <= limitNs ? "yes" : "NO");
}

}  // namespace oplbench
