// How much there may be of what named objects are made of, and how much there is.
#ifndef QVOPL_TOOL_LIMITS_H
#define QVOPL_TOOL_LIMITS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qvopl {

enum class Unit { kCount, kBytes };

struct Limit {
  const char* key;   // "semaphoreSets"
  const char* text;  // "semaphore sets"
  Unit unit = Unit::kCount;
  std::optional<uint64_t> used;    // nothing where the system does not tell, or where it makes no sense
  std::optional<uint64_t> most;    // nothing for no limit
  std::optional<uint64_t> needed;  // what the library needs at least
  const char* setBy = "";          // where the limit stands
  uint64_t enough = 0;             // so much free is not near the limit, whatever the percentage

  // In percent; nothing where use or limit is unknown.
  std::optional<unsigned> Percentage() const;
  std::optional<uint64_t> Free() const;
  bool IsTooLow() const { return needed.has_value() && most.has_value() && *most < *needed; }
  bool IsNearlyReached(unsigned percent) const;
};

// A setting of the system with a higher value, as sysctl takes it.
struct Raise {
  std::string name;
  std::string now;
  std::string to;
};

// What an object of a kind is made of.
struct Ingredients {
  uint64_t sets = 0;
  uint64_t semaphores = 0;
  uint64_t segments = 0;
  uint64_t bytes = 0;
  uint64_t queues = 0;
  uint64_t files = 0;
};

struct Room {
  const char* key;   // "mutexes"
  const char* text;  // "mutexes"
  Ingredients each;
  std::optional<uint64_t> fit;  // how many more; nothing for no limit
  const char* limitedBy = "";   // the text of what ends first
};

class Limits {
 public:
  // Of the process's IPC namespace, the system and the file system of the directory. Throws CouldNotLook.
  explicit Limits(const std::string& ipcPath);

  const std::vector<Limit>& All() const { return all_; }
  const Limit& operator[](const char* key) const;

  std::vector<Room> RoomForObjects() const;
  // Those that a limit which is nearly reached or too low calls for; if none is, those of the objects'
  // numbers.
  std::vector<Raise> Raises(unsigned percent) const;

 private:
  void AddSemaphores();
  void AddSharedMemory();
  void AddQueues();
  void AddFiles();
  void AddDirectory(const std::string& path);

  std::vector<Limit> all_;
};

}  // namespace qvopl

#endif
