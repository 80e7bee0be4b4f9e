// Any text as the system's configuration of clean-up jobs: a job is found where there is a line, never in
// remarks, and nothing that stands before a job hides it.
#include "tools/qvopl/CleanupJobs.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz/support/Input.h"

namespace {

using oplfuzz::Check;
using qvopl::CleanupJob;

namespace fs = std::filesystem;

constexpr char kDirectory[] = "/run/product";
constexpr char kRemover[] = "* * * * * root rm -rf /run/product";
constexpr const char* kFiles[] = {"/etc/crontab", "/etc/tmpfiles.d/a.conf", "/etc/tmpreaper.conf",
                                  "/etc/systemd/system/a.service", "/etc/systemd/logind.conf"};
constexpr size_t kCrontab = 0;
constexpr size_t kLogin = 4;

// A system's root with these files, for as long as the program runs; in memory where that is possible.
class Root {
 public:
  Root() {
    for (std::string path : {"/dev/shm/cleanup-jobs.XXXXXX", "/tmp/cleanup-jobs.XXXXXX"})
      if (path_.empty() && ::mkdtemp(path.data()) != nullptr) path_ = path;
    Check(!path_.empty());
    fs::create_directories(path_ + "/run/systemd/seats");
    for (const char* const file : kFiles) {
      fs::create_directories(fs::path(path_ + file).parent_path());
      files_.push_back(::open((path_ + file).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
      Check(files_.back() != -1);
    }
  }
  ~Root() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  Root(const Root&) = delete;
  Root& operator=(const Root&) = delete;

  void Write(size_t file, const std::string& text) const {
    for (const int each : files_) Check(::ftruncate(each, 0) == 0);
    Check(::pwrite(files_[file], text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
  }

  std::vector<CleanupJob> JobsIn(size_t file, const std::string& text) const {
    Write(file, text);
    return qvopl::FindCleanupJobs(path_, kDirectory, qvopl::UsualTargets(kDirectory));
  }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::vector<int> files_;
};

int LinesOf(const std::string& text) {
  return static_cast<int>(std::count(text.begin(), text.end(), '\n')) + (text.ends_with('\n') ? 0 : 1);
}

std::string AsRemarks(const std::string& text) {
  std::string remarks = "#";
  for (const char c : text) remarks += c == '\n' ? std::string("\n \t#") : std::string(1, c);
  return remarks;
}

void CheckPlaces(const std::vector<CleanupJob>& jobs, const std::string& file, const std::string& text) {
  for (const CleanupJob& job : jobs) {
    Check(job.where.starts_with(file + ":"));
    const int line = std::atoi(job.where.c_str() + file.size() + 1);
    Check(line >= 1 && line <= LinesOf(text));
    Check(!job.line.empty());
  }
}

// As the last line, behind one that does not go on, and a remark, which never does.
void CheckLastJob(const Root& root, std::string text) {
  text += "x\n# remark \\\n";
  const std::string where = kFiles[kCrontab] + (":" + std::to_string(LinesOf(text) + 1));
  const std::vector<CleanupJob> jobs = root.JobsIn(kCrontab, text + kRemover);
  Check(!jobs.empty() && jobs.back().where == where && jobs.back().line == kRemover &&
        jobs.back().harm == CleanupJob::Harm::kRemovesFiles);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Root kRoot;
  oplfuzz::Input input(data, size);
  const size_t file = input.Below(std::size(kFiles));
  std::string text;
  while (!input.IsEmpty()) text += static_cast<char>(input.Byte());
  CheckPlaces(kRoot.JobsIn(file, text), kFiles[file], text);
  Check(kRoot.JobsIn(file, AsRemarks(text)).empty());
  if (file == kCrontab) CheckLastJob(kRoot, text);
  if (file != kLogin) return 0;
  std::string where;
  kRoot.Write(kLogin, text);
  (void)qvopl::RemovesIpcAtLogout(kRoot.path(), &where);
  Check(where.empty() || where.starts_with(kFiles[kLogin]));
  kRoot.Write(kLogin, text + "x\nRemoveIPC=no\n");
  Check(!qvopl::RemovesIpcAtLogout(kRoot.path(), &where));
  return 0;
}
