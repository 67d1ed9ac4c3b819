// What decoding a hostile body costs in heap, measured at the allocator:
// this executable replaces the global allocation functions with ones that
// count, per thread, the bytes asked for.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdlib>
#include <new>

#include "platform/message/message_codec.h"
#include "platform/message/message_socket.h"
#include "platform/message/message_testing.h"
#include "platform/process/helper_process_testing.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KX_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KX_SANITIZED 1
#endif
#endif

namespace {

thread_local size_t tAllocatedBytes = 0;

void* CountedAllocate(size_t size) {
  tAllocatedBytes += size;
  return std::malloc(size ? size : 1);
}

}  // namespace

// Every non-aligned form is replaced, so that memory from these is always
// released by the matching `free` below, also under AddressSanitizer. Not
// inlined: the compiler would otherwise see `free` meet `new` and warn.
[[gnu::noinline]] void* operator new(size_t size) {
  if (void* p = CountedAllocate(size)) return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new[](size_t size) { return operator new(size); }
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return CountedAllocate(size);
}
[[gnu::noinline]] void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return CountedAllocate(size);
}
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete[](void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, size_t) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete[](void* p, size_t) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace kx {
namespace {

using test::RawDatagram;

struct Decoded {
  bool ok;
  size_t allocated;
  std::string reason;
};

// Decodes on this thread, counting what the decoder allocates; the result
// is dropped outside the count.
Decoded CountDecode(const std::vector<uint8_t>& bytes, std::vector<int> fds = {}) {
  const char* reason = "";
  const size_t before = tAllocatedBytes;
  std::optional<ReceivedMessage> message = DecodeMessage(bytes, fds, &reason);
  const size_t allocated = tAllocatedBytes - before;
  return {message.has_value(), allocated, message ? "" : reason};
}

// A header for an inline body, then a one-entry dictionary whose value the
// caller appends.
RawDatagram InlineEntry() {
  RawDatagram datagram;
  datagram.header(0).dictionary(1).text("v");
  return datagram;
}

// An out-of-line body of `size` bytes that are zero, i.e. nulls, except for
// an array count that claims nearly all of them; sparse, so cheap to send.
struct SparseBody {
  RawDatagram header;
  ScopedFd memfd;
};
SparseBody SparseNulls(size_t size) {
  RawDatagram head;
  head.dictionary(1).text("v").byte(0x0C).varint(size - 16);
  SparseBody body;
  body.memfd = test::MakeMemfd(head.data(), size, /*sealShrink=*/true);
  body.header.header(0, MessageHeader::kOutOfLine).varint(size);
  return body;
}

TEST(MessageDecodeBudgetTest, HostileCountsCostAtMostASmallMultipleOfTheBody) {
  const size_t room = kMessageInlineLimit - 64;

  // One-byte items, each worth a 40-byte object.
  RawDatagram nulls = InlineEntry();
  nulls.byte(0x0C).varint(room);
  for (size_t i = 0; i < room; ++i) nulls.byte(0x00);
  // Two-byte empty arrays, each worth an object and an array.
  RawDatagram arrays = InlineEntry();
  arrays.byte(0x0C).varint(room / 2);
  for (size_t i = 0; i < room / 2; ++i) arrays.bytes({0x0C, 0x00});
  // Entries with distinct one-byte keys and null values in nested
  // dictionaries: three bytes for an entry and the key list that checks
  // for duplicates.
  RawDatagram entries;
  entries.header(0).dictionary(room / 300);
  for (size_t d = 0; d < room / 300; ++d) {
    entries.byte(2).byte(static_cast<uint8_t>(0x21 + d % 90)).byte(0x21 + d / 90 % 90);
    entries.dictionary(90);
    for (uint8_t k = 0; k < 90; ++k) entries.byte(1).byte(0x21 + k).byte(0);
  }

  for (const std::vector<uint8_t>* hostile : {&nulls.data(), &arrays.data(), &entries.data()}) {
    const Decoded d = CountDecode(*hostile);
    EXPECT_FALSE(d.ok);
    EXPECT_LE(d.allocated, MessageDecodeBudget(hostile->size())) << d.reason;
  }

  const size_t sparse = 8 << 20;
  SparseBody body = SparseNulls(sparse);
  ASSERT_TRUE(body.memfd);
  const Decoded d = CountDecode(body.header.data(), {body.memfd.release()});
  EXPECT_FALSE(d.ok);
  EXPECT_LE(d.allocated, MessageDecodeBudget(sparse)) << d.reason;
}

TEST(MessageDecodeBudgetTest, OrdinaryMessagesStillFitTheirBudget) {
  // Results-like: many small dictionaries of short strings and numbers.
  auto results = MessageArray::Create();
  for (int i = 0; i < 2000; ++i) {
    auto result = MessageDictionary::Create();
    result->set("id", MessageObject::UInt64(static_cast<uint64_t>(i) * 977));
    result->set("title", MessageObject::String("Result " + std::to_string(i)));
    result->set("rank", MessageObject::Double(i / 7.0));
    result->set("kind", MessageObject::Int64(i % 5));
    results->append(MessageObject::Dictionary(result));
  }
  auto message = MessageDictionary::Create();
  message->set("results", MessageObject::Array(results));
  OutgoingMessage out;
  ASSERT_TRUE(out.encode(*message));
  out.setHeader(0, 0, 0);
  std::vector<uint8_t> bytes = test::Flatten(out);
  std::vector<int> fds(out.descriptors().begin(), out.descriptors().end());
  for (int& fd : fds) fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  const Decoded d = CountDecode(bytes, fds);
  EXPECT_TRUE(d.ok) << d.reason;
  EXPECT_LE(d.allocated, MessageDecodeBudget(out.heldBytes()));
}

// A reader thread that met std::bad_alloc used to take its process down.
TEST(MessageDecodeBudgetTest, AReceiverShortOfAddressSpaceSurvivesAHugeSparseBody) {
#ifdef KX_SANITIZED
  GTEST_SKIP() << "sanitizer runtimes reserve far more address space than the limit";
#endif
  constexpr uint64_t kLimit = uint64_t{1} << 30;
  test::HelperProcess server("message_peer", {"serve", "limited", std::to_string(kLimit)});
  ASSERT_EQ(server.ReadLine(), "ready");
  int error = 0;
  ScopedFd raw = ConnectToService("limited", &error);
  ASSERT_TRUE(raw) << error;

  SparseBody body = SparseNulls(size_t{64} << 20);
  ASSERT_TRUE(body.memfd);
  const int descriptor = body.memfd.get();
  test::SendRaw(raw.get(), body.header.data(), {&descriptor, 1});

  // Answered in order on the same connection: the server lived through it.
  auto echo = MessageDictionary::Create();
  echo->set("op", MessageObject::String("echo"));
  OutgoingMessage request;
  ASSERT_TRUE(request.encode(*echo));
  request.setHeader(MessageHeader::kWantsReply, 1, 0);
  test::SendRaw(raw.get(), test::Flatten(request));
  pollfd p{raw.get(), POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 30'000), 1);
  std::vector<uint8_t> reply(kMessageInlineLimit);
  const ssize_t n = recv(raw.get(), reply.data(), reply.size(), 0);
  ASSERT_GT(n, 0) << "the server died";
  reply.resize(static_cast<size_t>(n));
  std::optional<ReceivedMessage> answer = DecodeMessage(reply, {});
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->header.replyTo, 1u);
}

}  // namespace
}  // namespace kx
