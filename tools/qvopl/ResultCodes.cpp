#include "tools/qvopl/ResultCodes.h"

#include <strings.h>

#include <algorithm>
#include <string>

namespace qvopl {

namespace {

#include "ResultCodes.inc"

}  // namespace

std::span<const Module> Modules() { return kModules; }
std::span<const ResultCode> ResultCodes() { return kResultCodes; }
const char* MeaningOfSuccess() { return kMeaningOfSuccess; }

const Module* FindModule(uint32_t number) {
  const auto* const found = std::ranges::find(kModules, number, &Module::number);
  return found == std::end(kModules) ? nullptr : found;
}

std::vector<const ResultCode*> FindCodes(uint32_t number) {
  std::vector<const ResultCode*> found;
  for (const ResultCode& code : kResultCodes)
    if (code.number == number) found.push_back(&code);
  return found;
}

const ResultCode* FindCode(std::string_view name) {
  const std::string wanted(name);
  const std::string whole = "OPL_" + wanted;
  for (const ResultCode& code : kResultCodes)
    if (::strcasecmp(code.name, wanted.c_str()) == 0 || ::strcasecmp(code.name, whole.c_str()) == 0)
      return &code;
  return nullptr;
}

}  // namespace qvopl
