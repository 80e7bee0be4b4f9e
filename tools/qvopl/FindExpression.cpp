#include "tools/qvopl/FindExpression.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace qvopl {

namespace {

Answer Of(bool is) { return is ? Answer::kYes : Answer::kNo; }
Answer Not(Answer answer) { return answer == Answer::kMaybe ? answer : Of(answer == Answer::kNo); }

bool IsOneOf(std::string_view word, std::initializer_list<std::string_view> words) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

bool IsRemover(std::string_view command) {
  return IsOneOf(command.substr(command.rfind('/') + 1), {"rm", "unlink", "shred"});
}

// "+7": older than that, which a file of the year 2036 is not; "-7" and "7" are anybody's guess but for the
// first, which holds for it.
Answer IsOfAge(std::string_view age) {
  if (age.starts_with('+')) return Answer::kNo;
  return age.starts_with('-') ? Answer::kYes : Answer::kNo;
}

class Expression {
 public:
  Expression(const std::vector<std::string>& words, const JobTarget& target)
      : words_(words), target_(target) {}

  Answer Evaluate() {
    Answer last = Answer::kYes;
    while (at_ < words_.size()) {
      last = Or();
      if (Is(",") || Is(")")) ++at_;
    }
    return last;
  }

 private:
  bool Is(std::string_view word) const { return at_ < words_.size() && words_[at_] == word; }
  std::string_view Next() {
    if (at_ == words_.size()) return {};
    return words_[at_++];
  }

  // NOLINTBEGIN(misc-no-recursion): as deep as the parentheses of a command
  Answer Or() {
    Answer all = And();
    while (Is("-o") || Is("-or")) {
      ++at_;
      all = std::max(all, And());
    }
    return all;
  }

  Answer And() {
    Answer all = Answer::kYes;
    while (at_ < words_.size() && !Is("-o") && !Is("-or") && !Is(")") && !Is(",")) {
      if (Is("-a") || Is("-and")) ++at_;
      all = std::min(all, Term());
    }
    return all;
  }

  Answer Term() {
    if (Is("!") || Is("-not")) {
      ++at_;
      return Not(Term());
    }
    if (!Is("(")) return Test(Next());
    ++at_;
    const Answer inner = Or();
    if (Is(")")) ++at_;
    return inner;
  }
  // NOLINTEND(misc-no-recursion)

  Answer Test(std::string_view test) {
    if (IsOneOf(test, {"-atime", "-mtime", "-amin", "-mmin"})) return IsOfAge(Next());
    if (IsOneOf(test, {"-name", "-iname"})) return Matches(target_.name, test == "-iname");
    if (IsOneOf(test, {"-path", "-wholename", "-ipath"})) return Matches(target_.Path(), test == "-ipath");
    if (test == "-type") return Of(Next().find(target_.type) != std::string_view::npos);
    if (test == "-empty") return Of(target_.type == 'f' && target_.isEmpty);
    if (IsOneOf(test, {"-exec", "-execdir", "-ok", "-okdir"})) return SkipCommand();
    if (IsOneOf(test, {"-mindepth", "-maxdepth", "-regextype", "-printf", "-fprint"})) {
      (void)Next();
      return Answer::kYes;
    }
    if (TakesArgument(test)) {
      (void)Next();
      return Answer::kMaybe;
    }
    return IsOneOf(test, {"-nouser", "-nogroup", "-executable"}) ? Answer::kNo : Answer::kYes;
  }

  Answer Matches(const std::string& text, bool ignoresCase) {
    const std::string pattern(Next());
    return Of(::fnmatch(pattern.c_str(), text.c_str(), ignoresCase ? FNM_CASEFOLD : 0) == 0);
  }

  Answer SkipCommand() {
    while (at_ < words_.size() && !Is(";") && !Is("+")) ++at_;
    ++at_;
    return Answer::kYes;
  }

  // Tests whose answer is anybody's guess.
  static bool TakesArgument(std::string_view test) {
    return IsOneOf(test,
                   {"-ctime",  "-cmin",     "-newer", "-anewer",  "-cnewer",  "-user",    "-group", "-uid",
                    "-gid",    "-size",     "-perm",  "-regex",   "-iregex",  "-lname",   "-inum",  "-links",
                    "-fstype", "-samefile", "-used",  "-newermt", "-newerct", "-newerat", "-xtype"});
  }

  const std::vector<std::string>& words_;
  const JobTarget& target_;
  size_t at_ = 0;
};

}  // namespace

Answer FindMatches(const std::vector<std::string>& expression, const JobTarget& target) {
  return Expression(expression, target).Evaluate();
}

bool FindDeletes(const std::vector<std::string>& expression) {
  for (size_t i = 0; i < expression.size(); ++i) {
    if (expression[i] == "-delete") return true;
    if (!IsOneOf(expression[i], {"-exec", "-execdir", "-ok", "-okdir"})) continue;
    if (i + 1 < expression.size() && IsRemover(expression[i + 1])) return true;
  }
  return false;
}

}  // namespace qvopl
