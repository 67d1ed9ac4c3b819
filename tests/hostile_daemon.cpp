// A hostile search daemon for the client's robustness tests: it answers
// queries with what a broken or malicious daemon could send.
//
//   hostile_daemon --service <name> --log <file>
//
// Listens on <name> (on the socket a launcher passed, if any) with the bare
// message service, so that it can attach regions and lengths that the
// library's own message layer would never produce. Every request that wants
// a reply gets an empty one; "RequestFTE" is answered with {"FTE": "ok"}
// after everything sent before it, so a client can use it as a fence. The
// text ("QS") of each "OpenQuery" runs as a script on a queue of the query's
// own.
//
// Every received message is appended to <file> as
//   <pid> TAB <name> TAB <info keys, comma-separated> TAB QID=<id>
// each start as "<pid> TAB start", and the end of each script as
// "<pid> TAB script-done TAB TAB QID=<id>" (the test daemon's format).
//
// Script words, blank-separated, run in order; D is a section domain, and
// the results of section D are titled "D.1", "D.2", ...:
//   good:D[:N]           a well-formed batch: section D with N results (2)
//   cut:D:K              sections D..D+K-1 in one batch, the region ending
//                        in the middle of the last one
//   unsealed:D           good:D in a memfd without any seal
//   hugetlb:D            good:D in a hugetlb memfd, sealed where the kernel
//                        allows (left zero-filled when no huge page can be
//                        mapped to write it)
//   overdeclared:D       good:D with an envelope length beyond the region
//   pastfile:D           good:D whose region claims 1 MiB of a one-page memfd
// Words marked * send section D with two good results, then section D + 1
// with one good result and a hostile second one.
//   innerlength:D *      the hostile result claims 2^40 bytes
//   slack:D:MB           good:D in a memfd of MB MiB
//   oversized:D:MB       section D filled with results up to MB MiB
//   sections:D:N         N sections D, D+1, ... in one batch, one result each
//   tiny:D:K:N           K sections D, D+1, ... in one batch, each with N
//                        results that hold an identifier only
//   otherqid:D:N         N times: good:D for the query's id - 1, for its
//                        id + 1000, and without an id
//   awaitclose           waits (10 s at most) for this query's "CloseQuery"
//   flood:D:N            N batches good:D
//   deepinfo:D:DEPTH     good:D whose info nests DEPTH dictionaries under
//                        "deep"
//   wideinfo:D:COUNT     good:D whose info holds under "wide" an array of
//                        COUNT references to one data object of 60 KiB
//   deepgroups:D:DEPTH * the hostile result holds DEPTH nested groups of an
//                        unassigned field
//   deeparchive:D:DEPTH * the hostile result's property archive nests DEPTH
//                        dictionaries
//   widearchive:D:COUNT * the hostile result's property archive is the
//                        property list of wideinfo
//   bombarchive:D:N *    N hostile results, each with a property archive of
//                        65,535 nodes in some 200 bytes
//   complete             "SearchComplete"
//   sleep:MS             a pause
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kx/KXDPQMessage.h"
#include "kx/KXSearchResult.h"
#include "kx/KXSearchResultSection.h"
#include "kx/KXSearchResultSerializer.h"
#include "kx/main_loop.h"
#include "kx/queue.h"
#include "platform/message/message_connection.h"
#include "platform/message/message_object.h"
#include "tests/support/daemon_event_log.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Peer = std::shared_ptr<kx::MessageConnection>;

constexpr uint8_t kEndOfSection = 0x04;
constexpr uint8_t kDomainKey = 0x08;      // of a section
constexpr uint8_t kIdentifierKey = 0x30;  // of a result
constexpr uint8_t kResultKey = 0x3A;           // field 7, length-delimited
constexpr uint8_t kPropertyArchiveKey = 0x52;  // field 10, length-delimited
constexpr uint8_t kStartGroup11 = 0x5B;        // field 11 (unassigned), start group
constexpr uint8_t kEndGroup11 = 0x5C;
constexpr size_t kMiB = size_t{1} << 20;
// The data object that wide property lists refer to again and again.
constexpr size_t kSharedData = 60 * 1024;


void Record(const std::string& line) { kx::test::RecordDaemonEvent(line); }

// Queries whose "CloseQuery" arrived, for scripts that wait for it.
class ClosedQueries {
 public:
  void add(uint32_t qid) {
    std::lock_guard lock(mu_);
    closed_.insert(qid);
    cv_.notify_all();
  }
  void waitFor(uint32_t qid) {
    std::unique_lock lock(mu_);
    cv_.wait_for(lock, std::chrono::seconds(10), [&] { return closed_.count(qid) != 0; });
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::set<uint32_t> closed_;
};

ClosedQueries gClosed;

void Varint(Bytes& out, uint64_t value) {
  for (; value >= 0x80; value >>= 7) out.push_back(static_cast<uint8_t>(value | 0x80));
  out.push_back(static_cast<uint8_t>(value));
}

void Append(Bytes& out, const Bytes& more) { out.insert(out.end(), more.begin(), more.end()); }

std::shared_ptr<KXSearchResult> Result(uint32_t domain, size_t index) {
  auto result = std::make_shared<KXSearchResult>();
  result->setTitle(std::to_string(domain) + "." + std::to_string(index));
  result->setIdentifier(index);
  return result;
}

// The stream of `sections` as the library's serializer writes it.
Bytes Stream(const std::vector<std::shared_ptr<KXSearchResultSection>>& sections) {
  auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, /*inProc=*/true);
  for (const auto& section : sections) serializer->appendSection(section);
  serializer->serialize();
  const uint8_t* bytes = static_cast<const uint8_t*>(serializer->byteVector());
  return Bytes(bytes, bytes + serializer->byteVectorCount());
}

std::shared_ptr<KXSearchResultSection> Section(uint32_t domain, size_t results) {
  auto section = std::make_shared<KXSearchResultSection>();
  section->setDomain(domain);
  for (size_t i = 1; i <= results; ++i) section->addResults(Result(domain, i));
  return section;
}

// Section `domain` with two results, then section `domain` + 1 with one
// good result and then `extras` (results' bytes, hostile).
Bytes StreamWithExtraResults(uint32_t domain, const std::vector<Bytes>& extras) {
  Bytes out = Stream({Section(domain, 2), Section(domain + 1, 1)});
  out.pop_back();  // the end mark, written again after the extra results
  for (const Bytes& extra : extras) {
    out.push_back(kResultKey);
    Varint(out, extra.size());
    Append(out, extra);
  }
  out.push_back(kEndOfSection);
  return out;
}

void BigEndian(Bytes& out, uint64_t value, int width) {
  for (int shift = (width - 1) * 8; shift >= 0; shift -= 8)
    out.push_back(static_cast<uint8_t>(value >> shift));
}

// Binary property lists written object by object, so that they can nest
// and share objects as no ordinary writer would. References take 4 bytes.
class PropertyListBuilder {
 public:
  uint32_t add(Bytes object) {
    objects_.push_back(std::move(object));
    return static_cast<uint32_t>(objects_.size() - 1);
  }
  // A marker byte whose low nibble holds `count`, or 0xF and the count as a
  // 4-byte integer.
  static Bytes Marker(uint8_t type, size_t count) {
    Bytes out;
    if (count < 15) {
      out.push_back(static_cast<uint8_t>(type | count));
    } else {
      out = {static_cast<uint8_t>(type | 0x0F), 0x12};
      BigEndian(out, count, 4);
    }
    return out;
  }
  static void Ref(Bytes& out, uint32_t index) { BigEndian(out, index, 4); }

  // {"QID": qid, key: value}, the top object.
  Bytes build(uint32_t qid, const std::string& key, uint32_t value) {
    Bytes qidObject = {0x13};  // an 8-byte integer
    BigEndian(qidObject, qid, 8);
    const uint32_t qidValue = add(std::move(qidObject));
    const uint32_t qidKey = add(Ascii("QID"));
    const uint32_t valueKey = add(Ascii(key));
    Bytes top = {0xD2};
    for (uint32_t ref : {qidKey, valueKey, qidValue, value}) Ref(top, ref);
    const uint32_t topIndex = add(std::move(top));

    Bytes out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<uint64_t> offsets;
    for (const Bytes& object : objects_) {
      offsets.push_back(out.size());
      Append(out, object);
    }
    const uint64_t table = out.size();
    for (uint64_t offset : offsets) BigEndian(out, offset, 8);
    Append(out, Bytes(6, 0));
    out.push_back(8);  // offset size
    out.push_back(4);  // reference size
    BigEndian(out, offsets.size(), 8);
    BigEndian(out, topIndex, 8);
    BigEndian(out, table, 8);
    return out;
  }

  static Bytes Ascii(const std::string& text) {
    Bytes out = Marker(0x50, text.size());
    out.insert(out.end(), text.begin(), text.end());
    return out;
  }

 private:
  std::vector<Bytes> objects_;
};

// `inner` inside `times` containers, each made by `around` from the index
// of what it holds.
uint32_t Wrap(PropertyListBuilder& plist, uint32_t inner, size_t times,
              const std::function<Bytes(uint32_t)>& around) {
  for (size_t i = 0; i < times; ++i) inner = plist.add(around(inner));
  return inner;
}

// {"QID": qid, "deep": {"k": {"k": ...}}} with `depth` dictionaries under
// "deep", the innermost empty.
Bytes NestedPropertyList(uint32_t qid, size_t depth) {
  PropertyListBuilder plist;
  const uint32_t key = plist.add(PropertyListBuilder::Ascii("k"));
  const uint32_t deep = Wrap(plist, plist.add({0xD0}), depth - 1, [key](uint32_t inner) {
    Bytes dictionary = {0xD1};
    PropertyListBuilder::Ref(dictionary, key);
    PropertyListBuilder::Ref(dictionary, inner);
    return dictionary;
  });
  return plist.build(qid, "deep", deep);
}

// {"QID": qid, "wide": [d, d, ...]}: `count` references to one data object
// d of `size` bytes, a small list that stands for count * size bytes.
Bytes SharedPropertyList(uint32_t qid, size_t count, size_t size) {
  PropertyListBuilder plist;
  Bytes data = PropertyListBuilder::Marker(0x40, size);
  data.resize(data.size() + size, 0x5A);
  const uint32_t shared = plist.add(std::move(data));
  Bytes array = PropertyListBuilder::Marker(0xA0, count);
  for (size_t i = 0; i < count; ++i) PropertyListBuilder::Ref(array, shared);
  return plist.build(qid, "wide", plist.add(std::move(array)));
}

// {"QID": qid, "chain": a}, where a is an array that refers twice to the
// next one, `levels` times: a tree of 2^(levels + 1) - 1 nodes.
Bytes ChainPropertyList(uint32_t qid, size_t levels) {
  PropertyListBuilder plist;
  const uint32_t chain = Wrap(plist, plist.add({0x10, 0x01}), levels, [](uint32_t inner) {
    Bytes array = {0xA2};
    PropertyListBuilder::Ref(array, inner);
    PropertyListBuilder::Ref(array, inner);
    return array;
  });
  return plist.build(qid, "chain", chain);
}

// Result `index` of section `domain` whose property archive field is
// followed by `archive`, which replaces it.
Bytes WithArchive(uint32_t domain, size_t index, const Bytes& archive) {
  Bytes record = Result(domain, index)->data();
  record.push_back(kPropertyArchiveKey);
  Varint(record, archive.size());
  Append(record, archive);
  return record;
}

// A memfd holding `bytes` in `size` bytes (at least the bytes), with
// `seals` added; -1 when the kernel refuses.
int Memfd(const Bytes& bytes, size_t size, unsigned flags, int seals) {
  const int fd = memfd_create("hostile", MFD_CLOEXEC | MFD_ALLOW_SEALING | flags);
  if (fd < 0) return -1;
  if (ftruncate(fd, static_cast<off_t>(std::max(size, bytes.size()))) != 0) {
    close(fd);
    return -1;
  }
  if (!bytes.empty()) {
    // hugetlbfs takes no write(2); its pages are written through a mapping,
    // which fails when the machine has no huge page to give.
    void* map = mmap(nullptr, std::max(size, bytes.size()), PROT_READ | PROT_WRITE, MAP_SHARED,
                     fd, 0);
    if (map != MAP_FAILED) {
      std::memcpy(map, bytes.data(), bytes.size());
      munmap(map, std::max(size, bytes.size()));
    }
  }
  if (seals) fcntl(fd, F_ADD_SEALS, seals);
  return fd;
}

constexpr int kUsualSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

// How a batch's region departs from a well-formed one.
struct Region {
  int fd = -1;             // owned until sent
  uint64_t length = 0;     // what the message layer declares for the region
  uint64_t declared = 0;   // the envelope's length
};

Region UsualRegion(const Bytes& stream) {
  return {Memfd(stream, stream.size(), 0, kUsualSeals), stream.size(), stream.size()};
}

std::shared_ptr<kx::MessageDictionary> Envelope(const char* name, kx::Dictionary info) {
  auto message = KXDPQMessage::initWithName(name);
  message->setInfo(kx::Value(std::move(info)));
  return message->_createDPQMessage();
}

kx::Dictionary QidInfo(uint32_t qid) { return {{"QID", kx::Number::UInt32(qid)}}; }

void SendResults(const Peer& peer, std::shared_ptr<kx::MessageDictionary> message,
                 Region region) {
  if (region.fd < 0) {
    Record("region refused by this kernel");
    return;
  }
  message->set(kDKMessageShMemKey,
               kx::MessageObject::SharedMemory(std::make_shared<kx::MessageSharedMemory>(
                   kx::ScopedFd(region.fd), region.length)));
  message->set(kDKMessageShMemLenKey, kx::MessageObject::UInt64(region.declared));
  peer->send(*message);
}

void SendResults(const Peer& peer, uint32_t qid, Region region) {
  SendResults(peer, Envelope("SearchResults", QidInfo(qid)), region);
}

void SendStream(const Peer& peer, uint32_t qid, const Bytes& stream) {
  SendResults(peer, qid, UsualRegion(stream));
}

// Section `domain` with results appended until the stream holds `size`
// bytes; written record by record, so the daemon never holds the results.
Bytes OversizedStream(uint32_t domain, size_t size) {
  Bytes out = Stream({Section(domain, 1)});
  out.pop_back();
  for (size_t i = 2; out.size() < size; ++i) {
    const Bytes record = Result(domain, i)->data();
    out.push_back(kResultKey);
    Varint(out, record.size());
    Append(out, record);
  }
  out.push_back(kEndOfSection);
  return out;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::stringstream in(text);
  for (std::string part; std::getline(in, part, separator);)
    if (!part.empty()) parts.push_back(part);
  return parts;
}

void RunWord(const Peer& peer, uint32_t qid, const std::string& word) {
  const std::vector<std::string> parts = Split(word, ':');
  auto number = [&](size_t index, uint64_t fallback) -> uint64_t {
    return index < parts.size() ? std::strtoull(parts[index].c_str(), nullptr, 10) : fallback;
  };
  const std::string& command = parts[0];
  const uint32_t domain = static_cast<uint32_t>(number(1, 40));
  const Bytes good = Stream({Section(domain, 2)});

  if (command == "good") {
    SendStream(peer, qid, Stream({Section(domain, number(2, 2))}));
  } else if (command == "cut") {
    std::vector<std::shared_ptr<KXSearchResultSection>> sections;
    for (uint64_t i = 0; i < number(2, 2); ++i)
      sections.push_back(Section(domain + static_cast<uint32_t>(i), 2));
    Bytes stream = Stream(sections);
    const Bytes last = Stream({sections.back()});
    stream.resize(stream.size() - last.size() / 2);
    SendStream(peer, qid, stream);
  } else if (command == "unsealed") {
    SendResults(peer, qid, {Memfd(good, good.size(), 0, 0), good.size(), good.size()});
  } else if (command == "hugetlb") {
    constexpr size_t kHugePage = 2 * kMiB;
    SendResults(peer, qid,
                {Memfd(good, kHugePage, MFD_HUGETLB, kUsualSeals), good.size(), good.size()});
  } else if (command == "overdeclared") {
    Region region = UsualRegion(good);
    region.declared = region.length + 1;
    SendResults(peer, qid, region);
  } else if (command == "pastfile") {
    SendResults(peer, qid, {Memfd(good, good.size(), 0, kUsualSeals), kMiB, kMiB});
  } else if (command == "innerlength") {
    Bytes claim;
    Varint(claim, uint64_t{1} << 40);
    Bytes stream = StreamWithExtraResults(domain, {Bytes()});
    // The extra result's length (a 0 byte) becomes the huge claim.
    const size_t at = stream.size() - 2;
    stream.erase(stream.begin() + static_cast<std::ptrdiff_t>(at));
    stream.insert(stream.begin() + static_cast<std::ptrdiff_t>(at), claim.begin(), claim.end());
    SendStream(peer, qid, stream);
  } else if (command == "slack") {
    SendResults(peer, qid,
                {Memfd(good, number(2, 1) * kMiB, 0, kUsualSeals), number(2, 1) * kMiB,
                 good.size()});
  } else if (command == "oversized") {
    SendStream(peer, qid, OversizedStream(domain, number(2, 1) * kMiB));
  } else if (command == "tiny") {
    // Records of an identifier alone, a few bytes each.
    Bytes stream;
    for (uint64_t k = 0; k < number(2, 1); ++k) {
      stream.push_back(kDomainKey);
      Varint(stream, domain + k);
      for (uint64_t i = 1; i <= number(3, 1); ++i) {
        Bytes record = {kIdentifierKey};
        Varint(record, i);
        stream.push_back(kResultKey);
        Varint(stream, record.size());
        Append(stream, record);
      }
      stream.push_back(kEndOfSection);
    }
    SendStream(peer, qid, stream);
  } else if (command == "sections") {
    std::vector<std::shared_ptr<KXSearchResultSection>> sections;
    for (uint64_t i = 0; i < number(2, 1); ++i)
      sections.push_back(Section(domain + static_cast<uint32_t>(i), 1));
    SendStream(peer, qid, Stream(sections));
  } else if (command == "otherqid") {
    for (uint64_t i = number(2, 1); i > 0; --i) {
      SendStream(peer, qid - 1, good);
      SendStream(peer, qid + 1000, good);
      SendResults(peer, Envelope("SearchResults", {}), UsualRegion(good));
    }
  } else if (command == "awaitclose") {
    gClosed.waitFor(qid);
  } else if (command == "flood") {
    for (uint64_t i = number(2, 1); i > 0; --i) SendStream(peer, qid, good);
  } else if (command == "deepinfo" || command == "wideinfo") {
    auto message = Envelope("SearchResults", {});
    const Bytes info = command == "deepinfo" ? NestedPropertyList(qid, number(2, 1))
                                             : SharedPropertyList(qid, number(2, 1), kSharedData);
    message->set(kDKMessageInfoKey, kx::MessageObject::Data(info));
    SendResults(peer, message, UsualRegion(good));
  } else if (command == "deepgroups") {
    Bytes groups(number(2, 1), kStartGroup11);
    groups.insert(groups.end(), number(2, 1), kEndGroup11);
    SendStream(peer, qid, StreamWithExtraResults(domain, {groups}));
  } else if (command == "deeparchive" || command == "widearchive") {
    const Bytes archive = command == "deeparchive"
                              ? NestedPropertyList(qid, number(2, 1))
                              : SharedPropertyList(qid, number(2, 1), kSharedData);
    SendStream(peer, qid, StreamWithExtraResults(domain, {WithArchive(domain + 1, 2, archive)}));
  } else if (command == "bombarchive") {
    const Bytes archive = ChainPropertyList(qid, 15);
    std::vector<Bytes> results;
    for (uint64_t i = 0; i < number(2, 1); ++i)
      results.push_back(WithArchive(domain + 1, 2 + i, archive));
    SendStream(peer, qid, StreamWithExtraResults(domain, results));
  } else if (command == "complete") {
    peer->send(*Envelope("SearchComplete", QidInfo(qid)));
  } else if (command == "sleep") {
    std::this_thread::sleep_for(std::chrono::milliseconds(number(1, 0)));
  }
}

void Handle(const Peer& peer, const std::shared_ptr<kx::MessageDictionary>& raw) {
  std::shared_ptr<KXDPQMessage> message = KXDPQMessage::_initWithDPQMessage(raw, nullptr);
  if (!message) return;
  const std::string name = message->name().value_or("(null)");
  const kx::Value& info = message->info();
  std::string keys;
  if (const kx::Dictionary* dictionary = info.dictionary())
    for (const auto& [key, value] : *dictionary) keys += (keys.empty() ? "" : ",") + key;
  const kx::Number* qidNumber = info["QID"].number();
  const uint32_t qid = qidNumber ? qidNumber->uint32Value() : 0;
  Record(name + "\t" + keys + "\tQID=" + std::to_string(qid));

  if (name == "CloseQuery") gClosed.add(qid);
  if (std::shared_ptr<kx::MessageDictionary> reply = kx::MessageDictionary::CreateReply(*raw)) {
    if (name == "RequestFTE") {
      auto answer = Envelope("reply", {{"FTE", "ok"}});
      if (const kx::MessageObject* data = answer->find(kDKMessageInfoKey))
        reply->set(kDKMessageInfoKey, *data);
    }
    peer->send(*reply);
  }
  const std::string* text = info["QS"].string();
  if (name != "OpenQuery" || !text) return;
  kx::Queue::Create("hostile.query")->async([peer, qid, script = *text] {
    for (const std::string& word : Split(script, ' ')) RunWord(peer, qid, word);
    Record("script-done\t\tQID=" + std::to_string(qid));
  });
}

int Serve(const std::string& service) {
  auto events = kx::Queue::Create("hostile.listener");
  Peer listener = kx::MessageConnection::CreateListener(service, events);
  listener->setEventHandler([](const kx::MessageObject& event) {
    Peer peer = event.connection();
    if (!peer) return;
    peer->setTargetQueue(kx::Queue::Create("hostile.peer"));
    std::weak_ptr<kx::MessageConnection> weak = peer;
    peer->setEventHandler([weak](const kx::MessageObject& message) {
      Peer self = weak.lock();
      if (self && message.type() == kx::MessageType::Dictionary)
        Handle(self, message.dictionaryRef());
    });
    peer->resume();
  });
  listener->resume();
  Record("start");
  kx::main_loop::run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  std::string service, log;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string arg = argv[i];
    if (arg == "--service") service = argv[i + 1];
    if (arg == "--log") log = argv[i + 1];
  }
  if (service.empty() || log.empty()) {
    std::fprintf(stderr, "usage: hostile_daemon --service <name> --log <file>\n");
    return 2;
  }
  if (!kx::test::OpenDaemonEventLog(log, "hostile_daemon")) return 1;
  return Serve(service);
}
