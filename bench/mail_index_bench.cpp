// kx-searchd's mail source on a generated Maildir: how many messages per
// second the indexer reads, parses and writes into a fresh index, and how
// much of that is parsing alone.
//
//   mail_index_bench [messages ...]        (default 10000)
//
// Corpus (generated, seeded): messages of 40 to 400 words drawn Zipf-like
// from 5,000 generated words (zipf_words.h); 55% text/plain, 20% multipart/alternative
// (plain and HTML), 10% HTML only, 15% multipart/mixed with a base64
// attachment of 8 to 64 KiB; 30% of subjects and sender names as RFC 2047
// encoded words (UTF-8 base64); 2 to 6 recipients. Spread over cur/ and new/
// of five Maildir folders.
//
// Anchor, in the same run: the same texts as plain notes (.txt, subject as
// first line, body below) through the notes source of the same indexer, so
// the difference is what MIME parsing and header decoding cost.
//
// Timing: wall clock (steady_clock) and process CPU time (std::clock) of
// Indexer::update() on an empty index; the files were just written, so they
// are in the page cache. "parse only" runs ParseMail over the messages held
// in memory.
#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "searchd/index.h"
#include "searchd/indexer.h"
#include "searchd/mail.h"
#include "searchd/sources.h"
#include "bench/zipf_words.h"

namespace {

namespace fs = std::filesystem;
using namespace kx::searchd;

std::string Base64(const std::string& in) {
  gchar* encoded = g_base64_encode(reinterpret_cast<const guchar*>(in.data()), in.size());
  std::string out(encoded);
  g_free(encoded);
  return out;
}

class MailCorpus {
 public:
  MailCorpus() : random_(20261123), words_(5000, random_) {}

  struct Message {
    std::string subject, body, file;
  };

  Message make(int i) {
    Message m;
    m.subject = words(3, 8);
    m.body = words(40, 400);
    const std::string sender = words(2, 2);
    const bool encoded = random_() % 10 < 3;
    auto header = [&](const std::string& text) { return encoded ? "=?UTF-8?B?" + Base64(text) + "?=" : text; };
    std::string mail = "From: " + header(sender) + " <" + sender.substr(0, sender.find(' ')) + "@example.org>\r\nTo: ";
    for (int n = 2 + static_cast<int>(random_() % 5); n > 0; --n) mail += word() + "@example.com, ";
    mail += "ada@example.org\r\nSubject: " + header(m.subject) + "\r\nDate: Mon, 18 Jan 2027 11:00:00 +0000\r\n" +
            "Message-ID: <m" + std::to_string(i) + "@bench.example.org>\r\nMIME-Version: 1.0\r\n";
    const int kind = static_cast<int>(random_() % 100);
    if (kind < 55) {
      mail += "Content-Type: text/plain; charset=utf-8\r\n\r\n" + m.body + "\r\n";
    } else if (kind < 75) {
      mail += "Content-Type: multipart/alternative; boundary=b\r\n\r\n--b\r\nContent-Type: text/plain; charset=utf-8\r\n\r\n" +
              m.body + "\r\n--b\r\nContent-Type: text/html; charset=utf-8\r\n\r\n<html><body><p>" + m.body +
              "</p></body></html>\r\n--b--\r\n";
    } else if (kind < 85) {
      mail += "Content-Type: text/html; charset=utf-8\r\n\r\n<html><head><style>p{}</style></head><body><p>" + m.body +
              "</p></body></html>\r\n";
    } else {
      std::string attachment(8192 + random_() % (56 * 1024), '\0');
      for (char& c : attachment) c = static_cast<char>(random_());
      mail += "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\nContent-Type: text/plain; charset=utf-8\r\n\r\n" +
              m.body + "\r\n--b\r\nContent-Type: application/octet-stream\r\n" +
              "Content-Disposition: attachment; filename=\"" + word() + ".bin\"\r\nContent-Transfer-Encoding: base64\r\n\r\n";
      const std::string encodedAttachment = Base64(attachment);
      for (size_t at = 0; at < encodedAttachment.size(); at += 76) mail += encodedAttachment.substr(at, 76) + "\r\n";
      mail += "--b--\r\n";
    }
    m.file = std::move(mail);
    return m;
  }

 private:
  const std::string& word() { return words_.word(); }
  std::string words(int min, int max) { return words_.words(min, max); }
  std::mt19937 random_;
  kx::bench::ZipfWords words_;
};

struct Timing {
  double wall = 0, cpu = 0;
};

template <typename F>
Timing Time(F&& work) {
  const auto wall = std::chrono::steady_clock::now();
  const std::clock_t cpu = std::clock();
  work();
  return {std::chrono::duration<double>(std::chrono::steady_clock::now() - wall).count(),
          static_cast<double>(std::clock() - cpu) / CLOCKS_PER_SEC};
}

Timing IndexOnce(const std::string& indexPath, SourceLocations locations, size_t expected) {
  fs::remove(indexPath);
  fs::remove(indexPath + "-wal");
  fs::remove(indexPath + "-shm");
  Index index(indexPath, /*readOnly=*/false);
  Indexer indexer(index, MakeSources(locations));
  IndexerStats stats;
  const Timing t = Time([&] { stats = indexer.update(); });
  if (stats.items != expected || stats.filesSkipped != 0)
    std::fprintf(stderr, "unexpected: %zu items, %zu skipped\n", stats.items, stats.filesSkipped);
  return t;
}

void Run(int count, const std::string& scratch) {
  const std::string root = scratch + "/corpus-" + std::to_string(count);
  fs::remove_all(root);
  MailCorpus corpus;
  std::vector<std::string> messages;
  uint64_t bytes = 0;
  for (int i = 0; i < count; ++i) {
    MailCorpus::Message m = corpus.make(i);
    const std::string folder = root + "/mail/.f" + std::to_string(i % 5) + (i % 4 == 0 ? "/new" : "/cur");
    fs::create_directories(folder);
    std::ofstream(folder + "/" + std::to_string(i) + ".M" + std::to_string(i) + "P1.bench:2,S", std::ios::binary)
        << m.file;
    fs::create_directories(root + "/notes");
    std::ofstream(root + "/notes/" + std::to_string(i) + ".txt", std::ios::binary) << m.subject << "\n\n" << m.body;
    bytes += m.file.size();
    messages.push_back(std::move(m.file));
  }

  const Timing parse = Time([&] {
    for (const std::string& m : messages)
      if (!ParseMail("/bench/cur/x", m).ok()) std::fprintf(stderr, "a generated message failed\n");
  });
  SourceLocations mailOnly, notesOnly;
  mailOnly.mail = {root + "/mail"};
  notesOnly.notes = {root + "/notes"};
  const Timing mail = IndexOnce(scratch + "/mail.db", mailOnly, messages.size());
  const Timing notes = IndexOnce(scratch + "/notes.db", notesOnly, messages.size());

  const double n = count;
  std::printf("%d messages, %.1f MiB of mail\n", count, static_cast<double>(bytes) / (1 << 20));
  std::printf("  %-26s %8.2f s wall %8.2f s CPU %9.0f msg/s (CPU)\n", "mail, parse only", parse.wall, parse.cpu,
              n / parse.cpu);
  std::printf("  %-26s %8.2f s wall %8.2f s CPU %9.0f msg/s (CPU) %9.0f msg/s (wall)\n", "mail, indexed", mail.wall,
              mail.cpu, n / mail.cpu, n / mail.wall);
  std::printf("  %-26s %8.2f s wall %8.2f s CPU %9.0f files/s (CPU) %9.0f files/s (wall)\n",
              "anchor: same texts as notes", notes.wall, notes.cpu, n / notes.cpu, n / notes.wall);
  fs::remove_all(root);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<int> sizes;
  for (int i = 1; i < argc; ++i) sizes.push_back(std::atoi(argv[i]));
  if (sizes.empty()) sizes = {10000};
  const std::string scratch = (fs::temp_directory_path() / ("kx-mail-bench-" + std::to_string(getpid()))).string();
  fs::create_directories(scratch);
  for (int count : sizes) Run(count, scratch);
  fs::remove_all(scratch);
  return 0;
}
