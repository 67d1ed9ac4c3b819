// The daemon's sources: where each kind of item lives and how one file of
// it is parsed. Each source enumerates its directories and parses one file
// at a time; the indexer decides what to re-read.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "searchd/parse_result.h"

namespace kx::searchd {

class Source {
 public:
  virtual ~Source() = default;
  // Names the source in the index's file table ("applications", ...).
  virtual std::string name() const = 0;
  // Directories searched recursively, in priority order.
  virtual std::vector<std::string> directories() const = 0;
  // True for files this source reads.
  virtual bool accepts(const std::string& path) const = 0;
  // When not 0, only the first `prefixBytes()` of a file are read and
  // parsed, whatever its size; otherwise files above kMaxSourceFileBytes
  // are refused. For sources whose text comes first and whose bulk (a
  // mail's attachments) is not searched.
  virtual size_t prefixBytes() const { return 0; }
  // Parses one file's content.
  virtual ParseResult parse(const std::string& path, std::string_view content) const = 0;
  // Reads and parses one file: by default all of it through parse(),
  // refused above kMaxSourceFileBytes.
  virtual ParseResult load(const std::string& path) const;
};

// Default locations, or all under `dataRoot` when it is not empty.
struct SourceLocations {
  std::vector<std::string> applications;
  std::vector<std::string> contacts;
  std::vector<std::string> notes;
  std::vector<std::string> mail;      // roots holding Maildir folders
  std::vector<std::string> calendar;
  std::vector<std::string> documents;
  static SourceLocations ForUser();
  static SourceLocations UnderRoot(const std::string& dataRoot);
};

// Every source over `locations`: applications and settings, contacts, notes,
// mail, calendar, documents.
std::vector<std::unique_ptr<Source>> MakeSources(const SourceLocations& locations);

}  // namespace kx::searchd
