// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, base: writing a file so that it replaces its target only when complete.
#include "basalt/replacing_file.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#include <fcntl.h>

namespace Basalt {

namespace {

namespace fs = std::filesystem;

// The temporaries being written, for the signal handler: fixed storage, since a handler may
// neither allocate nor lock. A slot is taken by setting `used` once its path is in place.
struct Slot {
  std::atomic<bool> used{false};
  std::atomic<bool> taken{false};
  char path[PATH_MAX];
};
std::array<Slot, 64> slots;
constexpr std::array<int, 3> Signals = {SIGINT, SIGTERM, SIGHUP};

// Removes every listed temporary, then dies of the signal as it would have.
extern "C" void removeTemporaries(int signal) {
  for (Slot& slot : slots)
    if (slot.used.load(std::memory_order_acquire))
      ::unlink(slot.path);
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

// Installs the handler once, for signals whose handling nobody else has chosen.
void installHandler() {
  static std::once_flag once;
  std::call_once(once, [] {
    for (int signal : Signals) {
      struct sigaction current {};
      if (::sigaction(signal, nullptr, &current) != 0 || current.sa_handler != SIG_DFL)
        continue;
      struct sigaction handler {};
      handler.sa_handler = removeTemporaries;
      sigemptyset(&handler.sa_mask);
      ::sigaction(signal, &handler, nullptr);
    }
  });
}

int list(const std::string& path) {
  if (path.size() >= PATH_MAX)
    return -1;
  installHandler();
  for (std::size_t i = 0; i < slots.size(); ++i) {
    bool expected = false;
    if (slots[i].taken.compare_exchange_strong(expected, true)) {
      std::memcpy(slots[i].path, path.c_str(), path.size() + 1);
      slots[i].used.store(true, std::memory_order_release);
      return static_cast<int>(i);
    }
  }
  return -1;
}

void unlist(int slot) {
  if (slot < 0)
    return;
  slots[static_cast<std::size_t>(slot)].used.store(false, std::memory_order_release);
  slots[static_cast<std::size_t>(slot)].taken.store(false, std::memory_order_release);
}

// Where a chain of symbolic links from path ends (the path itself when it is no link).
fs::path linkTarget(const fs::path& path, const std::string& given) {
  fs::path at = path;
  std::error_code error;
  for (int hops = 0; fs::is_symlink(at, error); ++hops) {
    if (hops == 40)
      throw ReplacingFile::Error(given, "too many levels of symbolic links");
    const fs::path next = fs::read_symlink(at, error);
    if (error)
      throw ReplacingFile::Error(given, "cannot read the symbolic link: " + error.message());
    at = next.is_absolute() ? next : at.parent_path() / next;
  }
  return at;
}

// The number of the process that named a temporary "<name>.tmp.<pid>[.<n>]", or 0 when the
// entry is not named so.
pid_t writerOf(const std::string& entry, const std::string& prefix) {
  if (entry.compare(0, prefix.size(), prefix) != 0 || entry.size() == prefix.size())
    return 0;
  const std::string rest = entry.substr(prefix.size());
  const std::size_t dot = rest.find('.');
  const std::string pid = rest.substr(0, dot),
                    count = dot == rest.npos ? "1" : rest.substr(dot + 1);
  const auto digits = [](const std::string& s) {
    return !s.empty() && s.size() < 10 &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
  };
  return digits(pid) && digits(count) ? static_cast<pid_t>(std::stol(pid)) : 0;
}

// Whether the process that named a temporary has ended (and is not this one).
bool ended(pid_t writer) {
  return writer > 0 && writer != ::getpid() && ::kill(writer, 0) != 0 && errno == ESRCH;
}

// The temporaries of our naming found in each folder, by the name of their target. A folder is
// read once a process, the first time a file is replaced there: a run that writes many files
// into one folder (the tiles of a survey) would otherwise read the whole folder for each, its
// time growing with the square of the tiles. Temporaries that runs ending later leave behind are
// found by the next process.
class LeftBehind {
public:
  // Removes the temporaries found beside target whose writers have ended.
  void remove(const fs::path& target) {
    const std::string name = target.filename().string();
    const fs::path folder = target.parent_path().empty() ? fs::path(".") : target.parent_path();
    std::error_code error;
    const fs::path key = fs::absolute(folder, error).lexically_normal();
    const std::lock_guard<std::mutex> lock(mutex_);
    auto found = folders_.find(key);
    if (found == folders_.end())
      found = folders_.emplace(key, read(folder)).first;
    auto [first, last] = found->second.equal_range(name);
    for (auto it = first; it != last;) {
      if (!ended(it->second.writer)) {
        ++it; // still being written, perhaps: looked at again at the target's next write
        continue;
      }
      if (fs::is_regular_file(folder / it->second.entry, error))
        fs::remove(folder / it->second.entry, error);
      it = found->second.erase(it);
    }
  }

private:
  struct Temporary {
    std::string entry;
    pid_t writer;
  };
  using Found = std::multimap<std::string, Temporary>;

  // The entries "<target>.tmp.<pid>[.<n>]" of the folder, by target.
  static Found read(const fs::path& folder) {
    Found found;
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
      const std::string entry = it->path().filename().string();
      for (std::size_t at = entry.find(".tmp."); at != entry.npos;
           at = entry.find(".tmp.", at + 1)) {
        const std::string target = entry.substr(0, at);
        if (const pid_t writer = writerOf(entry, target + ".tmp."); writer > 0)
          found.emplace(target, Temporary{entry, writer});
      }
    }
    return found;
  }

  std::mutex mutex_;
  std::map<fs::path, Found> folders_;
};

// Removes temporaries of the target that processes no longer running left behind.
void removeStale(const fs::path& target) {
  static LeftBehind leftBehind;
  leftBehind.remove(target);
}

std::atomic<unsigned> temporaryCount{0};

} // namespace

ReplacingFile::ReplacingFile(const std::string& path) : path_(path) {
  if (path.empty())
    throw Error(path, "no output file named");
  target_ = linkTarget(path, path).string();
  struct stat existing {};
  if (::stat(target_.c_str(), &existing) == 0) {
    if (S_ISDIR(existing.st_mode))
      fail("is a directory");
    if (!S_ISREG(existing.st_mode))
      fail("is not a regular file (a device or a pipe); it is not replaced");
    if (::access(target_.c_str(), W_OK) != 0)
      fail("is not writable");
    keepMode_ = true;
    mode_ = existing.st_mode & 07777;
    owner_ = existing.st_uid;
    group_ = existing.st_gid;
  }
  removeStale(target_);
  temporary_ = target_ + ".tmp." + std::to_string(::getpid()) + "." +
               std::to_string(temporaryCount.fetch_add(1) + 1);
  fd_ = ::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd_ < 0)
    fail("cannot create the temporary file " + temporary_ + ": " + std::strerror(errno));
  slot_ = list(temporary_);
}

ReplacingFile::~ReplacingFile() {
  if (fd_ >= 0)
    ::close(fd_);
  if (!committed_ && !temporary_.empty())
    ::unlink(temporary_.c_str());
  unlist(slot_);
}

void ReplacingFile::fail(const std::string& problem) const {
  throw Error(path_, problem);
}

void ReplacingFile::write(const std::uint8_t* data, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    const ssize_t wrote = ::write(fd_, data + done, std::min<std::size_t>(size - done, 1u << 30));
    if (wrote <= 0)
      fail(std::string("cannot write the file: ") + std::strerror(wrote < 0 ? errno : ENOSPC));
    written_ += static_cast<std::uint64_t>(wrote);
    done += static_cast<std::size_t>(wrote);
    queueWriteback();
  }
}

// Renaming a file over an existing one, ext4 first sends all of the new file's data to the disk
// (so that a crash after the rename cannot leave an empty file), and the rename waits while it
// allocates the blocks and queues the writes: 13 ms for 28 MB here, one thread, at the very end
// of the run. Where the file replaces another, what write() has appended is therefore queued for
// the disk every 8 MiB, whole pages only, on the kernel's writeback threads while the run goes
// on; the rename then finds little left to do. A new file is left to the kernel's usual delay,
// and writeAt()'s patches (headers, tables) are not queued. The call only queues writes (it waits
// for no disk) and is a hint: its failure changes nothing.
void ReplacingFile::queueWriteback() {
  constexpr std::uint64_t Stride = std::uint64_t(8) << 20, Page = 4096;
  if (!keepMode_ || written_ - queued_ < Stride)
    return;
  const std::uint64_t end = written_ / Page * Page;
  ::sync_file_range(fd_, static_cast<off_t>(queued_), static_cast<off_t>(end - queued_),
                    SYNC_FILE_RANGE_WRITE);
  queued_ = end;
}

void ReplacingFile::writeAt(std::uint64_t at, const std::uint8_t* data, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    const ssize_t wrote = ::pwrite(fd_, data + done, size - done, static_cast<off_t>(at + done));
    if (wrote <= 0)
      fail(std::string("cannot write the file: ") + std::strerror(wrote < 0 ? errno : ENOSPC));
    done += static_cast<std::size_t>(wrote);
  }
}

void ReplacingFile::commit() {
  if (keepMode_) {
    // Owner first: changing it may clear set-id bits, which the mode then restores.
    if (::fchown(fd_, owner_, group_) != 0) {
      // Only the superuser may give a file away; the file is then ours, as with any copy.
    }
    ::fchmod(fd_, static_cast<mode_t>(mode_));
  }
  const int fd = fd_;
  fd_ = -1;
  if (::close(fd) != 0)
    fail(std::string("cannot write the file: ") + std::strerror(errno));
  if (std::rename(temporary_.c_str(), target_.c_str()) != 0)
    fail(std::string("cannot replace the file: ") + std::strerror(errno));
  committed_ = true;
  unlist(slot_);
  slot_ = -1;
}

} // namespace Basalt
