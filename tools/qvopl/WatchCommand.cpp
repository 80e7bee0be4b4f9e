// qvopl watch: the list, live.
#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "tools/qvopl/Changes.h"
#include "tools/qvopl/Command.h"
#include "tools/qvopl/Listing.h"
#include "tools/qvopl/Objects.h"
#include "tools/qvopl/Terminal.h"
#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

struct Options {
  std::vector<std::string> names;
  double seconds = 2;
  uint64_t count = 0;  // looks; 0 for no end
};

// The groups as they were when they were looked at, with what has changed.
class Watched {
 public:
  Watched(const Settings& settings, const Options& options)
      : settings_(settings), selection_{settings.instance, options.names} {}

  // The directory may have been made anew.
  void Look() {
    const IpcDirectory directory(settings_.ipcPath);
    View view(directory);
    groups_ = LookAtObjects(&view, selection_);
    now_ = view.now;
    hasBroken_ = HasBroken(groups_);
    changes_.Look(&groups_, MonotonicMs());
  }

  std::vector<std::string> Lines(const Screen& screen) const {
    if (groups_.empty()) return {"no objects"};
    return LinesOf(groups_, now_, screen, &changes_);
  }

  std::string JsonLine() const {
    Json json = {{"time", now_}, {"ipcPath", JsonText(settings_.ipcPath)}, {"groups", Json::array()}};
    for (const Group& group : groups_) {
      Json entry = ToJson(group);
      for (size_t i = 0; i < group.objects.size(); ++i) {
        entry["objects"][i]["change"] = NameOf(changes_.Of(group.objects[i]));
        entry["objects"][i]["operationsPerMinute"] = changes_.OperationsOf(group.objects[i]);
      }
      json["groups"].push_back(std::move(entry));
    }
    return Dump(json, -1);
  }

  std::string Title() const { return Time(now_) + "  " + Printable(settings_.ipcPath); }
  int ExitStatus() const { return hasBroken_ ? kFound : kFine; }

 private:
  const Settings& settings_;
  const Selection selection_;
  std::vector<Group> groups_;
  Changes changes_;
  int64_t now_ = 0;
  bool hasBroken_ = false;
};

int64_t IntervalMs(const Options& options) {
  return static_cast<int64_t>(std::lround(options.seconds * 1000));
}

void Sleep(int64_t untilMs) {
  const int64_t leftMs = std::max(untilMs - MonotonicMs(), int64_t{0});
  timespec left{};
  left.tv_sec = static_cast<time_t>(leftMs / 1000);
  left.tv_nsec = static_cast<long>(leftMs % 1000 * 1000000);
  (void)::nanosleep(&left, nullptr);
}

// One list after the other, for files and pipes.
int WatchPlainly(const Settings& settings, const Options& options) {
  Watched watched(settings, options);
  int64_t nextMs = MonotonicMs();
  for (uint64_t look = 1;; ++look) {
    watched.Look();
    if (settings.json) {
      std::puts(watched.JsonLine().c_str());
    } else {
      if (look != 1) std::puts("");
      std::puts(watched.Title().c_str());
      for (const std::string& line : watched.Lines(settings.screen)) std::puts(line.c_str());
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
      throw CouldNotLook("the output could not be written");
    if (look == options.count) return watched.ExitStatus();
    Sleep(nextMs += IntervalMs(options));
  }
}

// Which lines are in sight.
class Scroll {
 public:
  void Press(char key) {
    if (key == kKeyDown) ++first_;
    if (key == kKeyUp && first_ != 0) --first_;
    if (key == kKeyPageDown) first_ += page_;
    if (key == kKeyPageUp) first_ -= std::min(first_, page_);
    if (key == kKeyBeginning) first_ = 0;
  }

  std::vector<std::string> Cut(std::vector<std::string> lines, size_t rows) {
    page_ = rows;
    first_ = std::min(first_, lines.size() > rows ? lines.size() - rows : size_t{0});
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(first_));
    if (lines.size() > rows) lines.resize(rows);
    return lines;
  }

  std::string Where(size_t all) const {
    if (all <= page_) return "";
    return ", lines " + Number(static_cast<int64_t>(first_ + 1)) + " to " +
           Number(static_cast<int64_t>(std::min(first_ + page_, all))) + " of " +
           Number(static_cast<int64_t>(all)) + ": j k space b";
  }

 private:
  size_t first_ = 0;
  size_t page_ = 1;
};

void Draw(const Watched& watched, bool colour, Scroll* scroll) {
  const Terminal::Size size = Terminal::SizeNow();
  const Screen screen{size.columns, colour};
  std::vector<std::string> lines = watched.Lines(screen);
  const size_t all = lines.size();
  lines = scroll->Cut(std::move(lines), std::max(size.rows, size_t{2}) - 1);
  lines.insert(lines.begin(),
               Styled(watched.Title() + "  q quits" + scroll->Where(all), Style::kTitle, colour));
  Terminal::Draw(lines);
}

// Ends as the signal would have ended the program, once the terminal is as it was.
int EndBySignal(int signal) {
  (void)::raise(signal);
  return kCouldNotLook;
}

int WatchOnTerminal(const Settings& settings, const Options& options) {
  Watched watched(settings, options);
  Scroll scroll;
  int signal = 0;
  watched.Look();
  {
    Terminal terminal;
    int64_t nextMs = MonotonicMs() + IntervalMs(options);
    uint64_t look = 1;
    for (bool goesOn = true; goesOn;) {
      Draw(watched, settings.screen.colour, &scroll);
      char key = 0;
      switch (terminal.Await(nextMs, &key)) {
        case Terminal::Event::kTime:
          goesOn = look++ != options.count;
          if (goesOn) watched.Look();
          nextMs = std::max(nextMs + IntervalMs(options), MonotonicMs());
          break;
        case Terminal::Event::kKey:
          goesOn = key != 'q' && key != 'Q';
          scroll.Press(key);
          break;
        case Terminal::Event::kResize:
          break;
        case Terminal::Event::kEnd:
          goesOn = false;
          signal = terminal.EndingSignal();
      }
    }
  }
  return signal != 0 ? EndBySignal(signal) : watched.ExitStatus();
}

int Watch(const Settings& settings, const Options& options) {
  const bool isOnTerminal = settings.screen.width != 0 && !settings.json;
  return isOnTerminal ? WatchOnTerminal(settings, options) : WatchPlainly(settings, options);
}

// No number is in no range, either.
std::string WhyNoInterval(const std::string& text) {
  const double seconds = std::strtod(text.c_str(), nullptr);
  return seconds >= 0.1 && seconds <= 86400 ? "" : text + " is not from 0.1 to 86400";
}

}  // namespace

void AddWatchCommand(const Program& program) {
  static Options options;
  CLI::App* const command =
      AddCommand(program,
                 {"watch", "Shows the list live, and marks what changes: + new, * changed, - gone",
                  "  qvopl watch                       all objects, until q is pressed\n"
                  "  qvopl watch queue 'work*'         some\n"
                  "  qvopl watch --count 3 > lists     three lists, one after the other\n"
                  "  qvopl watch --json --interval 10  an object of JSON a line, every ten seconds\n"},
                 [](const Settings& settings) { return Watch(settings, options); });
  command->add_option("NAME", options.names, "Names of objects or files, or patterns of them");
  command->add_option("--interval", options.seconds, "Seconds between two looks; else 2")
      ->type_name("SECONDS")
      ->check(WhyNoInterval);
  command->add_option("--count", options.count, "How many looks; else no end")
      ->type_name("NUMBER")
      ->check(CLI::PositiveNumber);
}

}  // namespace qvopl
