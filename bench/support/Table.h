// The table that the benchmarks print, a line at a time.
#ifndef OPL_BENCH_SUPPORT_TABLE_H
#define OPL_BENCH_SUPPORT_TABLE_H

#include <string>

namespace oplbench {

class Table {
 public:
  Table();

  // Nanoseconds of one operation. A target of 0 is none.
  void Add(const std::string& what, double ns, const std::string& peer, double peerNs, double target);
  void Add(const std::string& what, double ns);
};

}  // namespace oplbench

#endif
