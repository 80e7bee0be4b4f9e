#include "tools/qvopl/DirectoryChecks.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cstring>

#include "tools/qvopl/Text.h"

namespace qvopl {

namespace {

struct FileSystem {
  uint64_t type;
  const char* why;
};

constexpr const char* kFileServer =
    "lies on a file server: the objects that its files name are on this machine alone";
constexpr const char* kNoLinks = "lies on a file system without hard links and FIFOs: no object can be made";

// Those that linux/magic.h does not have are written as numbers.
constexpr FileSystem kUnfit[] = {
    {NFS_SUPER_MAGIC, kFileServer},  {SMB_SUPER_MAGIC, kFileServer},  {CIFS_SUPER_MAGIC, kFileServer},
    {SMB2_SUPER_MAGIC, kFileServer}, {AFS_SUPER_MAGIC, kFileServer},  {AFS_FS_MAGIC, kFileServer},
    {CODA_SUPER_MAGIC, kFileServer}, {CEPH_SUPER_MAGIC, kFileServer}, {OCFS2_SUPER_MAGIC, kFileServer},
    {V9FS_MAGIC, kFileServer},       {NCP_SUPER_MAGIC, kFileServer},  {0x0BD00BD0, kFileServer},  // Lustre
    {0x47504653, kFileServer},                                                                    // GPFS
    {0x01161970, kFileServer},                                                                    // GFS2
    {0x19830326, kFileServer},                                                                    // BeeGFS
    {MSDOS_SUPER_MAGIC, kNoLinks},   {EXFAT_SUPER_MAGIC, kNoLinks},   {ISOFS_SUPER_MAGIC, kNoLinks},
    {PROC_SUPER_MAGIC, kNoLinks},    {SYSFS_MAGIC, kNoLinks},
};

class Check {
 public:
  Check(const std::string& path, Findings* findings) : path_(path), findings_(*findings) {}

  void Run() {
    struct stat status {};
    if (::lstat(path_.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) TellLink();
    if (::stat(path_.c_str(), &status) == -1) return;
    LookAtFileSystem();
    LookAtPermissions(status);
  }

 private:
  void Add(Severity severity, const char* name, std::string what, std::string advice) {
    findings_.push_back(
        {severity, name, path_, "", std::move(what), std::move(advice), std::nullopt, "", true});
  }

  void TellLink() {
    char target[4096];
    const ssize_t size = ::readlink(path_.c_str(), target, sizeof target);
    Add(Severity::kWarning, "directory-is-a-link",
        "is a symbolic link to " + Printable({target, static_cast<size_t>(size < 0 ? 0 : size)}) +
            ": whoever turns it elsewhere parts the processes that start later from the others",
        "Set QVOPL_IPC_PATH to the directory itself, for all processes.");
  }

  void LookAtFileSystem() {
    struct statfs system {};
    if (::statfs(path_.c_str(), &system) == -1) return;
    const char* const why = WhyNotOnFileSystem(static_cast<uint32_t>(system.f_type));
    if (why == nullptr) return;
    Add(Severity::kError, "directory-file-system", why,
        "Set QVOPL_IPC_PATH to a directory on a local file system, such as one below /run, for all "
        "processes.");
  }

  void LookAtPermissions(const struct stat& status) {
    if (::faccessat(AT_FDCWD, path_.c_str(), W_OK | X_OK, AT_EACCESS) == -1)
      Add(Severity::kError, "directory-not-writable",
          std::string("cannot be written to by user ") + std::to_string(::geteuid()) + " (" +
              std::strerror(errno) + "): its processes cannot begin the library",
          "Give the product's users the permission to write and search it.");
    if ((status.st_mode & S_IWOTH) != 0 && (status.st_mode & S_ISVTX) == 0)
      Add(Severity::kWarning, "directory-open-to-all",
          "may be written to by all users and is not sticky (mode " + Mode(status.st_mode & 07777) +
              "): anybody can remove and replace others' files",
          "chmod +t it, or give it to a group of the product's users and chmod 0770 it.");
  }

  const std::string& path_;
  Findings& findings_;
};

}  // namespace

const char* WhyNotOnFileSystem(uint64_t type) {
  for (const FileSystem& system : kUnfit)
    if (system.type == type) return system.why;
  return nullptr;
}

void CheckDirectory(const std::string& path, Findings* findings) { Check(path, findings).Run(); }

}  // namespace qvopl
