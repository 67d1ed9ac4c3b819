#include "kx/KXDPQMessage.h"

#include <gtest/gtest.h>

#include "kx/KXDPQServer.h"
#include "ipc/dpq_testing.h"
#include "kx/assert.h"
#include "base/property_list.h"
#include "tests/support/assertion_recorder.h"
#include "platform/message/message_testing.h"

namespace kx {
namespace {

using test::LoggedCount;
using test::MessageInbox;
using test::PatternByte;


// An in-process server that hands every message to `inbox`, and a raw
// client that sends hand-made envelopes to it.
struct Loopback {
  Loopback() {
    server = KXDPQServer::initListenerWithServiceName("svc", Queue::Create("test.listener"));
    server->setHandlerForMessageName(std::nullopt, [inbox = inbox](const auto&, const auto& m) {
      inbox->add(m);
    });
    server->startListening();
    raw->setEventHandler([](const MessageObject&) {});
    raw->resume();
  }
  ~Loopback() { raw->cancel(); }

  void send(std::initializer_list<std::pair<std::string_view, MessageObject>> entries,
            MessageConnection::ReplyHandler reply = nullptr) {
    auto d = MessageDictionary::Create();
    for (const auto& [key, value] : entries) d->set(key, value);
    if (reply) {
      raw->sendWithReply(*d, nullptr, std::move(reply));
    } else {
      raw->send(*d);
    }
  }

  std::shared_ptr<MessageInbox> inbox = std::make_shared<MessageInbox>();
  std::shared_ptr<KXDPQServer> server;
  std::shared_ptr<MessageConnection> raw =
      MessageConnection::CreateClient("svc", Queue::Create("test.raw"));
};

MessageObject Name(std::string_view name) { return MessageObject::String(name); }

MessageObject Region(size_t length) {
  std::vector<uint8_t> bytes(length);
  for (size_t i = 0; i < length; ++i) bytes[i] = PatternByte(i);
  return *MessageObject::SharedMemory(bytes.data(), bytes.size());
}

TEST(KXDPQMessageTest, WireFormCarriesThePresentKeysInTableOrder) {
  size_t allocated = 0;
  void* region = SharedMemoryAllocator::Allocate(100, &allocated);
  ASSERT_NE(region, nullptr);
  auto message = KXDPQMessage::initWithName("Name");
  message->setInfo(MakeDictionary({{"k", "v"}}));
  message->setSharedMemoryRegion(region);
  message->setSharedMemoryLength(100);
  std::shared_ptr<MessageDictionary> wire = message->_createDPQMessage();
  ASSERT_NE(wire, nullptr);
  std::vector<std::string_view> keys;
  for (const auto& entry : wire->entries()) keys.push_back(entry.key);
  EXPECT_EQ(keys, (std::vector<std::string_view>{kDKMessageNameKey, kDKMessageInfoKey,
                                                 kDKMessageShMemKey, kDKMessageShMemLenKey}));
  EXPECT_EQ(wire->string(kDKMessageNameKey), "Name");
  EXPECT_EQ(DecodeBinaryPropertyList(*wire->data(kDKMessageInfoKey)).value,
            Value(MakeDictionary({{"k", "v"}})));
  EXPECT_EQ(wire->find(kDKMessageShMemKey)->sharedMemory()->length(), 100u);
  EXPECT_EQ(wire->uint64(kDKMessageShMemLenKey), 100u);
  SharedMemoryAllocator::Free(region);

  // Absent values stay out; info that is not a dictionary is no info.
  auto bare = KXDPQMessage::initWithName("Bare");
  bare->setInfo(Value("not a dictionary"));
  EXPECT_FALSE(bare->info());
  EXPECT_EQ(bare->_createDPQMessage()->size(), 1u);
  EXPECT_FALSE(bare->needsReply());

  ScopedAssertionRecorder recorder;
  bare->setSharedMemoryRegion(&allocated);
  EXPECT_EQ(bare->_createDPQMessage()->find(kDKMessageShMemKey), nullptr);
  bare->sendReply();
  EXPECT_EQ(recorder.texts(), (std::vector<std::string>{"Shared memory region must have length!",
                                                        "Trying to send reply where one isn't expected"}));
}

TEST(KXDPQMessageTest, ReceivedEnvelopesAreReadDefensively) {
  setKXLogLevel(7);
  Loopback loop;
  const std::vector<uint8_t> arrayPlist = EncodeBinaryPropertyList(Value(Array{Value(1)}));
  loop.send({{kDKMessageNameKey, Name("Empty")},
             {kDKMessageInfoKey, MessageObject::Data(std::vector<uint8_t>{})}});
  loop.send({{kDKMessageNameKey, Name("Garbage")},
             {kDKMessageInfoKey, MessageObject::Data(std::vector<uint8_t>{1, 2, 3})}});
  loop.send({{kDKMessageNameKey, Name("Array")}, {kDKMessageInfoKey, MessageObject::Data(arrayPlist)}});
  loop.send({{kDKMessageInfoKey, MessageObject::Data(arrayPlist)}});
  loop.send({{kDKMessageNameKey, Name("Region")},
             {kDKMessageShMemKey, Region(10000)},
             {kDKMessageShMemLenKey, MessageObject::UInt64(10)}});
  loop.send({{kDKMessageNameKey, Name("TooLong")},
             {kDKMessageShMemKey, Region(10)},
             {kDKMessageShMemLenKey, MessageObject::UInt64(11)}});
  loop.send({{kDKMessageNameKey, Name("Last")}});
  ASSERT_TRUE(loop.inbox->waitFor(6));
  std::vector<std::shared_ptr<KXDPQMessage>> received = loop.inbox->items();
  ASSERT_EQ(received.size(), 6u);

  std::vector<std::optional<std::string>> names;
  for (const auto& m : received) names.push_back(m->name());
  EXPECT_EQ(names, (std::vector<std::optional<std::string>>{"Empty", "Garbage", "Array", std::nullopt,
                                                            "Region", "Last"}));
  for (size_t i = 0; i < 4; ++i) EXPECT_FALSE(received[i]->info()) << i;
  // Only the bytes that are no property list at all are worth a log line.
  const std::vector<uint8_t> garbage{1, 2, 3};
  EXPECT_EQ(LoggedCount("Error deserializing plist " + DecodeBinaryPropertyList(garbage).error), 1u);

  // The declared length counts, not the page-rounded mapping.
  const KXDPQMessage& region = *received[4];
  ASSERT_EQ(region.sharedMemoryLength(), 10u);
  const auto* bytes = static_cast<const uint8_t*>(region.sharedMemoryRegion());
  ASSERT_NE(bytes, nullptr);
  for (size_t i = 0; i < 10; ++i) EXPECT_EQ(bytes[i], PatternByte(i));
  EXPECT_EQ(LoggedCount("Dropping message TooLong: declared shared memory length 11 exceeds the "
                        "region's 10 bytes"),
            1u);
}

TEST(KXDPQMessageTest, ReceivedRegionIsUnmappedWithItsMessageUnlessTaken) {
  Loopback loop;
  const size_t before = test::SharedMemoryMappingCount();
  loop.send({{kDKMessageNameKey, Name("Dropped")},
             {kDKMessageShMemKey, Region(5000)},
             {kDKMessageShMemLenKey, MessageObject::UInt64(5000)}});
  loop.send({{kDKMessageNameKey, Name("Taken")},
             {kDKMessageShMemKey, Region(5000)},
             {kDKMessageShMemLenKey, MessageObject::UInt64(4000)}});
  ASSERT_TRUE(loop.inbox->waitFor(2));
  std::vector<std::shared_ptr<KXDPQMessage>> received = loop.inbox->items();
  loop.inbox->clear();
  EXPECT_EQ(test::SharedMemoryMappingCount(), before + 2);

  std::unique_ptr<SharedMemoryRegion> taken = received[1]->takeSharedMemoryRegion();
  ASSERT_NE(taken, nullptr);
  EXPECT_EQ(received[1]->takeSharedMemoryRegion(), nullptr);
  EXPECT_EQ(received[0]->receivingConnection()->className(), "KXDPQConnection");
  const uint8_t* bytes = static_cast<const uint8_t*>(received[1]->sharedMemoryRegion());
  EXPECT_EQ(bytes, taken->data());
  received.clear();
  EXPECT_EQ(test::SharedMemoryMappingCount(), before + 1);
  EXPECT_EQ(bytes[3999], PatternByte(3999));
  taken.reset();
  EXPECT_EQ(test::SharedMemoryMappingCount(), before);
}

TEST(KXDPQMessageTest, ARequestIsAnsweredExactlyOnce) {
  Loopback loop;
  auto replies = std::make_shared<test::Inbox<MessageObject>>();
  loop.send({{kDKMessageNameKey, Name("Request")}},
            [replies](const MessageObject& reply) { replies->add(reply); });
  loop.send({{kDKMessageNameKey, Name("OneWay")}});
  ASSERT_TRUE(loop.inbox->waitFor(2));
  std::shared_ptr<KXDPQMessage> request = loop.inbox->items()[0];
  std::shared_ptr<KXDPQMessage> oneWay = loop.inbox->items()[1];
  EXPECT_TRUE(request->needsReply());
  EXPECT_FALSE(oneWay->needsReply());

  ScopedAssertionRecorder recorder;
  request->sendReply();
  EXPECT_FALSE(request->needsReply());
  request->sendReply(Value(MakeDictionary({{"again", true}})));
  oneWay->sendReply();
  EXPECT_EQ(recorder.texts(), (std::vector<std::string>(2, "Trying to send reply where one isn't expected")));
  ASSERT_TRUE(replies->waitFor(1));
  // An empty reply: no info at all, not an empty info.
  ASSERT_NE(replies->items()[0].dictionary(), nullptr);
  EXPECT_EQ(replies->items()[0].dictionary()->size(), 0u);
}

}  // namespace
}  // namespace kx
