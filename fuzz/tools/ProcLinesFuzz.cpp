// Lines of /proc, with names of processes and files that are anybody's: a line that is made as the system
// makes it says what it was made of, and any other is taken or left.
#include "tools/qvopl/ProcLines.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "fuzz/support/Input.h"

namespace {

using oplfuzz::Check;

std::string Hexadecimal(uint64_t number) {
  char text[24];
  (void)std::snprintf(text, sizeof text, "%08llx", static_cast<unsigned long long>(number));
  return text;
}

void CheckStat(oplfuzz::Input* input) {
  const std::string name = input->Text(40);
  const uint64_t ticks = input->Word();
  std::string text = "4711 (" + name + ") S";
  for (int field = 4; field < 22; ++field) text += " -1";
  const auto line = qvopl::ParseStat(text + " " + std::to_string(ticks) + " 0 0\n");
  Check(line.has_value() && line->name == name && line->state == 'S' && line->startTicks == ticks);
}

void CheckSegment(oplfuzz::Input* input) {
  const uint32_t address = input->Word();
  const uint32_t id = input->Word() / 2;
  const bool isBegin = input->Coin();
  const auto line = qvopl::ParseSegment(Hexadecimal(address) + "-" + Hexadecimal(uint64_t{address} + 4096) +
                                        " rw-s " + (isBegin ? "00000000" : "00001000") + " 00:01 " +
                                        std::to_string(id) + "      /SYSV00000000 (deleted)");
  Check(line.has_value() == isBegin);
  if (isBegin) Check(line->address == address && line->id == static_cast<int32_t>(id));
}

void CheckLock(oplfuzz::Input* input) {
  const bool isWaiting = input->Coin();
  const auto process = static_cast<pid_t>(input->Word());
  const uint32_t inode = input->Word();
  const auto line =
      qvopl::ParseLock(std::string("12: ") + (isWaiting ? "-> " : "") + "POSIX  ADVISORY  WRITE " +
                       std::to_string(process) + " 08:01:" + std::to_string(inode) + " 0 EOF");
  Check(line.has_value() && line->isWaiting == isWaiting && line->process == process && line->inode == inode);
}

void CheckSocket(oplfuzz::Input* input) {
  const uint32_t number = input->Word();
  const bool isListening = input->Coin();
  std::string path = input->Text(108);
  std::erase(path, '\n');
  const auto line = qvopl::ParseSocket("0000000000000000: 00000002 00000000 " +
                                       std::string(isListening ? "00010000" : "00000000") + " 0001 01 " +
                                       std::to_string(number) + (path.empty() ? "" : " " + path));
  Check(line.has_value() == !path.empty());
  if (!path.empty()) Check(line->number == number && line->isListening == isListening && line->path == path);
}

void TakeAny(oplfuzz::Input* input) {
  std::string text;
  while (!input->IsEmpty()) text += static_cast<char>(input->Byte());
  (void)qvopl::ParseStat(text);
  (void)qvopl::ParseSegment(text);
  (void)qvopl::ParseLock(text);
  (void)qvopl::ParseSocket(text);
  Check(qvopl::LastComponent(text).find('/') == std::string_view::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr void (*kChecks[])(oplfuzz::Input*) = {CheckStat, CheckSegment, CheckLock, CheckSocket, TakeAny};
  oplfuzz::Input input(data, size);
  kChecks[input.Below(std::size(kChecks))](&input);
  return 0;
}
