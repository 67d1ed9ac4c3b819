// The other process of the message service's cross-process tests.
//
//   message_peer serve <service> [<address-space limit in bytes>]
//
// Serves <service> (on the socket a launcher passed, if any), prints "ready"
// once listening, and answers each request by its "op" key:
//   "echo"        reply: the request's entries except "op" and shared
//                 memory, plus "pid" (uint64)
//   "record"      no reply: appends the string "value" to the record
//   "recorded"    reply: "values", the record as an array of strings; every
//                 peer that went away has appended "<gone>"
//   "hang"        never answered
//   "check-shmem" reply: "length" (declared length of "region") and "sum"
//                 (sum of its bytes)
//   "make-shmem"  reply: "region", shared memory of "length" bytes where
//                 byte i is (i * 7 + 1) mod 256
//   "write-fd"    writes "hello" to descriptor "fd", then an empty reply
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/message/message_connection.h"
#include "kx/queue.h"
#include "platform/message/shared_memory.h"

namespace {

using kx::MessageConnection;
using kx::MessageDictionary;
using kx::MessageObject;

std::mutex gMutex;
std::vector<std::string> gRecord;  // guarded by gMutex
std::vector<MessageObject> gHung;  // guarded by gMutex; kept so they are never answered

void Append(std::string value) {
  std::lock_guard lock(gMutex);
  gRecord.push_back(std::move(value));
}

void Reply(const MessageDictionary& request, const std::shared_ptr<MessageDictionary>& reply) {
  if (reply && request.remoteConnection()) request.remoteConnection()->send(*reply);
}

void HandleRequest(const MessageObject& message) {
  const MessageDictionary& request = *message.dictionary();
  const std::string op(request.string("op").value_or(""));
  std::shared_ptr<MessageDictionary> reply = MessageDictionary::CreateReply(request);
  if (op == "record") {
    Append(std::string(request.string("value").value_or("")));
  } else if (op == "recorded") {
    auto values = kx::MessageArray::Create();
    {
      std::lock_guard lock(gMutex);
      for (const std::string& v : gRecord) values->append(MessageObject::String(v));
    }
    reply->set("values", MessageObject::Array(values));
    Reply(request, reply);
  } else if (op == "echo") {
    for (const auto& entry : request.entries()) {
      if (entry.key != "op" && entry.value.type() != kx::MessageType::SharedMemory)
        reply->set(entry.key, entry.value);
    }
    reply->set("pid", MessageObject::UInt64(static_cast<uint64_t>(getpid())));
    Reply(request, reply);
  } else if (op == "hang") {
    std::lock_guard lock(gMutex);
    gHung.push_back(message);
  } else if (op == "check-shmem") {
    const kx::MessageObject* region = request.find("region");
    const kx::MessageSharedMemory* memory = region ? region->sharedMemory() : nullptr;
    uint64_t sum = 0;
    if (memory) {
      for (uint64_t i = 0; i < memory->length(); ++i) sum += memory->data()[i];
      reply->set("length", MessageObject::UInt64(memory->length()));
    }
    reply->set("sum", MessageObject::UInt64(sum));
    Reply(request, reply);
  } else if (op == "make-shmem") {
    const size_t length = request.uint64("length").value_or(0);
    void* address = kx::SharedMemoryAllocator::Allocate(length);
    if (address) {
      auto* bytes = static_cast<uint8_t*>(address);
      for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 1);
      if (auto region = MessageObject::SharedMemory(address, length)) reply->set("region", *region);
      kx::SharedMemoryAllocator::Free(address);
    }
    Reply(request, reply);
  } else if (op == "write-fd") {
    const MessageObject* fd = request.find("fd");
    if (fd && fd->fileDescriptor() >= 0) {
      [[maybe_unused]] ssize_t n = write(fd->fileDescriptor(), "hello", 5);
    }
    Reply(request, reply);
  }
}

int Serve(const std::string& service) {
  auto listener = MessageConnection::CreateListener(service, kx::Queue::Create("peer.listener"));
  listener->setEventHandler([](const MessageObject& event) {
    if (std::shared_ptr<MessageConnection> peer = event.connection()) {
      std::weak_ptr<MessageConnection> weak = peer;
      peer->setTargetQueue(kx::Queue::Create("peer.connection"));
      peer->setEventHandler([weak](const MessageObject& e) {
        if (e.dictionary()) return HandleRequest(e);
        if (e.errorValue() == kx::MessageError::Interrupted) {
          Append("<gone>");
          if (auto self = weak.lock()) self->cancel();
        }
      });
      peer->resume();
      return;
    }
    // The listener itself ended: nothing left to serve.
    std::fprintf(stderr, "message_peer: listener ended\n");
    _exit(3);
  });
  listener->resume();
  std::printf("ready\n");
  std::fflush(stdout);
  for (;;) pause();
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  if ((argc == 3 || argc == 4) && std::strcmp(argv[1], "serve") == 0) {
    if (argc == 4) {
      const rlim_t limit = std::strtoull(argv[3], nullptr, 10);
      const rlimit space{limit, limit};
      if (setrlimit(RLIMIT_AS, &space) != 0) {
        std::perror("message_peer: setrlimit");
        return 2;
      }
    }
    return Serve(argv[2]);
  }
  std::fprintf(stderr, "usage: message_peer serve <service> [<address-space limit>]\n");
  return 2;
}
