#include "platform/files/file_id_service.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <mutex>
#include <vector>

#include "kx/assert.h"
#include "kx/search_paths.h"
#include "platform/process/directory.h"
#include "platform/process/process_info.h"

namespace kx {
namespace {

// Added to every open: a path taken from the index or from a result may name
// a FIFO or a terminal by now, and opening either must neither block nor
// make it our controlling terminal; descriptors never leak into children.
constexpr int kAlwaysOpenFlags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

constexpr uint32_t kSupportedAttributes = kCommonAttributeDocumentID | kCommonAttributeFullPath;
constexpr uint32_t kSupportedOptions = kAttributeOptionNoFollow | kAttributeOptionExtendedCommon;

// ---- Document identifier attribute -------------------------------------

std::optional<uint32_t> ParseDocumentID(std::string_view text) {
  uint32_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, status] = std::from_chars(text.data(), end, value);
  if (text.empty() || status != std::errc() || stop != end) return std::nullopt;
  return value;
}

// Reads the document identifier of the object open on `fd`: 0 when it has
// none (or its file system keeps no user attributes). False with errno set
// on failure; EINVAL when the attribute is not a decimal 32-bit number.
bool ReadDocumentIDAttribute(int fd, uint32_t* documentID) {
  char text[16];
  const ssize_t length = fgetxattr(fd, kDocumentIDAttribute, text, sizeof text);
  if (length < 0) {
    if (errno == ENODATA || errno == ENOTSUP) {
      *documentID = 0;
      return true;
    }
    if (errno == ERANGE) errno = EINVAL;  // longer than any 32-bit number
    return false;
  }
  const std::optional<uint32_t> parsed = ParseDocumentID(std::string_view(text, length));
  if (!parsed) {
    errno = EINVAL;
    return false;
  }
  *documentID = *parsed;
  return true;
}

bool WriteDocumentIDAttribute(int fd, uint32_t documentID) {
  const std::string text = std::to_string(documentID);
  return fsetxattr(fd, kDocumentIDAttribute, text.data(), text.size(), 0) == 0;
}

// The absolute path of the object open on `fd`. ENOENT when the object has
// been unlinked: the kernel would still answer "<old path> (deleted)".
bool DescriptorPath(int fd, std::string* path) {
  struct stat st;
  if (fstat(fd, &st) != 0) return false;
  if (st.st_nlink == 0) {
    errno = ENOENT;
    return false;
  }
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  std::string buffer(PATH_MAX, '\0');
  const ssize_t length = readlink(link.c_str(), buffer.data(), buffer.size());
  if (length < 0) return false;
  if (static_cast<size_t>(length) == buffer.size()) {
    errno = ENAMETOOLONG;
    return false;
  }
  // Sockets, pipes and anonymous inodes have no path ("pipe:[123]").
  if (length == 0 || buffer[0] != '/') {
    errno = ENOENT;
    return false;
  }
  buffer.resize(length);
  *path = std::move(buffer);
  return true;
}

void PutUInt32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

// ---- SQLite ----------------------------------------------------------------

// A prepared statement; an invalid one (failed prepare) fails every step.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) {
    if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) {
      sqlite3_finalize(stmt_);
      stmt_ = nullptr;
    }
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& Bind(int index, int64_t value) {
    if (stmt_) sqlite3_bind_int64(stmt_, index, value);
    return *this;
  }
  // Paths are bytes in the file system's representation, not necessarily
  // UTF-8, so they are stored as blobs.
  Statement& BindBytes(int index, std::string_view bytes) {
    if (stmt_) sqlite3_bind_blob(stmt_, index, bytes.data(), static_cast<int>(bytes.size()),
                                 SQLITE_TRANSIENT);
    return *this;
  }
  // SQLITE_ROW, SQLITE_DONE or an error code.
  int Step() { return stmt_ ? sqlite3_step(stmt_) : SQLITE_ERROR; }
  // Runs a statement that returns no rows.
  bool Run() { return Step() == SQLITE_DONE; }

  int64_t Integer(int column) { return sqlite3_column_int64(stmt_, column); }
  std::string Bytes(int column) {
    const void* data = sqlite3_column_blob(stmt_, column);
    const int length = sqlite3_column_bytes(stmt_, column);
    return data ? std::string(static_cast<const char*>(data), length) : std::string();
  }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

// Inode numbers are unsigned 64-bit; SQLite integers are signed 64-bit. The
// bit pattern is stored as is and converted back on reading.
int64_t ToColumn(uint64_t value) { return static_cast<int64_t>(value); }
uint64_t FromColumn(int64_t value) { return static_cast<uint64_t>(value); }

// Indexed paths of (device, object), or nullopt with errno EIO.
std::optional<std::vector<std::string>> IndexedPaths(sqlite3* db, uint32_t device,
                                                     uint32_t object) {
  Statement query(db, "SELECT path FROM files WHERE device = ?1 AND object = ?2");
  query.Bind(1, device).Bind(2, object);
  std::vector<std::string> paths;
  int rc;
  while ((rc = query.Step()) == SQLITE_ROW) paths.push_back(query.Bytes(0));
  if (rc != SQLITE_DONE) {
    errno = EIO;
    return std::nullopt;
  }
  return paths;
}

// Opens `path` and checks that it still names (device, object).
FileDescriptor OpenCandidate(const std::string& path, uint32_t device, uint32_t object,
                             int flags) {
  FileDescriptor fd(open(path.c_str(), flags | kAlwaysOpenFlags));
  if (!fd.valid()) return fd;
  struct stat st;
  if (fstat(fd.get(), &st) != 0) return FileDescriptor();
  if (DeviceNumber32(st.st_dev) != device || static_cast<uint32_t>(st.st_ino) != object) {
    errno = ENOENT;  // the path now names another object
    return FileDescriptor();
  }
  return fd;
}

// The first indexed path of (device, object) that still names it.
FileDescriptor OpenIndexedObject(const std::vector<std::string>& paths, uint32_t device,
                                 uint32_t object, int flags) {
  int error = ENOENT;
  for (const std::string& path : paths) {
    FileDescriptor fd = OpenCandidate(path, device, object, flags);
    if (fd.valid()) return fd;
    if (errno != ENOENT) error = errno;
  }
  errno = error;
  return FileDescriptor();
}

// The process's read-only connection to the index, opened on first use and
// kept; a failed open is retried by the next lookup, since the indexer may
// create the index at any time. Never destroyed: lookups may run during
// static destruction.
class IndexReader {
 public:
  static IndexReader& Shared() {
    static IndexReader* const shared = new IndexReader;
    return *shared;
  }

  // Runs `query` on the connection under the lock. False with errno set when
  // the index cannot be opened (ENOENT when it does not exist yet).
  template <class Query>
  bool With(Query&& query) {
    std::lock_guard lock(mutex_);
    if (!db_ && !OpenLocked()) return false;
    return query(db_);
  }

 private:
  bool OpenLocked() {
    const std::optional<std::string> path = FileIDIndexPath();
    struct stat st;
    if (!path || stat(path->c_str(), &st) != 0) {
      errno = ENOENT;
      return false;
    }
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path->c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
      sqlite3_close(db);
      errno = EIO;
      return false;
    }
    sqlite3_busy_timeout(db, 2000);
    db_ = db;
    return true;
  }

  std::mutex mutex_;
  sqlite3* db_ = nullptr;  // guarded by mutex_
};

}  // namespace

// ---- FileDescriptor ---------------------------------------------------------

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = other.fd_;
    other.fd_ = -1;
  }
  return *this;
}

void FileDescriptor::Close() {
  if (fd_ < 0) return;
  const int saved = errno;  // callers report the errno of what failed before
  close(fd_);
  errno = saved;
  fd_ = -1;
}

// ---- Identifiers ------------------------------------------------------------

uint32_t DeviceNumber32(uint64_t stDev) { return static_cast<uint32_t>(stDev); }

uint32_t DeviceID() {
  static const uint32_t device = [] {
    std::string path;
    try {
      path = UserLibraryDirectory();
    } catch (const DirectoryError&) {
      // An empty path fails the stat below, which is the fatal report.
    }
    struct stat st {};
    KX_ASSERT_FATAL(stat(path.c_str(), &st) == 0,
                    "stat(path, &st) == 0 && \"could not get device ID\"");
    return DeviceNumber32(st.st_dev);
  }();
  return device;
}

FileDescriptor OpenByID(uint32_t device, uint32_t objectNumber, int flags) {
  std::optional<std::vector<std::string>> paths;
  // The lock covers the lookup only; opening the candidates may be slow.
  if (!IndexReader::Shared().With([&](sqlite3* db) {
        paths = IndexedPaths(db, device, objectNumber);
        return paths.has_value();
      }))
    return FileDescriptor();
  return OpenIndexedObject(*paths, device, objectNumber, flags);
}

FileDescriptor OpenAt(const FileDescriptor& directory, const std::string& name, int flags) {
  if (!directory.valid()) {
    errno = EBADF;
    return FileDescriptor();
  }
  return FileDescriptor(openat(directory.get(), name.c_str(), flags | kAlwaysOpenFlags));
}

int GetAttributeList(const FileDescriptor& fd, const AttributeList& request, void* buffer,
                     size_t size, uint32_t options) {
  // A closed descriptor is known to be invalid: answer without a system
  // call, so that its old number, which may belong to another file by now,
  // is never used.
  if (!fd.valid()) {
    errno = EBADF;
    return -1;
  }
  if (request.bitmapCount != kAttributeBitmapCount ||
      (request.commonAttributes & ~kSupportedAttributes) != 0 ||
      (options & ~kSupportedOptions) != 0) {
    errno = EINVAL;
    return -1;
  }
  if (size < 4) {
    errno = ERANGE;
    return -1;
  }
  const bool wantsDocumentID = request.commonAttributes & kCommonAttributeDocumentID;
  const bool wantsPath = request.commonAttributes & kCommonAttributeFullPath;
  uint32_t documentID = 0;
  if (wantsDocumentID && !ReadDocumentIDAttribute(fd.get(), &documentID)) return -1;
  std::string path;
  if (wantsPath && !DescriptorPath(fd.get(), &path)) return -1;

  const size_t paddedPath = wantsPath ? (path.size() + 1 + 3) / 4 * 4 : 0;
  const size_t total = 4 + (wantsDocumentID ? 4 : 0) + (wantsPath ? 8 + paddedPath : 0);
  if (total > size) {
    errno = wantsPath ? ENAMETOOLONG : ERANGE;
    return -1;
  }
  auto* out = static_cast<uint8_t*>(buffer);
  std::memset(out, 0, total);
  PutUInt32(out, static_cast<uint32_t>(total));
  size_t at = 4;
  if (wantsDocumentID) {
    PutUInt32(out + at, documentID);
    at += 4;
  }
  if (wantsPath) {
    PutUInt32(out + at, 8);  // the bytes follow the reference itself
    PutUInt32(out + at + 4, static_cast<uint32_t>(path.size()));
    std::memcpy(out + at + 8, path.data(), path.size());
  }
  return 0;
}

std::optional<uint64_t> ResolveDocumentID(uint32_t device, uint32_t documentID) {
  std::optional<uint64_t> inode;
  const bool ok = IndexReader::Shared().With([&](sqlite3* db) {
    Statement query(db, "SELECT inode FROM documents WHERE device = ?1 AND docid = ?2");
    query.Bind(1, device).Bind(2, documentID);
    const int rc = query.Step();
    if (rc == SQLITE_ROW) {
      inode = FromColumn(query.Integer(0));
      return true;
    }
    errno = rc == SQLITE_DONE ? ENOENT : EIO;
    return false;
  });
  return ok ? inode : std::nullopt;
}

std::optional<std::string> FileIDIndexPath() {
  const std::optional<std::string> directory = KXSkylumeSupportDirectoryPath();
  if (!directory) return std::nullopt;
  return *directory + "/FileIdentifiers.db";
}

// ---- FileIDIndexer ----------------------------------------------------------

namespace {

constexpr char kSchema[] =
    "CREATE TABLE IF NOT EXISTS files("
    "  device INTEGER NOT NULL, inode INTEGER NOT NULL, object INTEGER NOT NULL,"
    "  path BLOB NOT NULL, PRIMARY KEY(device, inode));"
    "CREATE INDEX IF NOT EXISTS files_by_object ON files(device, object);"
    "CREATE INDEX IF NOT EXISTS files_by_path ON files(device, path);"
    "CREATE TABLE IF NOT EXISTS documents("
    "  device INTEGER NOT NULL, docid INTEGER NOT NULL, inode INTEGER NOT NULL,"
    "  PRIMARY KEY(device, docid));"
    "CREATE INDEX IF NOT EXISTS documents_by_inode ON documents(device, inode);"
    "CREATE TABLE IF NOT EXISTS docid_counters("
    "  device INTEGER PRIMARY KEY, last INTEGER NOT NULL);";

std::nullopt_t Fail(std::string* error, std::string text) {
  if (error) *error = std::move(text);
  return std::nullopt;
}

std::string SystemFailure(const char* action, const std::string& path, int code) {
  return std::string("cannot ") + action + " \"" + path + "\": " + std::strerror(code);
}

// A file the indexer is recording, held open so that every check and the
// attribute write apply to the same inode even if the path changes.
struct OpenedFile {
  FileDescriptor fd;
  uint32_t device = 0;
  uint64_t inode = 0;
};

}  // namespace

struct FileIDIndexer::Impl {
  std::mutex mutex;  // serialises use of db
  sqlite3* db = nullptr;

  ~Impl() { sqlite3_close(db); }

  std::string DatabaseFailure(const char* action) const {
    return std::string("file identifier index: cannot ") + action + ": " + sqlite3_errmsg(db);
  }

  std::optional<OpenedFile> Open(const std::string& path, std::string* error) {
    OpenedFile file;
    file.fd = FileDescriptor(open(path.c_str(), O_RDONLY | O_NOFOLLOW | kAlwaysOpenFlags));
    struct stat st;
    if (!file.fd.valid() || fstat(file.fd.get(), &st) != 0)
      return Fail(error, SystemFailure("open", path, errno));
    file.device = DeviceNumber32(st.st_dev);
    file.inode = st.st_ino;
    return file;
  }

  // A never-used identifier for `device`. Committed on its own, so a number
  // handed out is burnt even when recording fails later: it may already sit
  // in a file's attribute.
  std::optional<uint32_t> Allocate(uint32_t device, std::string* error) {
    Statement next(db,
                   "INSERT INTO docid_counters(device, last) VALUES(?1, 1) "
                   "ON CONFLICT(device) DO UPDATE SET last = last + 1 RETURNING last");
    next.Bind(1, device);
    if (next.Step() != SQLITE_ROW) return Fail(error, DatabaseFailure("allocate"));
    const int64_t value = next.Integer(0);
    if (value <= 0 || value > static_cast<int64_t>(UINT32_MAX))
      return Fail(error, "file identifier index: document identifiers exhausted");
    return static_cast<uint32_t>(value);
  }

  // Keeps Allocate above identifiers found in attributes, which an earlier
  // index may have handed out.
  bool Reserve(uint32_t device, uint32_t documentID) {
    return Statement(db,
                     "INSERT INTO docid_counters(device, last) VALUES(?1, ?2) "
                     "ON CONFLICT(device) DO UPDATE SET last = MAX(last, excluded.last)")
        .Bind(1, device)
        .Bind(2, documentID)
        .Run();
  }

  // True when `documentID` is mapped to an object other than `file` that
  // still exists and still carries the identifier: `file` is then a copy.
  bool HeldByAnotherObject(const OpenedFile& file, uint32_t documentID) {
    Statement holder(db, "SELECT inode FROM documents WHERE device = ?1 AND docid = ?2");
    holder.Bind(1, file.device).Bind(2, documentID);
    if (holder.Step() != SQLITE_ROW) return false;
    const uint64_t other = FromColumn(holder.Integer(0));
    if (other == file.inode) return false;
    const auto object = static_cast<uint32_t>(other);
    const std::optional<std::vector<std::string>> paths = IndexedPaths(db, file.device, object);
    if (!paths) return false;
    FileDescriptor fd = OpenIndexedObject(*paths, file.device, object, O_RDONLY | O_NOFOLLOW);
    struct stat st;
    uint32_t carried = 0;
    return fd.valid() && fstat(fd.get(), &st) == 0 && st.st_ino == other &&
           ReadDocumentIDAttribute(fd.get(), &carried) && carried == documentID;
  }

  // Maps file.inode to `path` (which names nothing else any more) and
  // `documentID` to file.inode (which has no other identifier), atomically.
  bool Store(const OpenedFile& file, const std::string& path, uint32_t documentID) {
    if (sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK)
      return false;
    const int64_t inode = ToColumn(file.inode);
    const bool ok =
        Statement(db, "DELETE FROM files WHERE device = ?1 AND path = ?2 AND inode != ?3")
            .Bind(1, file.device).BindBytes(2, path).Bind(3, inode).Run() &&
        Statement(db,
                  "INSERT INTO files(device, inode, object, path) VALUES(?1, ?2, ?3, ?4) "
                  "ON CONFLICT(device, inode) DO UPDATE SET path = excluded.path")
            .Bind(1, file.device).Bind(2, inode).Bind(3, static_cast<uint32_t>(file.inode))
            .BindBytes(4, path).Run() &&
        Statement(db, "DELETE FROM documents WHERE device = ?1 AND inode = ?2 AND docid != ?3")
            .Bind(1, file.device).Bind(2, inode).Bind(3, documentID).Run() &&
        Statement(db,
                  "INSERT INTO documents(device, docid, inode) VALUES(?1, ?2, ?3) "
                  "ON CONFLICT(device, docid) DO UPDATE SET inode = excluded.inode")
            .Bind(1, file.device).Bind(2, documentID).Bind(3, inode).Run();
    if (ok && sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK) return true;
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    return false;
  }

  std::optional<uint32_t> Record(const std::string& path, std::string* error) {
    std::optional<OpenedFile> file = Open(path, error);
    if (!file) return std::nullopt;
    uint32_t documentID = 0;
    if (!ReadDocumentIDAttribute(file->fd.get(), &documentID))
      return Fail(error, SystemFailure("read the document identifier of", path, errno));
    if (documentID != 0 && HeldByAnotherObject(*file, documentID)) documentID = 0;
    if (documentID == 0) {
      const std::optional<uint32_t> fresh = Allocate(file->device, error);
      if (!fresh) return std::nullopt;
      documentID = *fresh;
      if (!WriteDocumentIDAttribute(file->fd.get(), documentID))
        return Fail(error, SystemFailure("set the document identifier of", path, errno));
    } else if (!Reserve(file->device, documentID)) {
      return Fail(error, DatabaseFailure("reserve"));
    }
    if (!Store(*file, path, documentID)) return Fail(error, DatabaseFailure("record"));
    return documentID;
  }

  std::optional<uint32_t> RecordReplacement(const std::string& path, std::string* error) {
    std::optional<OpenedFile> file = Open(path, error);
    if (!file) return std::nullopt;
    Statement previous(db,
                       "SELECT d.docid FROM files f JOIN documents d "
                       "ON d.device = f.device AND d.inode = f.inode "
                       "WHERE f.device = ?1 AND f.path = ?2 AND f.inode != ?3");
    previous.Bind(1, file->device).BindBytes(2, path).Bind(3, ToColumn(file->inode));
    const int rc = previous.Step();
    if (rc == SQLITE_DONE) return Record(path, error);  // nothing to inherit
    if (rc != SQLITE_ROW) return Fail(error, DatabaseFailure("look up"));
    const auto documentID = static_cast<uint32_t>(previous.Integer(0));
    if (!WriteDocumentIDAttribute(file->fd.get(), documentID))
      return Fail(error, SystemFailure("set the document identifier of", path, errno));
    if (!Store(*file, path, documentID)) return Fail(error, DatabaseFailure("record"));
    return documentID;
  }
};

FileIDIndexer::FileIDIndexer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
FileIDIndexer::~FileIDIndexer() = default;

std::unique_ptr<FileIDIndexer> FileIDIndexer::Open(std::string* error) {
  const std::optional<std::string> directory = KXSkylumeSupportDirectoryPath();
  if (!directory) {
    Fail(error, "file identifier index: no search support directory");
    return nullptr;
  }
  std::string reason;
  if (!MakeDirectories(*directory, &reason)) {
    Fail(error, reason);
    return nullptr;
  }
  auto impl = std::make_unique<Impl>();
  const std::string path = *FileIDIndexPath();
  if (sqlite3_open_v2(path.c_str(), &impl->db,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                      nullptr) != SQLITE_OK) {
    Fail(error, impl->DatabaseFailure("open"));
    return nullptr;
  }
  sqlite3_busy_timeout(impl->db, 2000);
  // An indexer records files one commit at a time. With a write-ahead log
  // and NORMAL sync a commit costs no fsync (only an operating-system crash
  // can lose the last ones) and readers never wait for the writer.
  sqlite3_exec(impl->db, "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;", nullptr, nullptr, nullptr);
  if (sqlite3_exec(impl->db, kSchema, nullptr, nullptr, nullptr) != SQLITE_OK) {
    Fail(error, impl->DatabaseFailure("create its tables"));
    return nullptr;
  }
  return std::unique_ptr<FileIDIndexer>(new FileIDIndexer(std::move(impl)));
}

std::optional<uint32_t> FileIDIndexer::RecordFile(const std::string& path, std::string* error) {
  std::lock_guard lock(impl_->mutex);
  return impl_->Record(path, error);
}

std::optional<uint32_t> FileIDIndexer::RecordSafeSave(const std::string& path,
                                                      std::string* error) {
  std::lock_guard lock(impl_->mutex);
  return impl_->RecordReplacement(path, error);
}

}  // namespace kx
