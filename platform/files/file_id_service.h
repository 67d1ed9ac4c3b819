// File-system identifier services: naming files by number instead of path.
//
// A file is named by (device, object number): the device is the volume that
// holds the user library directory, the object number the low 32 bits of the
// file's inode number. Document identifiers are unsigned 32-bit numbers kept
// in the extended attribute "user.orvex.docid" (decimal text); unlike inode
// numbers they survive a safe save, because the indexer carries the
// attribute over to the replacing file. Linux offers no unprivileged
// open-by-inode (open_by_handle_at needs CAP_DAC_READ_SEARCH), so both
// open-by-identifier and document-identifier resolution go through a SQLite
// index in the search support directory that FileIDIndexer fills:
//   files:     (device, inode) -> path, looked up by (device, object number)
//   documents: (device, docid) -> inode
// The index is only a hint: every path it yields is opened and checked
// against the device and object number asked for, so a stale entry fails
// with ENOENT instead of opening another file.
//
// Every function may be called from any thread. Failures set errno.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kx {

// The extended attribute that holds a file's document identifier.
inline constexpr char kDocumentIDAttribute[] = "user.orvex.docid";

// An owned descriptor, closed on destruction.
//
// Close() forgets the number: a closed FileDescriptor only remembers that it
// no longer refers to anything, and every request made on it fails with EBADF
// without reaching the kernel. Descriptor numbers are reused as soon as they
// are closed, possibly by another thread, so a request on a remembered number
// could silently act on an unrelated file; requests on a closed
// FileDescriptor cannot.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { Close(); }

  bool valid() const { return fd_ >= 0; }
  // The number, or -1 when closed or never opened.
  int get() const { return fd_; }
  // Idempotent.
  void Close();

 private:
  int fd_ = -1;
};

// Device number of the volume that holds kx::UserLibraryDirectory(), read
// once per process. Stops the process with a fatal assertion when the
// directory's status cannot be read.
uint32_t DeviceID();

// The device numbers this service compares: st_dev narrowed to 32 bits.
// Lossless for majors below 4096 and minors below 2^20, which covers every
// block device Linux assigns in practice.
uint32_t DeviceNumber32(uint64_t stDev);

// Opens the object (device, objectNumber) with `flags` (access mode plus
// O_NOFOLLOW and the like; O_CLOEXEC, O_NONBLOCK and O_NOCTTY are always
// added, so that a path that has meanwhile become a FIFO or a terminal
// cannot block or adopt the caller). The generation is always "current":
// inode generations are not tracked. Invalid with errno ENOENT when the
// object is unknown or its indexed path no longer names it, or with the
// errno of the failed open.
FileDescriptor OpenByID(uint32_t device, uint32_t objectNumber, int flags);

// openat(2) relative to `directory`, with the same always-added flags as
// OpenByID. EBADF when `directory` is closed.
FileDescriptor OpenAt(const FileDescriptor& directory, const std::string& name, int flags);

// The attribute request on a descriptor.
inline constexpr uint16_t kAttributeBitmapCount = 5;
inline constexpr uint32_t kCommonAttributeDocumentID = 0x00100000;
inline constexpr uint32_t kCommonAttributeFullPath = 0x08000000;
inline constexpr uint32_t kAttributeOptionNoFollow = 0x1;
inline constexpr uint32_t kAttributeOptionExtendedCommon = 0x20;

struct AttributeList {
  uint16_t bitmapCount = kAttributeBitmapCount;
  uint32_t commonAttributes = 0;
};

// Packs the requested attributes of the object open on `fd` into `buffer`.
// Reply layout, little-endian, fields in ascending attribute-bit order:
//   uint32 total length of the reply
//   uint32 document identifier (0 when the object has none)
//   int32 offset of the path, counted from this field; uint32 path length
//   the path bytes, NUL-terminated, padded to a multiple of 4 bytes
// Returns 0, or -1 with errno: EBADF (closed descriptor), EINVAL (an
// unsupported attribute or option, or a damaged document identifier
// attribute), ENOENT (the object has no path any more), ERANGE (buffer too
// small for the fixed part), ENAMETOOLONG (the path does not fit).
int GetAttributeList(const FileDescriptor& fd, const AttributeList& request, void* buffer,
                     size_t size, uint32_t options);

// The file identifier (inode number) that currently holds `documentID` on
// `device`, or nullopt with errno ENOENT (unknown) or EIO (index unreadable).
std::optional<uint64_t> ResolveDocumentID(uint32_t device, uint32_t documentID);

// Path of the index: "<search support directory>/FileIdentifiers.db";
// absent when the support directory is.
std::optional<std::string> FileIDIndexPath();

// Fills the index. Writers take SQLite's write lock for each change, so
// several indexers (threads or processes) may run at once; readers in other
// processes see each change once it is committed.
class FileIDIndexer {
 public:
  // Opens the index read-write, creating the support directory and the index
  // when missing. Null with `*error` set on failure.
  static std::unique_ptr<FileIDIndexer> Open(std::string* error);
  ~FileIDIndexer();

  // Records the object at `path` (the last component is not followed): gives
  // it a fresh document identifier when it has none, or when its identifier
  // belongs to another live object (a copy made with its attributes), and
  // maps its inode to `path` and its document identifier to its inode.
  // Returns the document identifier, or nullopt with `*error` set.
  std::optional<uint32_t> RecordFile(const std::string& path, std::string* error);

  // Records that `path`, which was recorded before, now holds a new inode that
  // replaced the recorded one (a safe save: write a new file, rename it over
  // the old). The new inode inherits the old one's document identifier,
  // attribute included, and the identifier maps to the new inode. Without an
  // earlier record of `path` this is RecordFile.
  std::optional<uint32_t> RecordSafeSave(const std::string& path, std::string* error);

 private:
  struct Impl;
  explicit FileIDIndexer(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace kx
