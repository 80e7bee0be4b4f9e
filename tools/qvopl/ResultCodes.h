// The library's result codes: what scripts/result-codes finds in the headers of include/ and in
// opl_err/codes/causes.txt.
#ifndef QVOPL_TOOL_RESULT_CODES_H
#define QVOPL_TOOL_RESULT_CODES_H

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace qvopl {

struct Module {
  uint32_t number;
  const char* name;
  const char* text;
};

// What leads to a code, and what to do.
struct Advice {
  const char* causes;
  const char* remedy;
};

// A function that returns a code, and when. Null: it hands the code on from a function beneath it.
struct Return {
  const char* function;
  const char* when;
};

struct ResultCode {
  uint32_t number;
  bool isReserved;
  const char* name;
  const char* header;
  const char* meaning;
  Advice advice;
  std::span<const Return> returns;
};

// By number.
std::span<const Module> Modules();
std::span<const ResultCode> ResultCodes();

// Null for a number of no module.
const Module* FindModule(uint32_t number);
inline uint32_t ModuleOf(uint32_t code) { return code >> 8 & 0xFF; }

// Usually one; none for a number that is no code.
std::vector<const ResultCode*> FindCodes(uint32_t number);
// With or without OPL_ at its beginning, in any case of letters. Null when there is none.
const ResultCode* FindCode(std::string_view name);

// What OPL_OK stands for.
const char* MeaningOfSuccess();

}  // namespace qvopl

#endif
