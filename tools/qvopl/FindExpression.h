// What a find command of a clean-up job would do to a file, told from its arguments alone.
#ifndef QVOPL_TOOL_FIND_EXPRESSION_H
#define QVOPL_TOOL_FIND_EXPRESSION_H

#include <string>
#include <vector>

namespace qvopl {

// A file as the jobs see it: its times of access and modification lie in the year 2036, that of its change is
// old.
struct JobTarget {
  std::string directory;
  std::string name;
  char type = 'f';  // as find's -type takes it
  bool isEmpty = false;

  std::string Path() const { return directory + "/" + name; }
};

enum class Answer { kNo, kMaybe, kYes };

// Whether it deletes the file by itself, and whether it prints the name for another command.
struct FindEffect {
  Answer deletes = Answer::kNo;
  Answer prints = Answer::kNo;
};

// Of the expression, which is what follows the paths.
FindEffect EffectOfFind(const std::vector<std::string>& expression, const JobTarget& target);

}  // namespace qvopl

#endif
