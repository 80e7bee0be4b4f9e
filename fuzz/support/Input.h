// What the fuzz targets share: drawing values from the fuzzer's bytes, of which those missing at the end are
// 0, and reporting what does not hold.
#ifndef OPL_FUZZ_SUPPORT_INPUT_H
#define OPL_FUZZ_SUPPORT_INPUT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace oplfuzz {

class Input {
 public:
  Input(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}

  bool IsEmpty() const { return at_ == end_; }

  uint8_t Byte() { return at_ != end_ ? *at_++ : uint8_t{0}; }

  uint32_t Word() {
    uint32_t word = 0;
    for (int i = 0; i < 4; ++i) word = word << 8 | Byte();
    return word;
  }

  // A number below limit, which is at least 1.
  uint32_t Below(uint32_t limit) { return (limit <= 256 ? Byte() : Word()) % limit; }

  bool Coin() { return Byte() % 2 != 0; }

  template <size_t kSize>
  char Of(const char (&characters)[kSize]) {
    return characters[Below(kSize - 1)];
  }

  // Some bytes without a NUL among them, at most so many.
  std::string Text(uint32_t longest) {
    std::string text;
    for (uint32_t left = Below(longest + 1); left != 0 && !IsEmpty(); --left) {
      const auto character = static_cast<char>(Byte());
      if (character != '\0') text += character;
    }
    return text;
  }

 private:
  const uint8_t* at_;
  const uint8_t* const end_;
};

// Ends the run with a report when something that always holds does not.
inline void Check(bool holds) {
  if (!holds) __builtin_trap();
}

}  // namespace oplfuzz

#endif
