#include "support/file_identifier_url.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "kx/log.h"

namespace kx {
namespace {

// Room for the fixed part of the reply (16 bytes) and a path of up to 1023
// bytes with its terminator; longer paths fail the request.
constexpr size_t kReplySize = 1040;

struct AttributeReply {
  uint32_t documentID = 0;
  std::string path;
};

uint32_t GetUInt32(const uint8_t* at) {
  return uint32_t{at[0]} | uint32_t{at[1]} << 8 | uint32_t{at[2]} << 16 | uint32_t{at[3]} << 24;
}

// Reads the reply to a document-identifier-and-path request: total length,
// document identifier, path reference (offset from the offset field itself,
// length), path bytes. Nothing when a field points outside the reply.
std::optional<AttributeReply> ParseReply(const uint8_t* reply, size_t size) {
  constexpr size_t kFixed = 16;
  constexpr size_t kReferenceAt = 8;
  if (size < kFixed) return std::nullopt;
  const uint32_t total = GetUInt32(reply);
  if (total < kFixed || total > size) return std::nullopt;
  const auto offset = static_cast<int32_t>(GetUInt32(reply + kReferenceAt));
  const uint32_t length = GetUInt32(reply + kReferenceAt + 4);
  const int64_t start = int64_t{kReferenceAt} + offset;
  if (start < static_cast<int64_t>(kFixed) || start + int64_t{length} > int64_t{total})
    return std::nullopt;
  return AttributeReply{GetUInt32(reply + 4),
                        std::string(reinterpret_cast<const char*>(reply) + start, length)};
}

void LogAttributeFailure(int error) {
  KXLOG(3, "fgetattrlist failed; error %d (%s)", error, std::strerror(error));
}

// The URL of the object open on `fd` when it carries `documentID`; otherwise
// nothing, logged.
std::optional<URL> URLOfDocument(const FileDescriptor& fd, uint32_t documentID) {
  alignas(4) uint8_t reply[kReplySize];
  const AttributeList request{kAttributeBitmapCount,
                              kCommonAttributeDocumentID | kCommonAttributeFullPath};
  if (GetAttributeList(fd, request, reply, sizeof reply,
                       kAttributeOptionNoFollow | kAttributeOptionExtendedCommon) != 0) {
    LogAttributeFailure(errno);
    return std::nullopt;
  }
  const std::optional<AttributeReply> parsed = ParseReply(reply, sizeof reply);
  if (!parsed) {
    LogAttributeFailure(EIO);
    return std::nullopt;
  }
  if (parsed->documentID != documentID) {
    KXLOG(3, "document IDs didn't match (%d v/s %d)", parsed->documentID, documentID);
    return std::nullopt;
  }
  return URL::FileURLWithPath(parsed->path);
}

// Opens by `fileID` and checks the document; the descriptor is closed on
// every path.
std::optional<URL> URLByFileID(uint64_t fileID, uint32_t documentID) {
  const FileDescriptor fd = openbyid(fileID);
  if (!fd.valid()) return std::nullopt;
  return URLOfDocument(fd, documentID);
}

std::optional<URL> URLByParentAndName(uint64_t parentFileID, const std::string& filename,
                                      uint32_t documentID) {
  FileDescriptor parent = openbyid(parentFileID);
  if (!parent.valid()) return std::nullopt;
  const FileDescriptor child = OpenAt(parent, filename, O_RDONLY | O_NOFOLLOW);
  parent.Close();
  if (!child.valid()) return std::nullopt;
  // Deliberately asks the parent, which is closed by now, instead of the
  // child: this step is kept as it has always behaved, so it normally fails
  // with EBADF and resolution carries on by document identifier. A closed
  // FileDescriptor has forgotten its number, so the request fails without
  // touching a descriptor number that another thread may have been given
  // in the meantime.
  return URLOfDocument(parent, documentID);
}

std::optional<URL> URLByDocumentID(uint32_t documentID) {
  errno = 0;
  const std::optional<uint64_t> fileID = ResolveDocumentID(DeviceID(), documentID);
  if (!fileID) {
    const int error = errno;
    KXLOG(3, "GSLibraryResolveDocumentId2 failed; error %d (%s)", error, std::strerror(error));
    return std::nullopt;
  }
  return URLByFileID(*fileID, documentID);
}

}  // namespace

FileDescriptor openbyid(uint64_t fileID) {
  FileDescriptor fd = OpenByID(DeviceID(), static_cast<uint32_t>(fileID), O_RDONLY | O_NOFOLLOW);
  if (!fd.valid()) {
    const int error = errno;
    KXLOG(3, "openbyid_np failed; error %d (%s)", error, std::strerror(error));
  }
  return fd;
}

}  // namespace kx

std::optional<kx::URL> kx_URLFromFileID(std::optional<uint64_t> fileID,
                                        const std::optional<std::string>& filename,
                                        std::optional<uint64_t> parentFileID,
                                        std::optional<uint32_t> documentID) {
  if (!documentID) {
    KXLOG(3, "Item missing document ID");
    return std::nullopt;
  }
  if (fileID) {
    if (std::optional<kx::URL> url = kx::URLByFileID(*fileID, *documentID)) return url;
  }
  if (filename && parentFileID) {
    if (std::optional<kx::URL> url = kx::URLByParentAndName(*parentFileID, *filename, *documentID))
      return url;
  }
  return kx::URLByDocumentID(*documentID);
}
