// One searchable item as a source produces it and the index stores it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kx/value.h"

namespace kx::searchd {

// Domains of the daemon's sources.
inline constexpr uint32_t kDomainContacts = 2;
inline constexpr uint32_t kDomainMail = 3;
inline constexpr uint32_t kDomainApplications = 4;
inline constexpr uint32_t kDomainNotes = 5;
inline constexpr uint32_t kDomainEvents = 10;
inline constexpr uint32_t kDomainDocuments = 14;
inline constexpr uint32_t kDomainSettings = 19;
inline constexpr uint32_t kDomainZeroKeyword = 22;
inline constexpr uint32_t kDomainCalculator = 24;
inline constexpr uint32_t kDomainConversion = 25;

// Where a document lives, by numbers that follow it through renames and
// moves (the inode) and safe saves (the document identifier).
struct FileLocation {
  uint64_t fileIdentifier = 0;        // inode
  uint64_t parentFileIdentifier = 0;  // inode of its folder
  std::string filename;
  uint32_t documentIdentifier = 0;
};

struct Item {
  uint32_t domain = 0;
  // Owner of the item, as "BA" names it to hide it.
  std::string bundle;
  // Stable within the file that holds the item (a contact's UID, a desktop
  // file id); with the file's path it keys the item across re-indexing.
  std::string identifier;
  std::string title;
  std::string subtitle;
  std::string summary;
  std::string url;
  // Searchable text that is not shown: alternative names, keywords,
  // e-mail addresses, organisation.
  std::string keywords;
  // Searchable body text (comment, note text).
  std::string body;
  // Titles by language ("de", "pt_BR"), for the query's keyboard language.
  std::map<std::string, std::string> localizedTitles;
  std::string icon;            // icon name or absolute path
  std::string launchCommand;   // applications: the Exec line
  std::vector<std::string> contactIdentifiers;
  // When the item happens or happened (a mail's date, an event's start).
  // Shown before the subtitle as the library's day-and-time text, made when
  // the result is made so that "Today" is said on the right day; only the
  // day for an all-day item.
  std::optional<kx::Date> date;
  bool allDay = false;
  std::optional<FileLocation> fileLocation;  // documents
};

}  // namespace kx::searchd
