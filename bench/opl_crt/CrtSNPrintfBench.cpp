// The formatter on what the library formats all day, against libc's and fmt's. Each of the three gets the
// same data and yields the same text, cut and terminated.
#include <fmt/format.h>

#include <cstdint>
#include <cstdio>
#include <iterator>
#include <string>

#include "OPL_Crt.h"
#include "bench/support/Bench.h"

namespace {

constexpr size_t kSize = 512;

// Formats over and over; format(buffer) sees data that the compiler cannot know.
template <typename Data, typename Format>
void Repeat(benchmark::State& state, Format format) {
  Data data;
  benchmark::DoNotOptimize(data);
  char buffer[kSize];
  for (auto _ : state) {
    benchmark::ClobberMemory();
    format(buffer, data);
    benchmark::DoNotOptimize(buffer);
  }
}

template <typename... Arguments>
void FormatFmt(char* buffer, fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  const auto result = fmt::format_to_n(buffer, kSize - 1, format, std::forward<Arguments>(arguments)...);
  *result.out = '\0';
}

struct Semop {
  const char* function = "OPL_SyncMutexAcquire";
  const char* file = "/var/opt/meridian/ipc/queue.mutex.PROD01.006.021";
  unsigned long semaphore = 1;
  int error = 43;
  const char* text = "Identifier removed";

  static void Opl(benchmark::State& state) {
    Repeat<Semop>(state, [](char* buffer, const Semop& data) {
      (void)OPL_CrtSNPrintf(buffer, kSize, "%s(%s): semop(%lu) error :%i,%s", data.function, data.file,
                            data.semaphore, data.error, data.text);
    });
  }
  static void Libc(benchmark::State& state) {
    Repeat<Semop>(state, [](char* buffer, const Semop& data) {
      (void)std::snprintf(buffer, kSize, "%s(%s): semop(%lu) error :%i,%s", data.function, data.file,
                          data.semaphore, data.error, data.text);
    });
  }
  static void Fmt(benchmark::State& state) {
    Repeat<Semop>(state, [](char* buffer, const Semop& data) {
      FormatFmt(buffer, "{}({}): semop({}) error :{},{}", data.function, data.file, data.semaphore,
                data.error, data.text);
    });
  }
};

struct FileName {
  const char* directory = "/var/opt/meridian/ipc";
  const char* name = "queue";
  const char* marker = "mutex";
  const char* instance = "PROD01";
  const char* version = "006.021";

  static void Opl(benchmark::State& state) {
    Repeat<FileName>(state, [](char* buffer, const FileName& data) {
      (void)OPL_CrtSNPrintf(buffer, kSize, "%s/%s.%s.%s.%s", data.directory, data.name, data.marker,
                            data.instance, data.version);
    });
  }
  static void Libc(benchmark::State& state) {
    Repeat<FileName>(state, [](char* buffer, const FileName& data) {
      (void)std::snprintf(buffer, kSize, "%s/%s.%s.%s.%s", data.directory, data.name, data.marker,
                          data.instance, data.version);
    });
  }
  static void Fmt(benchmark::State& state) {
    Repeat<FileName>(state, [](char* buffer, const FileName& data) {
      FormatFmt(buffer, "{}/{}.{}.{}.{}", data.directory, data.name, data.marker, data.instance,
                data.version);
    });
  }
};

struct Numbers {
  uint32_t padded = 271828;
  int32_t justified = -42;
  uint32_t hexadecimal = 0xBEEF;

  static void Opl(benchmark::State& state) {
    Repeat<Numbers>(state, [](char* buffer, const Numbers& data) {
      (void)OPL_CrtSNPrintf(buffer, kSize, "%08u|%-6d|%#x", data.padded, data.justified, data.hexadecimal);
    });
  }
  static void Libc(benchmark::State& state) {
    Repeat<Numbers>(state, [](char* buffer, const Numbers& data) {
      (void)std::snprintf(buffer, kSize, "%08u|%-6d|%#x", data.padded, data.justified, data.hexadecimal);
    });
  }
  static void Fmt(benchmark::State& state) {
    Repeat<Numbers>(state, [](char* buffer, const Numbers& data) {
      FormatFmt(buffer, "{:08}|{:<6}|{:#x}", data.padded, data.justified, data.hexadecimal);
    });
  }
};

struct LongText {
  std::string text = std::string(700, 'x');

  static void Opl(benchmark::State& state) {
    Repeat<LongText>(state, [](char* buffer, const LongText& data) {
      (void)OPL_CrtSNPrintf(buffer, kSize, "%s: %s", "OPL_SyncMutexAcquire", data.text.c_str());
    });
  }
  static void Libc(benchmark::State& state) {
    Repeat<LongText>(state, [](char* buffer, const LongText& data) {
      (void)std::snprintf(buffer, kSize, "%s: %s", "OPL_SyncMutexAcquire", data.text.c_str());
    });
  }
  static void Fmt(benchmark::State& state) {
    Repeat<LongText>(state, [](char* buffer, const LongText& data) {
      FormatFmt(buffer, "{}: {}", "OPL_SyncMutexAcquire", data.text.c_str());
    });
  }
};

template <typename Text>
oplbench::Row FormatRow(const char* what) {
  return {what, Text::Opl, {{"snprintf", Text::Libc, 0.5}, {"fmt::format_to_n", Text::Fmt, 1.0}}};
}

const oplbench::Row kSemop = FormatRow<Semop>("format: semop message");
const oplbench::Row kFileName = FormatRow<FileName>("format: IPC file name");
const oplbench::Row kNumbers = FormatRow<Numbers>("format: padded numbers");
const oplbench::Row kLongText = FormatRow<LongText>("format: long text cut at 512");

}  // namespace
