#include "platform/prefs/preference_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include "base/property_list.h"

namespace kx {
namespace {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;

FileStamp StampOf(const struct stat& st) {
  FileStamp stamp;
  stamp.exists = true;
  stamp.device = st.st_dev;
  stamp.inode = st.st_ino;
  stamp.size = st.st_size;
  stamp.modifiedNs = int64_t{st.st_mtim.tv_sec} * kNanosecondsPerSecond + st.st_mtim.tv_nsec;
  return stamp;
}

std::string ErrnoText(const char* action, const std::string& path, int error) {
  return std::string(action) + " \"" + path + "\" failed: " + std::strerror(error);
}

// Closes a descriptor on scope exit.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { Reset(); }
  int get() const { return fd_; }
  // Closes now and reports the result, since close can report a failed
  // write-back.
  int Reset() {
    const int result = fd_ >= 0 ? close(fd_) : 0;
    fd_ = -1;
    return result;
  }

 private:
  int fd_;
};

bool ReadAll(int fd, size_t limit, std::vector<uint8_t>* bytes, int* error) {
  for (;;) {
    const size_t used = bytes->size();
    if (bytes->capacity() - used < 4096) bytes->reserve(used * 2 + 4096);
    bytes->resize(bytes->capacity());
    const ssize_t n = read(fd, bytes->data() + used, bytes->size() - used);
    if (n < 0 && errno == EINTR) {
      bytes->resize(used);
      continue;
    }
    if (n < 0) {
      *error = errno;
      bytes->resize(used);
      return false;
    }
    bytes->resize(used + static_cast<size_t>(n));
    if (n == 0 || bytes->size() > limit) return true;
  }
}

bool WriteAll(int fd, const std::vector<uint8_t>& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Temporary files of the file named `name` are ".<name>.XXXXXX": hidden, so
// that no domain's own file can ever look like one.
std::string TemporaryPrefix(const std::string& name) { return "." + name + "."; }
constexpr size_t kTemporarySuffixLength = 6;  // mkostemp's XXXXXX

// Only called with the writers' lock held: every temporary file present then
// belongs to a writer that died before renaming it.
void RemoveStaleTemporaries(const std::string& directory, const std::string& name) {
  DIR* dir = opendir(directory.c_str());
  if (!dir) return;
  const std::string prefix = TemporaryPrefix(name);
  while (const struct dirent* entry = readdir(dir)) {
    const std::string_view entryName(entry->d_name);
    if (entryName.size() == prefix.size() + kTemporarySuffixLength &&
        entryName.starts_with(prefix)) {
      unlinkat(dirfd(dir), entry->d_name, 0);
    }
  }
  closedir(dir);
}

// Gives the new version a modification time later than `previous`, even when
// the clock has not advanced past it or the file system keeps coarse times.
bool StampLaterThan(int fd, const FileStamp& previous, struct stat* st) {
  if (fstat(fd, st) != 0) return false;
  if (!previous.exists || StampOf(*st).modifiedNs > previous.modifiedNs) return true;
  for (int64_t step : {int64_t{1}, kNanosecondsPerSecond}) {
    const int64_t wanted = previous.modifiedNs + step;
    struct timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>(wanted / kNanosecondsPerSecond);
    times[1].tv_nsec = static_cast<long>(wanted % kNanosecondsPerSecond);
    if (futimens(fd, times) != 0 || fstat(fd, st) != 0) return false;
    if (StampOf(*st).modifiedNs > previous.modifiedNs) return true;
  }
  return false;
}

}  // namespace

FileStamp StatPreferenceFile(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return FileStamp{};
  return StampOf(st);
}

PreferenceFileContents ReadPreferenceFile(const std::string& path) {
  // Never destroyed: readers on threads that outlive main still use it.
  static const auto& kEmpty =
      *new std::shared_ptr<const Dictionary>(std::make_shared<const Dictionary>());
  PreferenceFileContents contents;
  contents.values = kEmpty;
  // O_NONBLOCK: a FIFO planted at the path must not hang the reader.
  Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (fd.get() < 0) {
    const int error = errno;
    if (error == ENOENT || error == ENOTDIR) return contents;
    contents.state = PreferenceFileContents::State::Unreadable;
    contents.stamp = StatPreferenceFile(path);
    contents.problem = ErrnoText("opening", path, error);
    return contents;
  }
  struct stat st;
  if (fstat(fd.get(), &st) != 0) {
    contents.state = PreferenceFileContents::State::Unreadable;
    contents.problem = ErrnoText("inspecting", path, errno);
    return contents;
  }
  contents.stamp = StampOf(st);
  if (!S_ISREG(st.st_mode)) {
    contents.state = PreferenceFileContents::State::Unreadable;
    contents.problem = "\"" + path + "\" is not a regular file";
    return contents;
  }
  if (static_cast<uint64_t>(st.st_size) > kMaxPropertyListBytes) {
    contents.state = PreferenceFileContents::State::Damaged;
    contents.problem = "larger than " + std::to_string(kMaxPropertyListBytes) + " bytes";
    return contents;
  }
  std::vector<uint8_t> bytes;
  bytes.reserve(static_cast<size_t>(st.st_size) + 1);
  int error = 0;
  if (!ReadAll(fd.get(), kMaxPropertyListBytes, &bytes, &error)) {
    contents.state = PreferenceFileContents::State::Unreadable;
    contents.problem = ErrnoText("reading", path, error);
    return contents;
  }
  contents.state = PreferenceFileContents::State::Damaged;
  if (bytes.size() > kMaxPropertyListBytes) {
    contents.problem = "larger than " + std::to_string(kMaxPropertyListBytes) + " bytes";
    return contents;
  }
  PropertyListResult decoded = DecodeBinaryPropertyList(bytes);
  if (!decoded.ok()) {
    contents.problem = decoded.error;
    return contents;
  }
  if (!decoded.value.dictionary()) {
    contents.problem = "the top-level value is not a dictionary";
    return contents;
  }
  // Share the decoded dictionary instead of copying it.
  auto holder = std::make_shared<const Value>(std::move(decoded.value));
  contents.values = std::shared_ptr<const Dictionary>(holder, holder->dictionary());
  contents.state = PreferenceFileContents::State::Valid;
  return contents;
}

std::optional<PreferenceFileLock> PreferenceFileLock::Acquire(const std::string& path,
                                                              std::string* error) {
  const std::string lockPath = path + ".lock";
  const int fd = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW,
                      0600);
  if (fd < 0) {
    *error = ErrnoText("opening", lockPath, errno);
    return std::nullopt;
  }
  while (flock(fd, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    *error = ErrnoText("locking", lockPath, errno);
    close(fd);
    return std::nullopt;
  }
  return PreferenceFileLock(fd);
}

PreferenceFileLock::PreferenceFileLock(PreferenceFileLock&& other) noexcept : fd_(other.fd_) {
  other.fd_ = -1;
}

PreferenceFileLock::~PreferenceFileLock() {
  // Closing the only descriptor of the open file description drops the lock.
  if (fd_ >= 0) close(fd_);
}

bool ReplacePreferenceFile(const std::string& path, const Value& values,
                           const FileStamp& previous, FileStamp* written, std::string* error) {
  const size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  RemoveStaleTemporaries(directory, name);

  std::string encodeError;
  const std::vector<uint8_t> bytes = EncodeBinaryPropertyList(values, &encodeError);
  if (!encodeError.empty() || bytes.empty()) {
    *error = "encoding \"" + path + "\" failed: " + encodeError;
    return false;
  }

  std::string temporary = directory + TemporaryPrefix(name) + "XXXXXX";
  Descriptor fd(mkostemp(temporary.data(), O_CLOEXEC));
  if (fd.get() < 0) {
    *error = ErrnoText("creating a temporary file for", path, errno);
    return false;
  }
  struct stat st;
  const char* failedStep = nullptr;
  if (!WriteAll(fd.get(), bytes)) {
    failedStep = "writing";
  } else if (!StampLaterThan(fd.get(), previous, &st)) {
    failedStep = "setting the modification time of";
  } else if (fsync(fd.get()) != 0) {
    failedStep = "flushing";
  } else if (fd.Reset() != 0) {
    failedStep = "closing";
  } else if (rename(temporary.c_str(), path.c_str()) != 0) {
    failedStep = "renaming a temporary file to";
  }
  if (failedStep) {
    *error = ErrnoText(failedStep, path, errno);
    unlink(temporary.c_str());
    return false;
  }
  // Make the rename itself durable. The new version is in place whatever
  // this reports, so a failure here is not a failed write.
  Descriptor dir(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.get() >= 0) fsync(dir.get());
  *written = StampOf(st);
  return true;
}

}  // namespace kx
