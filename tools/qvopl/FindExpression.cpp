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

// Deeper than that no job's parentheses are; where somebody's are, what follows is anybody's guess.
constexpr int kDeepest = 200;

class Expression {
 public:
  Expression(const std::vector<std::string>& words, const JobTarget& target)
      : words_(words), target_(target) {}

  FindEffect Evaluate() {
    Answer last = Answer::kYes;
    while (at_ < words_.size()) {
      last = List();
      if (Is(")")) ++at_;
    }
    if (!hasAction_) effect_.prints = last;
    if (isTooDeep_) effect_ = {Answer::kMaybe, Answer::kMaybe};
    return effect_;
  }

 private:
  bool Is(std::string_view word) const { return at_ < words_.size() && words_[at_] == word; }
  std::string_view Next() {
    if (at_ >= words_.size()) return {};
    return words_[at_++];
  }

  // NOLINTBEGIN(misc-no-recursion): as deep as the parentheses of a command, but for the limit
  Answer List() {
    Answer last = Or();
    while (Is(",")) {
      ++at_;
      last = Or();
    }
    return last;
  }

  // What stands behind an "or" is come to where what stands before does not hold.
  Answer Or() {
    const Answer before = reached_;
    Answer all = And();
    while (Is("-o") || Is("-or")) {
      ++at_;
      reached_ = std::min(before, Not(all));
      all = std::max(all, And());
    }
    reached_ = before;
    return all;
  }

  Answer And() {
    const Answer before = reached_;
    Answer all = Answer::kYes;
    while (at_ < words_.size() && !Is("-o") && !Is("-or") && !Is(")") && !Is(",")) {
      if (Is("-a") || Is("-and")) ++at_;
      reached_ = std::min(before, all);
      all = std::min(all, Term());
    }
    reached_ = before;
    return all;
  }

  Answer Term() {
    bool isNegated = false;
    for (; Is("!") || Is("-not"); ++at_) isNegated = !isNegated;
    const Answer answer = Is("(") ? Parentheses() : Test(Next());
    return isNegated ? Not(answer) : answer;
  }

  Answer Parentheses() {
    if (depth_ == kDeepest) {
      isTooDeep_ = true;
      at_ = words_.size();
      return Answer::kMaybe;
    }
    ++depth_;
    ++at_;
    const Answer inner = List();
    if (Is(")")) ++at_;
    --depth_;
    return inner;
  }
  // NOLINTEND(misc-no-recursion)

  Answer Test(std::string_view test) {
    if (IsOneOf(test, {"-atime", "-mtime", "-amin", "-mmin"})) return IsOfAge(Next());
    if (IsOneOf(test, {"-name", "-iname"})) return Matches(target_.name, test == "-iname");
    if (IsOneOf(test, {"-path", "-wholename", "-ipath"})) return Matches(target_.Path(), test == "-ipath");
    if (test == "-type") return Of(Next().find(target_.type) != std::string_view::npos);
    if (test == "-empty") return Of(target_.type == 'f' && target_.isEmpty);
    if (test == "-false") return Answer::kNo;
    if (test == "-delete") return Act(&effect_.deletes);
    if (IsOneOf(test, {"-print", "-print0", "-ls"})) return Act(&effect_.prints);
    if (IsOneOf(test, {"-exec", "-execdir", "-ok", "-okdir"})) return RunCommand();
    if (IsOneOf(test, {"-printf", "-fprintf", "-fprint", "-fprint0", "-fls"})) {
      if (test == "-fprintf") (void)Next();
      (void)Next();
      return test == "-printf" ? Act(&effect_.prints) : Act(nullptr);
    }
    if (IsOneOf(test, {"-mindepth", "-maxdepth", "-regextype"})) {
      (void)Next();
      return Answer::kYes;
    }
    if (TakesArgument(test)) {
      (void)Next();
      return Answer::kMaybe;
    }
    return IsOneOf(test, {"-nouser", "-nogroup", "-executable"}) ? Answer::kNo : Answer::kYes;
  }

  // With an action of its own, an expression prints nothing unasked.
  Answer Act(Answer* effect) {
    hasAction_ = true;
    if (effect != nullptr) *effect = std::max(*effect, reached_);
    return Answer::kYes;
  }

  Answer Matches(const std::string& text, bool ignoresCase) {
    const std::string pattern(Next());
    return Of(::fnmatch(pattern.c_str(), text.c_str(), ignoresCase ? FNM_CASEFOLD : 0) == 0);
  }

  // One command for each file is a test, too: it holds where the command succeeds.
  Answer RunCommand() {
    const bool removes = at_ < words_.size() && IsRemover(words_[at_]);
    (void)Act(removes ? &effect_.deletes : nullptr);
    const size_t first = at_;
    while (at_ < words_.size() && !Is(";") && !(Is("+") && at_ > first && words_[at_ - 1] == "{}")) ++at_;
    return Next() == "+" || removes ? Answer::kYes : Answer::kMaybe;
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
  int depth_ = 0;
  bool isTooDeep_ = false;
  bool hasAction_ = false;
  Answer reached_ = Answer::kYes;  // whether find comes to where at_ is
  FindEffect effect_;
};

}  // namespace

FindEffect EffectOfFind(const std::vector<std::string>& expression, const JobTarget& target) {
  return Expression(expression, target).Evaluate();
}

}  // namespace qvopl
