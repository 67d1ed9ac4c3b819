#include "platform/message/message_object.h"

#include <gtest/gtest.h>
#include <fcntl.h>

#include "platform/message/message_testing.h"

namespace kx {
namespace {

TEST(MessageObjectTest, DictionaryKeepsAbsentEmptyAndWrongTypeApart) {
  auto d = MessageDictionary::Create();
  d->set("name", MessageObject::String("first"));
  d->set("empty", MessageObject::String(""));
  d->set("count", MessageObject::UInt64(3));
  d->set("name", MessageObject::String("second"));  // replaces in place

  ASSERT_EQ(d->size(), 3u);
  EXPECT_EQ(d->entries()[0].key, "name");
  EXPECT_EQ(d->string("name"), std::optional<std::string_view>("second"));
  EXPECT_EQ(d->string("empty"), std::optional<std::string_view>(""));
  EXPECT_EQ(d->string("missing"), std::nullopt);
  EXPECT_EQ(d->string("count"), std::nullopt);  // present, but not a string
  EXPECT_EQ(d->uint64("count"), 3u);
  EXPECT_EQ(d->int64("count"), std::nullopt);

  EXPECT_TRUE(d->remove("empty"));
  EXPECT_FALSE(d->remove("empty"));
  EXPECT_EQ(d->find("empty"), nullptr);
  // Keys added after a removal still resolve (their storage never moves).
  for (int i = 0; i < 50; ++i) d->set("key" + std::to_string(i), MessageObject::Int64(i));
  EXPECT_EQ(d->int64("key0"), 0);
  EXPECT_EQ(d->int64("key49"), 49);
}

TEST(MessageObjectTest, DescriptorClosesWithTheLastCopy) {
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
  ScopedFd readEnd(fds[0]);
  {
    MessageObject first = MessageObject::FileDescriptor(ScopedFd(fds[1]));
    MessageObject second = first;
    first = MessageObject();
    EXPECT_EQ(second.fileDescriptor(), fds[1]);
    EXPECT_EQ(write(second.fileDescriptor(), "z", 1), 1);
  }
  char buffer[4];
  EXPECT_EQ(read(readEnd.get(), buffer, sizeof buffer), 1);
  EXPECT_EQ(read(readEnd.get(), buffer, sizeof buffer), 0);  // write end closed
}

TEST(MessageObjectTest, SharedMemoryIsSealedAndReceivedRegionsAreTakenOverOnce) {
  EXPECT_EQ(MessageObject::SharedMemory(nullptr, 10), std::nullopt);
  char bytes[100] = "hello";
  EXPECT_EQ(MessageObject::SharedMemory(bytes, 0), std::nullopt);

  std::optional<MessageObject> outgoing = MessageObject::SharedMemory(bytes, sizeof bytes);
  ASSERT_TRUE(outgoing);
  MessageSharedMemory* memory = outgoing->sharedMemory();
  ASSERT_NE(memory, nullptr);
  EXPECT_EQ(memory->length(), sizeof bytes);
  EXPECT_TRUE(fcntl(memory->descriptor(), F_GET_SEALS) & F_SEAL_SHRINK);

  auto received = std::make_shared<MessageSharedMemory>(
      MapReceivedRegion(fcntl(memory->descriptor(), F_DUPFD_CLOEXEC, 0), 5));
  EXPECT_EQ(received->length(), 5u);
  EXPECT_EQ(received->descriptor(), -1);
  ASSERT_NE(received->data(), nullptr);
  EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(received->data()), 5), "hello");
  std::unique_ptr<SharedMemoryRegion> taken = received->takeRegion();
  EXPECT_NE(taken, nullptr);
  EXPECT_EQ(received->takeRegion(), nullptr);
  received.reset();  // the taker's mapping stays valid
  EXPECT_EQ(taken->data()[0], 'h');
}

TEST(MessageObjectTest, RepliesExistOnlyForReceivedRequests) {
  auto outgoing = MessageDictionary::Create();
  EXPECT_FALSE(outgoing->expectsReply());
  EXPECT_EQ(MessageDictionary::CreateReply(*outgoing), nullptr);
  EXPECT_EQ(MessageObject::Error(MessageError::Interrupted).errorValue(),
            MessageError::Interrupted);
  EXPECT_STREQ(MessageErrorDescription(MessageError::Invalid), "Connection invalid");
}

}  // namespace
}  // namespace kx
