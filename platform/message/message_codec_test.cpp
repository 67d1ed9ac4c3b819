#include "platform/message/message_codec.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "platform/message/message_testing.h"
#include "platform/message/shared_memory.h"

namespace kx {
namespace {

using test::RawDatagram;

std::vector<int> Duplicates(std::span<const int> fds) {
  std::vector<int> copies;
  for (int fd : fds) copies.push_back(fcntl(fd, F_DUPFD_CLOEXEC, 0));
  return copies;
}

std::vector<int> Eventfds(size_t n) {
  std::vector<int> fds;
  for (size_t i = 0; i < n; ++i) fds.push_back(eventfd(0, EFD_CLOEXEC));
  return fds;
}

std::optional<ReceivedMessage> Decode(const std::vector<uint8_t>& bytes,
                                      std::vector<int> fds = {}) {
  return DecodeMessage(bytes, fds);
}

std::shared_ptr<MessageDictionary> NestedSample() {
  auto inner = MessageDictionary::Create();
  inner->set("deep", MessageObject::Int64(-5));
  auto array = MessageArray::Create();
  array->append(MessageObject::String("\xC3\xA9t\xC3\xA9"));
  array->append(MessageObject());
  array->append(MessageObject::Dictionary(inner));
  auto d = MessageDictionary::Create();
  d->set("kDKMessageNameKey", MessageObject::String("OpenQuery"));
  d->set("empty", MessageObject::String(""));
  d->set("data", MessageObject::Data(std::vector<uint8_t>{0, 1, 2, 255}));
  d->set("min", MessageObject::Int64(std::numeric_limits<int64_t>::min()));
  d->set("max", MessageObject::UInt64(std::numeric_limits<uint64_t>::max()));
  d->set("yes", MessageObject::Bool(true));
  d->set("double", MessageObject::Double(-0.5));
  d->set("nan", MessageObject::Double(std::nan("")));
  d->set("date", MessageObject::Date(Date{7.25}));
  d->set("uuid", MessageObject::Uuid({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}));
  d->set("null", MessageObject());
  d->set("array", MessageObject::Array(array));
  return d;
}

TEST(MessageCodecTest, RoundTripsEveryValueTypeWithDescriptors) {
  int pipeFds[2];
  ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
  ScopedFd readEnd(pipeFds[0]);
  void* shared = SharedMemoryAllocator::Allocate(10000);
  ASSERT_NE(shared, nullptr);
  std::memset(shared, 0xAB, 10000);

  auto d = NestedSample();
  d->set("fd", MessageObject::FileDescriptor(ScopedFd(pipeFds[1])));
  d->set("region", *MessageObject::SharedMemory(shared, 10000));
  SharedMemoryAllocator::Free(shared);

  OutgoingMessage out;
  ASSERT_TRUE(out.encode(*d));
  out.setHeader(MessageHeader::kWantsReply | MessageHeader::kIsReply, 42, 7);
  ASSERT_EQ(out.descriptors().size(), 2u);
  std::optional<ReceivedMessage> received =
      Decode(test::Flatten(out), Duplicates(out.descriptors()));
  ASSERT_TRUE(received);
  EXPECT_EQ(received->header.serial, 42u);
  EXPECT_EQ(received->header.replyTo, 7u);
  const MessageDictionary& body = *received->body;
  ASSERT_EQ(body.size(), d->size());
  for (size_t i = 0; i < d->size(); ++i) {
    const auto& sent = d->entries()[i];
    EXPECT_EQ(body.entries()[i].key, sent.key);
    if (sent.key != "fd" && sent.key != "region") {
      EXPECT_EQ(body.entries()[i].value, sent.value) << sent.key;
    }
  }
  EXPECT_EQ(body.string("empty"), std::optional<std::string_view>(""));

  // The received descriptor is the pipe's write end.
  d.reset();
  ASSERT_EQ(write(body.find("fd")->fileDescriptor(), "x", 1), 1);
  char c = 0;
  EXPECT_EQ(read(readEnd.get(), &c, 1), 1);
  EXPECT_EQ(c, 'x');

  // The region arrives mapped, with its declared length.
  MessageSharedMemory* region = body.find("region")->sharedMemory();
  ASSERT_NE(region, nullptr);
  EXPECT_EQ(region->length(), 10000u);
  EXPECT_EQ(region->data()[0], 0xAB);
  EXPECT_EQ(region->data()[9999], 0xAB);
}

TEST(MessageCodecTest, RejectsEveryTruncationAndTrailingBytes) {
  OutgoingMessage out;
  ASSERT_TRUE(out.encode(*NestedSample()));
  out.setHeader(MessageHeader::kWantsReply, 3, 0);
  std::vector<uint8_t> bytes = test::Flatten(out);
  ASSERT_TRUE(Decode(bytes));
  for (size_t n = 0; n < bytes.size(); ++n) {
    std::vector<uint8_t> prefix(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(n));
    EXPECT_FALSE(Decode(prefix)) << "prefix of " << n << " bytes";
  }
  bytes.push_back(0);
  EXPECT_FALSE(Decode(bytes));
}

TEST(MessageCodecTest, RejectsMalformedEncodings) {
  auto nested = [](size_t arrays) {
    RawDatagram d;
    d.header(0).dictionary(1).text("k");
    for (size_t i = 0; i < arrays; ++i) d.byte(0x0C).varint(i + 1 < arrays ? 1 : 0);
    return d.data();
  };
  EXPECT_TRUE(Decode(nested(kMessageMaxDepth - 1)));

  RawDatagram seventeen;
  seventeen.header(0).dictionary(17);
  for (int i = 0; i < 16; ++i) seventeen.text("k" + std::to_string(i)).byte(0x00);
  seventeen.text("k3").byte(0x00);

  const std::pair<const char*, std::vector<uint8_t>> cases[] = {
      {"empty datagram", {}},
      {"unknown version", RawDatagram().bytes({2, 0, 0}).dictionary(0).data()},
      {"unknown flag", RawDatagram().header(0, 0x08).dictionary(0).data()},
      {"zero serial", RawDatagram().bytes({1, 1, 0, 0}).dictionary(0).data()},
      {"no body", RawDatagram().header(0).data()},
      {"body is an array", RawDatagram().header(0).bytes({0x0C, 0}).data()},
      {"unknown value type", RawDatagram().header(0).dictionary(1).text("k").byte(0x0E).data()},
      {"overlong UTF-8",
       RawDatagram().header(0).dictionary(1).text("k").bytes({0x08, 2, 0xC0, 0x80}).data()},
      {"surrogate",
       RawDatagram().header(0).dictionary(1).text("k").bytes({0x08, 3, 0xED, 0xA0, 0x80}).data()},
      {"key not UTF-8", RawDatagram().header(0).dictionary(1).bytes({1, 0xFF, 0x00}).data()},
      {"duplicate key",
       RawDatagram().header(0).dictionary(2).text("k").byte(0).text("k").byte(0).data()},
      {"duplicate among many", seventeen.data()},
      {"varint past 64 bits",
       RawDatagram()
           .header(0)
           .dictionary(1)
           .text("k")
           .bytes({0x04, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02})
           .data()},
      {"count beyond the bytes", RawDatagram().header(0).dictionary(100).data()},
      {"huge array",
       RawDatagram().header(0).dictionary(1).text("k").byte(0x0C).varint(uint64_t{1} << 40).data()},
      {"truncated double",
       RawDatagram().header(0).dictionary(1).text("k").bytes({0x05, 1, 2, 3}).data()},
      {"too deep", nested(kMessageMaxDepth)},
      {"too many descriptors declared",
       RawDatagram().header(kMessageMaxDescriptors + 1).dictionary(0).data()},
  };
  for (const auto& [name, bytes] : cases) {
    const char* reason = nullptr;
    EXPECT_FALSE(DecodeMessage(bytes, {}, &reason)) << name;
    EXPECT_NE(reason, nullptr) << name;
  }
}

TEST(MessageCodecTest, EncoderRefusesValuesThatCannotTravel) {
  auto refuses = [](MessageObject value) {
    auto d = MessageDictionary::Create();
    d->set("k", std::move(value));
    OutgoingMessage out;
    return !out.encode(*d);
  };
  EXPECT_TRUE(refuses(MessageObject::Error(MessageError::Invalid)));
  EXPECT_TRUE(refuses(MessageObject::String("\xFF")));
  auto deep = MessageArray::Create();
  for (size_t i = 0; i < kMessageMaxDepth; ++i) {
    auto outer = MessageArray::Create();
    outer->append(MessageObject::Array(deep));
    deep = outer;
  }
  EXPECT_TRUE(refuses(MessageObject::Array(deep)));
  auto many = MessageArray::Create();
  std::vector<int> fds = Eventfds(kMessageMaxDescriptors + 1);
  for (int fd : fds) many->append(MessageObject::FileDescriptor(ScopedFd(fd)));
  EXPECT_TRUE(refuses(MessageObject::Array(many)));
}

TEST(MessageCodecTest, LargeBodiesTravelOutOfLine) {
  const size_t sizes[] = {kMessageInlineLimit - kMessageMaxHeader - 64, 300 * 1024};
  for (size_t size : sizes) {
    std::vector<uint8_t> payload(size);
    for (size_t i = 0; i < size; ++i) payload[i] = static_cast<uint8_t>(i * 13);
    auto d = MessageDictionary::Create();
    d->set("payload", MessageObject::Data(payload));
    OutgoingMessage out;
    ASSERT_TRUE(out.encode(*d));
    out.setHeader(0, 0, 0);
    const bool spilled = size > kMessageInlineLimit;
    EXPECT_EQ(out.descriptors().size(), spilled ? 1u : 0u);
    EXPECT_EQ(out.body().empty(), spilled);
    EXPECT_LE(test::Flatten(out).size(), kMessageInlineLimit);
    std::optional<ReceivedMessage> received =
        Decode(test::Flatten(out), Duplicates(out.descriptors()));
    ASSERT_TRUE(received);
    auto data = received->body->data("payload");
    ASSERT_TRUE(data);
    EXPECT_TRUE(std::equal(data->begin(), data->end(), payload.begin(), payload.end()));
  }
}

TEST(MessageCodecTest, ValidatesUtf8Strictly) {
  auto valid = [](std::string_view s) {
    return IsValidUtf8(reinterpret_cast<const uint8_t*>(s.data()), s.size());
  };
  EXPECT_TRUE(valid(""));
  EXPECT_TRUE(valid("plain ascii that is longer than eight bytes"));
  EXPECT_TRUE(valid("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"));  // é € 😀
  EXPECT_TRUE(valid("\xF4\x8F\xBF\xBF"));                      // U+10FFFF
  EXPECT_FALSE(valid("\xF4\x90\x80\x80"));                     // past U+10FFFF
  EXPECT_FALSE(valid("\xE0\x80\xAF"));                         // overlong
  EXPECT_FALSE(valid("abcdefgh\xC3"));                         // truncated
  EXPECT_FALSE(valid("\x80"));
}

}  // namespace
}  // namespace kx
