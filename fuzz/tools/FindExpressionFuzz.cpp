// Expressions of find: those that are put together from tests with known answers have the effects that follow
// from them; any others end.
#include "tools/qvopl/FindExpression.h"

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/support/Input.h"

namespace {

using oplfuzz::Check;
using qvopl::Answer;
using qvopl::FindEffect;
using qvopl::JobTarget;
using Words = std::vector<std::string>;

const JobTarget kTarget{"/run/product", "x.mutex.y.006.021", 'f', false};

Answer Not(Answer answer) { return static_cast<Answer>(2 - static_cast<int>(answer)); }

struct Test {
  Words words;
  Answer answer;
};
const Test kTests[] = {
    {{"-name", "x.*"}, Answer::kYes}, {{"-name", "*.log"}, Answer::kNo},  {{"-user", "root"}, Answer::kMaybe},
    {{"-type", "f"}, Answer::kYes},   {{"-mtime", "+7"}, Answer::kNo},    {{"-ctime", "+7"}, Answer::kMaybe},
    {{"-true"}, Answer::kYes},        {{"-false"}, Answer::kNo},          {{"-maxdepth", "1"}, Answer::kYes},
    {{"-prune"}, Answer::kYes},       {{"-path", "/run/*"}, Answer::kYes}};

// Draws an expression word by word, and follows what find does: a word is come to as far as "reached" says.
class Drawn {
 public:
  explicit Drawn(oplfuzz::Input* input) : input_(*input) {
    const Answer last = List(Answer::kYes, 0);
    if (!hasAction_) effect_.prints = last;
  }

  const Words& words() const { return words_; }
  const FindEffect& effect() const { return effect_; }

 private:
  Answer List(Answer reached, int depth) {
    Answer last = Or(reached, depth);
    while (input_.Below(8) == 1) {
      words_.emplace_back(",");
      last = Or(reached, depth);
    }
    return last;
  }

  Answer Or(Answer reached, int depth) {
    Answer all = And(reached, depth);
    while (input_.Below(3) == 1) {
      words_.emplace_back(input_.Coin() ? "-o" : "-or");
      all = std::max(all, And(std::min(reached, Not(all)), depth));
    }
    return all;
  }

  Answer And(Answer reached, int depth) {
    Answer all = Term(reached, depth);
    while (input_.Below(3) == 1) {
      if (input_.Coin()) words_.emplace_back("-a");
      all = std::min(all, Term(std::min(reached, all), depth));
    }
    return all;
  }

  Answer Term(Answer reached, int depth) {
    const uint32_t kind = input_.Below(8);
    if (kind == 1) {
      words_.emplace_back("!");
      return Not(Term(reached, depth));
    }
    if (kind == 2 && depth < 20) {
      words_.emplace_back("(");
      const Answer inner = List(reached, depth + 1);
      words_.emplace_back(")");
      return inner;
    }
    if (kind == 3) return Act({"-delete"}, reached, &effect_.deletes);
    if (kind == 4) return Act({"-exec", "/bin/rm", "{}", ";"}, reached, &effect_.deletes);
    if (kind == 5) return Act({"-print0"}, reached, &effect_.prints);
    const Test& test = kTests[input_.Below(std::size(kTests))];
    words_.insert(words_.end(), test.words.begin(), test.words.end());
    return test.answer;
  }

  Answer Act(const Words& words, Answer reached, Answer* effect) {
    words_.insert(words_.end(), words.begin(), words.end());
    hasAction_ = true;
    *effect = std::max(*effect, reached);
    return Answer::kYes;
  }

  oplfuzz::Input& input_;
  Words words_;
  bool hasAction_ = false;
  FindEffect effect_;
};

Words AnyWords(oplfuzz::Input* input) {
  const char* const kWords[] = {"(", ")", "!", "-o", "-a", ",", "-exec", "+", "{}", ";", "-name", "-delete"};
  Words words;
  while (!input->IsEmpty())
    words.push_back(input->Coin() ? kWords[input->Below(std::size(kWords))] : input->Text(8));
  return words;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  oplfuzz::Input input(data, size);
  if (input.Coin()) {
    (void)qvopl::EffectOfFind(AnyWords(&input), kTarget);
    return 0;
  }
  const Drawn drawn(&input);
  const FindEffect effect = qvopl::EffectOfFind(drawn.words(), kTarget);
  Check(effect.deletes == drawn.effect().deletes);
  Check(effect.prints == drawn.effect().prints);
  return 0;
}
