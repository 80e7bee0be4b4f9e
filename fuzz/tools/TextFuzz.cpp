// Any bytes as a terminal and JSON get them: what is printable has no character that a terminal obeys or does
// not show, says what the bytes were, and fits the columns that it is wrapped to.
#include "tools/qvopl/Text.h"

#include <cwchar>
#include <cwctype>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <string>

#include "fuzz/support/Input.h"

namespace {

using oplfuzz::Check;

// The characters of a text of the locale; fails the run where there is another.
std::wstring CharactersOf(const std::string& text) {
  std::wstring characters;
  for (size_t at = 0; at < text.size();) {
    wchar_t character = 0;
    std::mbstate_t state{};
    const size_t bytes = std::mbrtowc(&character, text.data() + at, text.size() - at, &state);
    Check(bytes <= text.size() - at);
    at += std::max(bytes, size_t{1});
    characters += character;
  }
  return characters;
}

// What \xNN and \\ stand for.
std::string Unescaped(const std::string& printable) {
  std::string text;
  for (size_t at = 0; at < printable.size(); ++at) {
    if (printable[at] != '\\') {
      text += printable[at];
    } else if (printable.compare(at, 2, "\\x") == 0) {
      text += static_cast<char>(std::strtoul(printable.substr(at + 2, 2).c_str(), nullptr, 16));
      at += 3;
    } else {
      Check(printable.compare(at, 2, "\\\\") == 0);
      text += printable[++at];
    }
  }
  return text;
}

std::string WithoutBlanks(std::string text) {
  std::erase(text, ' ');
  return text;
}

void CheckPrintable(const std::string& printable, const std::string& text) {
  size_t columns = 0;
  for (const wchar_t character : CharactersOf(printable)) {
    Check(std::iswprint(static_cast<std::wint_t>(character)) != 0 && ::wcwidth(character) > 0);
    columns += static_cast<size_t>(::wcwidth(character));
  }
  Check(qvopl::ColumnsOf(printable) == columns);
  Check(Unescaped(printable) == text);
}

// A character may be two columns wide.
void CheckWrapped(const std::string& printable, size_t columns) {
  std::string joined;
  for (const std::string& line : qvopl::Wrapped(printable, columns)) {
    Check(qvopl::ColumnsOf(line) <= std::max(columns, size_t{2}));
    joined += line;
  }
  Check(WithoutBlanks(joined) == WithoutBlanks(printable));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Check(std::setlocale(LC_ALL, "C.UTF-8") != nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  oplfuzz::Input input(data, size);
  const size_t columns = input.Below(100);
  std::string text;
  while (!input.IsEmpty()) text += static_cast<char>(input.Byte());
  const std::string printable = qvopl::Printable(text);
  CheckPrintable(printable, text);
  CheckWrapped(printable, columns);
  const std::string json = qvopl::JsonText(text);
  Check(json == text || json == printable);
  (void)CharactersOf(json);
  return 0;
}
