// qvopl server: starting, asking, listing and stopping daemons of either width, with its parameters as
// options and in a file.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "OPL_Server.h"
#include "tests/opl_server/Daemons.h"
#include "tests/support/SemaphoreSets.h"
#include "tests/tools/Tool.h"

namespace {

using nlohmann::json;
using opltest::Begun;
using opltest::ContentsOf;
using opltest::ControllerFile;
using opltest::FakeScripts;
using opltest::InstanceString;
using opltest::IpcDirectory;
using opltest::JsonOf;
using opltest::ListProcesses;
using opltest::NameSpawner;
using opltest::PidBytes;
using opltest::ToolRun;
using opltest::WriteFile;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

// The library is not begun in the test: what there is of the instance is the program's and the daemon's.
class ToolServer : public opltest::Daemons {
 protected:
  ToolServer() { beginsLibrary_ = false; }

  std::vector<std::string> Line(const std::string& command, int width = opltest::kWidth) const {
    return {"server",
            command,
            "--script-directory",
            QVOPL_SERVER_SCRIPTS,
            "--controller-name",
            "ctl",
            "--executable-path",
            opltest::DaemonOf(width),
            "--process-name",
            name_,
            "--instance",
            InstanceString()};
  }

  ToolRun Run(const std::string& command, const std::vector<std::string>& more = {},
              int daemonWidth = opltest::kWidth, int width = opltest::kWidth) const {
    std::vector<std::string> line = Line(command, daemonWidth);
    line.insert(line.end(), more.begin(), more.end());
    return opltest::RunTool(line, width);
  }

  json Status() const { return JsonOf(Run("status", {"--json"})); }

  // The daemon's reports until it is ready.
  Begun AwaitReady() {
    const Begun begun = AwaitBegun(name_);
    EXPECT_EQ("ready", Event());
    return begun;
  }

  void StopAndReap() {
    EXPECT_EQ(0, Run("stop").status);
    AwaitEndOfAll();
  }
};

struct Widths {
  int tool;
  int daemon;
};

class ToolServerWidths : public ToolServer, public ::testing::WithParamInterface<Widths> {
 protected:
  void SetUp() override {
    ToolServer::SetUp();
    if (opltest::ToolOf(GetParam().tool).empty() || opltest::DaemonOf(GetParam().daemon).empty())
      GTEST_SKIP() << "one of the widths was not built";
  }
  ToolRun RunBoth(const std::string& command, const std::vector<std::string>& more = {}) const {
    return Run(command, more, GetParam().daemon, GetParam().tool);
  }
};
INSTANTIATE_TEST_SUITE_P(ToolAndDaemon, ToolServerWidths,
                         ::testing::Values(Widths{32, 32}, Widths{32, 64}, Widths{64, 32}, Widths{64, 64}),
                         [](const ::testing::TestParamInfo<Widths>& each) {
                           return "Tool" + std::to_string(each.param.tool) + "Daemon" +
                                  std::to_string(each.param.daemon);
                         });

TEST_P(ToolServerWidths, StartsAsksListsAndStops) {
  EXPECT_EQ(1, RunBoth("status").status);
  const ToolRun start = RunBoth("start");
  EXPECT_EQ(0, start.status) << start.out << start.err;
  const Begun begun = AwaitReady();
  const std::string pid = std::to_string(begun.pid);
  EXPECT_EQ(name_ + ": started, process " + pid + "\n", start.out);
  EXPECT_EQ(PidBytes(static_cast<uint32_t>(begun.pid)), ContentsOf(ControllerFile()));

  const ToolRun status = RunBoth("status");
  EXPECT_EQ(0, status.status);
  EXPECT_EQ(name_ + ": started, process " + pid + "\n", status.out);
  const ToolRun list = RunBoth("ps", {"--json"});
  EXPECT_EQ(0, list.status);
  const json processes = JsonOf(list)["processes"];
  ASSERT_EQ(1u, processes.size());
  EXPECT_EQ(begun.pid, processes[0]["pid"]);
  EXPECT_EQ(::getpid(), processes[0]["parent"]);
  EXPECT_EQ(true, processes[0]["controller"]);

  const ToolRun stop = RunBoth("stop");
  EXPECT_EQ(0, stop.status) << stop.out << stop.err;
  EXPECT_EQ(name_ + ": stopped\n", stop.out);
  EXPECT_EQ("ended 0 77", Event());
  AwaitEndOfAll();
  EXPECT_FALSE(Exists(ControllerFile()));
  const ToolRun after = RunBoth("status");
  EXPECT_EQ(1, after.status);
  EXPECT_EQ(name_ + ": does not run\n", after.out);
  EXPECT_EQ(1, RunBoth("ps").status);
}

TEST_P(ToolServerWidths, TerminatesAndKills) {
  EXPECT_EQ(0, RunBoth("start").status);
  (void)AwaitReady();
  EXPECT_EQ(0, RunBoth("terminate").status);
  EXPECT_EQ("ended 0 77", Event());
  EXPECT_EQ(0, RunBoth("start").status);
  const Begun begun = AwaitReady();
  EXPECT_EQ(0, RunBoth("kill").status);
  AwaitEndOfAll();
  const ToolRun status = RunBoth("status");
  EXPECT_EQ(1, status.status);
  EXPECT_EQ(
      name_ + ": does not run; a controller file was left by process " + std::to_string(begun.pid) + "\n",
      status.out);
  EXPECT_EQ(0, ::unlink(ControllerFile().c_str()));
}

TEST_F(ToolServer, TellsJson) {
  const json start = JsonOf(Run("start", {"--json"}));
  const Begun begun = AwaitReady();
  EXPECT_EQ("start", start["action"]);
  EXPECT_EQ("OPL_OK", start["name"]);
  EXPECT_EQ("0x000000", start["code"]);
  EXPECT_EQ(begun.pid, start["pid"]);
  EXPECT_EQ(InstanceString(), start["instance"]);
  const json status = Status();
  EXPECT_EQ("started", status["state"]);
  EXPECT_EQ(begun.pid, status["controller"]["pid"]);
  EXPECT_EQ(begun.pid, status["processes"][0]["pid"]);
  const json stop = JsonOf(Run("stop", {"--json"}));
  EXPECT_EQ("stop", stop["action"]);
  EXPECT_EQ(nullptr, stop["pid"]);
  AwaitEndOfAll();
}

TEST_F(ToolServer, RefusesToStartWhatRuns) {
  EXPECT_EQ(0, Run("start").status);
  (void)AwaitReady();
  const ToolRun again = Run("start");
  EXPECT_EQ(1, again.status);
  EXPECT_EQ(name_ +
                ": OPL_ServerStart: Server already started.\n"
                "  OPL_SERVER_E_STARTED, see qvopl explain 0x050B08\n",
            again.out);
  EXPECT_EQ("OPL_SERVER_E_STARTED", JsonOf(Run("start", {"--json"}))["name"]);
  StopAndReap();
}

TEST_F(ToolServer, SaysWhatDoesNotRun) {
  for (const char* const command : {"stop", "terminate", "kill"}) {
    const ToolRun run = Run(command);
    EXPECT_EQ(1, run.status);
    EXPECT_THAT(run.out, HasSubstr("OPL_SERVER_E_NOT_STARTED, see qvopl explain 0x050B09"));
  }
}

// The program's own arguments have the server's name and are hidden: it does not take itself for the server,
// though the test, whose child it is, is the spawner here.
TEST_F(ToolServer, DoesNotTakeItselfForTheServer) {
  EXPECT_EQ(1, Run("kill").status);
  EXPECT_EQ("", JsonOf(Run("ps", {"--json"}))["processes"].empty() ? "" : "listed");
}

TEST_F(ToolServer, SeesThatTheDaemonEndsAtOnce) {
  Behave("exit");
  const ToolRun run = Run("start");
  EXPECT_EQ(1, run.status);
  EXPECT_THAT(run.out, HasSubstr("OPL_SERVER_E_NOT_STARTED"));
  AwaitEndOfAll();
}

TEST_F(ToolServer, SaysWhyAProgramCannotBeExecuted) {
  std::vector<std::string> line = Line("start");
  *(std::find(line.begin(), line.end(), "--executable-path") + 1) = "/no/program";
  const ToolRun run = opltest::RunTool(line);
  EXPECT_EQ(1, run.status);
  EXPECT_THAT(run.err, HasSubstr("execl(\"/no/program\""));
  EXPECT_THAT(run.out, HasSubstr("OPL_SERVER_E_NOT_STARTED"));
  EXPECT_TRUE(opltest::FilesIn(IpcDirectory()).empty());
}

TEST_F(ToolServer, GivesUpAfterTheTimeout) {
  Behave("silent");
  const ToolRun run = Run("start", {"--timeout", "2"});
  EXPECT_EQ(1, run.status);
  EXPECT_THAT(run.out, HasSubstr("OPL_SERVER_E_TIMEOUT"));
  (void)AwaitReady();
  const json status = Status();
  EXPECT_EQ("starting", status["state"]);
  EXPECT_EQ("runs, but has not said yet that it is started", status["text"]);
  EXPECT_EQ(nullptr, status["controller"]);
  WriteFile(ControllerFile(), PidBytes(999999));
  EXPECT_EQ("runs, but has not said so: the controller file names process 999999, which is not the server's",
            Status()["text"]);
  StopAndReap();
}

TEST_F(ToolServer, SaysThatAServerDoesNotStop) {
  Behave("stubborn");
  EXPECT_EQ(0, Run("start").status);
  (void)AwaitReady();
  const ToolRun stop = Run("stop", {"--timeout", "1"});
  EXPECT_EQ(1, stop.status);
  EXPECT_THAT(stop.out, HasSubstr("OPL_SERVER_E_TIMEOUT"));
  EXPECT_EQ(0, Run("kill").status);
  AwaitEndOfAll();
  EXPECT_EQ(0, ::unlink(ControllerFile().c_str()));
}

TEST_F(ToolServer, ShowsChildrenAsATree) {
  Behave("children");
  EXPECT_EQ(0, Run("start").status);
  const Begun begun = AwaitReady();
  const ToolRun tree = Run("ps", {"--tree"});
  EXPECT_EQ(0, tree.status);
  EXPECT_THAT(tree.out, HasSubstr("\n" + std::to_string(begun.pid) + " "));
  EXPECT_EQ(2, std::count(tree.out.begin(), tree.out.end(), '\n') - 2);
  EXPECT_THAT(tree.out, HasSubstr("\n  "));
  EXPECT_THAT(tree.out, HasSubstr("has said that it is started"));
  StopAndReap();
}

// Parameters.

class ToolServerFile : public ToolServer {
 protected:
  std::string Text() const {
    return "# A daemon of the tests.\n"
           "script-directory = " QVOPL_SERVER_SCRIPTS
           "\n"
           "\n"
           "  controller-name=ctl  \r\n"
           "executable-path\t=\t" +
           opltest::DaemonOf(opltest::kWidth) + "\n" + "process-name = " + name_ + "\n" +
           "instance = " + InstanceString() + "\n";
  }
  static ToolRun RunWith(const std::string& command, const std::string& text,
                         const std::vector<std::string>& more = {}) {
    WriteFile("server.conf", text);
    std::vector<std::string> line{"server", command, "--parameters", "server.conf"};
    line.insert(line.end(), more.begin(), more.end());
    return opltest::RunTool(line);
  }
};

TEST_F(ToolServerFile, HasTheParameters) {
  const ToolRun start = RunWith("start", Text());
  EXPECT_EQ(0, start.status) << start.out << start.err;
  (void)AwaitReady();
  EXPECT_EQ(0, RunWith("status", Text()).status);
  EXPECT_EQ(0, RunWith("stop", Text()).status);
  AwaitEndOfAll();
}

TEST_F(ToolServerFile, GivesWayToOptions) {
  const ToolRun run = RunWith("status", Text(), {"--process-name", "qvd-another"});
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("qvd-another: does not run\n", run.out);
}

TEST_F(ToolServerFile, IsRefusedWithAWrongLine) {
  struct Case {
    std::string line;
    const char* text;
  };
  for (const Case& entry :
       {Case{std::string("instance = B\0C", 14), "server.conf:8: a NUL character, which no text has"},
        Case{"color = red", "server.conf:8: no parameter is called color"},
        Case{"\x1b[31m = red", "server.conf:8: no parameter is called \\x1b[31m"},
        Case{"controller-name", "server.conf:8: neither NAME = TEXT nor a remark"},
        Case{"instance = B", "server.conf:8: instance for the second time"}}) {
    const ToolRun run = RunWith("status", Text() + entry.line + "\n");
    EXPECT_EQ(2, run.status);
    EXPECT_EQ("qvopl: " + std::string(entry.text) + "\n", run.err);
  }
  const ToolRun run = opltest::RunTool({"server", "status", "--parameters", "nowhere.conf"});
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("qvopl: nowhere.conf: No such file or directory\n", run.err);
}

TEST_F(ToolServer, NamesTheParameterThatIsMissing) {
  const ToolRun none = opltest::RunTool({"server", "status"});
  EXPECT_EQ(2, none.status);
  EXPECT_EQ("qvopl: --script-directory is needed, or a line of that name in the file of --parameters\n",
            none.err);
  const ToolRun program = opltest::RunTool({"server", "start", "--script-directory", QVOPL_SERVER_SCRIPTS,
                                            "--controller-name", "ctl", "--process-name", name_});
  EXPECT_EQ(2, program.status);
  EXPECT_THAT(program.err, HasSubstr("--executable-path is needed"));
}

TEST_F(ToolServer, NeedsTheScripts) {
  std::vector<std::string> line = Line("status");
  line[3] = opltest::WorkDirectory();
  const ToolRun run = opltest::RunTool(line);
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("qvopl: " + opltest::WorkDirectory() + "/OPL_ServerPS: No such file or directory\n", run.err);
}

// As OPL_ServerParamSet keeps a controller's name.
TEST_F(ToolServer, CutsWhatTheLibraryCuts) {
  const std::string longName(30, 'c');
  Behave("", longName);
  std::vector<std::string> line = Line("start");
  line[5] = longName;
  const ToolRun start = opltest::RunTool(line);
  EXPECT_EQ(0, start.status) << start.out << start.err;
  EXPECT_EQ("qvopl: controller-name is cut to 19 characters\n", start.err);
  (void)AwaitReady();
  EXPECT_TRUE(Exists(ControllerFile(longName.substr(0, 19))));
  line[1] = "status";
  EXPECT_EQ(0, opltest::RunTool(line).status);
  StopAndReap();
}

TEST_F(ToolServer, FindsTheInstanceThroughTheControllerFile) {
  EXPECT_EQ(0, Run("start").status);
  const Begun begun = AwaitReady();
  std::vector<std::string> line = Line("status");
  line.resize(line.size() - 2);
  const ToolRun status = opltest::RunTool(line);
  EXPECT_EQ(0, status.status) << status.out << status.err;
  const std::string other = IpcDirectory() + "/ctl.OPL_DAEMON.controller.other.006.021";
  WriteFile(other, PidBytes(1));
  const ToolRun several = opltest::RunTool(line);
  EXPECT_EQ(2, several.status);
  EXPECT_EQ("qvopl: several instances have a controller file of that name: give --instance\n", several.err);
  EXPECT_EQ(0, ::unlink(other.c_str()));
  line[1] = "stop";
  EXPECT_EQ(0, opltest::RunTool(line).status);
  AwaitEndOfAll();
  const ToolRun none = opltest::RunTool(line);
  EXPECT_EQ(2, none.status);
  EXPECT_THAT(none.err, StartsWith("qvopl: the server's instance is needed: give --instance"));
  EXPECT_NE(0, begun.pid);
}

// What is only looked at.

std::string TimesOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, ::lstat(path.c_str(), &status));
  std::string times;
  for (const timespec& time : {status.st_atim, status.st_mtim, status.st_ctim})
    times += std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec) + " ";
  return times;
}

std::vector<std::string> TimesOf(const std::string& directory, const std::vector<std::string>& files) {
  std::vector<std::string> times{TimesOf(directory)};
  for (const std::string& file : files) times.push_back(TimesOf(directory + "/" + file));
  return times;
}

TEST_F(ToolServer, StatusAndListLeaveNoTrace) {
  EXPECT_EQ(0, Run("start").status);
  (void)AwaitReady();
  const std::vector<std::string> files = opltest::FilesIn(IpcDirectory());
  EXPECT_EQ(2u, files.size());
  // A time so old that the next access changes it on every file system that keeps such times at all.
  const timespec times[] = {{1000000000, 0}, {0, UTIME_OMIT}};
  ASSERT_EQ(0, ::utimensat(AT_FDCWD, IpcDirectory().c_str(), times, 0));
  const std::vector<std::string> before = TimesOf(IpcDirectory(), files);
  const std::vector<int> sets = opltest::SemaphoreSets();
  EXPECT_EQ(0, Run("status").status);
  EXPECT_EQ(0, Run("ps").status);
  EXPECT_EQ(0, Run("ps", {"--tree", "--json"}).status);
  EXPECT_EQ(before, TimesOf(IpcDirectory(), files));
  EXPECT_EQ(files, opltest::FilesIn(IpcDirectory()));
  EXPECT_EQ(sets, opltest::SemaphoreSets());
  StopAndReap();
}

TEST_F(ToolServer, AFileThatIsNoControllerFileIsTold) {
  WriteFile(ControllerFile(), "12");
  const ToolRun cut = Run("status");
  EXPECT_EQ(2, cut.status);
  EXPECT_THAT(cut.err, HasSubstr("shorter than"));
  ASSERT_EQ(0, ::unlink(ControllerFile().c_str()));
  ASSERT_EQ(0, ::mkfifo(ControllerFile().c_str(), 0600));
  const ToolRun fifo = Run("status");
  EXPECT_EQ(2, fifo.status);
  EXPECT_THAT(fifo.err, HasSubstr("not a regular file"));
  ASSERT_EQ(0, ::unlink(ControllerFile().c_str()));
  WriteFile("elsewhere", PidBytes(1));
  ASSERT_EQ(0, ::symlink((opltest::WorkDirectory() + "/elsewhere").c_str(), ControllerFile().c_str()));
  EXPECT_EQ(2, Run("status").status);
  ASSERT_EQ(0, ::unlink(ControllerFile().c_str()));
}

// The list, beside that of the library.

class ToolServerList : public ToolServer {
 protected:
  ToolServerList() { beginsLibrary_ = true; }

  std::string ListOfTool() const {
    const ToolRun run = opltest::RunTool({"server", "ps", "--json", "--script-directory", FakeScripts(),
                                          "--process-name", "daemon", "--controller-name", "ctl"});
    const json answer = JsonOf(run);
    std::string text;
    for (const json& process : answer["processes"])
      text += std::to_string(process["pid"].get<uint32_t>()) + " " +
              std::to_string(process["parent"].get<uint32_t>()) + " " +
              process["started"].get<std::string>() + " " + process["cpuTime"].get<std::string>() + "\n";
    return text;
  }

  static std::string ListOfLibrary() {
    const opltest::ServerHandle server = opltest::NewServer({.scripts = FakeScripts()});
    opltest::ServerList list(server);
    EXPECT_EQ(OPL_OK, list.Get());
    std::string text;
    for (uint32_t i = 0; i < list.Count(); ++i) text += list.Line(i) + "\n";
    return text;
  }
};

TEST_F(ToolServerList, IsTheLibrarys) {
  const char* const listings[] = {
      "",
      "10 1 10:01 00:00:01 daemon\n11 10 10:02 00:00:02 daemon child\n12 99 10:03 00:00:03 daemon of "
      "another\n",
      "  123   1  10:01   00:00:02  daemon fifth\n\n   \nrubbish daemon\n",
      "20 21 a b daemon\n21 20 a b daemon\n22 1 a b daemon\n",
      "99999999999 1 a b daemon\n-5 1 a b daemon\n30 1 daemon\n",
  };
  NameSpawner("1");
  for (const char* const listing : listings) {
    SCOPED_TRACE(listing);
    ListProcesses(listing);
    EXPECT_EQ(ListOfLibrary(), ListOfTool());
  }
}

TEST_F(ToolServerList, IsOrderedAsATreeWhateverTheParents) {
  NameSpawner("1");
  ListProcesses("12 11 a b daemon\n11 10 a b daemon\n10 1 a b daemon\n13 10 a b daemon\n");
  const ToolRun run = opltest::RunTool({"server", "ps", "--tree", "--script-directory", FakeScripts(),
                                        "--process-name", "daemon", "--controller-name", "ctl"});
  EXPECT_THAT(run.out, HasSubstr("\n10 "));
  EXPECT_THAT(run.out, HasSubstr("\n  11 "));
  EXPECT_THAT(run.out, HasSubstr("\n    12 "));
  EXPECT_THAT(run.out, HasSubstr("\n  13 "));
}

TEST_F(ToolServerList, NeverPrintsControlCharactersRaw) {
  NameSpawner("1");
  ListProcesses("10 1 \\033[31m 00\\007 daemon\n");
  opltest::WriteScript("OPL_ServerPS", "printf '10 1 \\033[31m 00\\007 daemon\\n'");
  const ToolRun run = opltest::RunTool({"server", "ps", "--script-directory", FakeScripts(), "--process-name",
                                        "daemon", "--controller-name", "ctl"});
  EXPECT_THAT(run.out, HasSubstr("\\x1b[31m"));
  EXPECT_EQ(std::string::npos, run.out.find('\x1b'));
  EXPECT_EQ(std::string::npos, run.out.find('\a'));
}

}  // namespace
