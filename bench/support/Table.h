// The table that the benchmarks print, a line at a time.
#ifndef OPL_BENCH_SUPPORT_TABLE_H
#define OPL_BENCH_SUPPORT_TABLE_H

#include <string>

namespace oplbench {

class Table {
 public:
  Table();

  // Nanoseconds of one operation, where the row's name does not tell another unit. A target is the most that
  // the ratio may be; 0 is none.
  void Add(const std::string& what, double ns, const std::string& peer, double peerNs, double target);
  void Add(const std::string& what, double ns);
  // What may take that long whatever it is compared with.
  void AddLimited(const std::string& what, double ns, double limitNs);
};

}  // namespace oplbench

#endif
