// Mail from Maildir folders: one item per message file.
#pragma once

#include <string>
#include <string_view>

#include "searchd/parse_result.h"

namespace kx::searchd {

inline constexpr size_t kMailSnippetLength = 200;     // code points of the summary
inline constexpr size_t kMailSummaryLines = 3;        // body lines the summary is made of
inline constexpr size_t kMailBodyIndexed = 32 * 1024;  // code points of the body searched
// Only the start of a message file is read: headers and text come before
// the attachments that make a mail large. A part cut off is parsed as far
// as it goes.
inline constexpr size_t kMailPrefixBytes = 1024 * 1024;

// Parses one message (RFC 5322, MIME) with GMime:
//  - title: the subject, encoded words decoded; subtitle: the sender's name,
//    or address when it has none; date: the Date header;
//  - summary: the first kMailSummaryLines lines of the body that are not
//    quoted ("> ...") and come before the signature ("-- "), blanks
//    collapsed; the body is the plain-text part, or the HTML part reduced
//    to text (HtmlToText) when the message has no plain text;
//  - keywords: names and addresses of sender and recipients (From, Sender,
//    Reply-To, To, Cc, Bcc) and the names of attachments;
//  - identifier: the Message-ID without its angle brackets, or for a
//    message without one "maildir:" and the unique part of its file name;
//  - url: "mid:" and the percent-encoded Message-ID, which stays valid when
//    the mail client moves the file (new/ to cur/, flags in its name); the
//    file URL for a message without Message-ID.
// A file that has none of From, Subject, Date and Message-ID is not a mail
// and fails.
ParseResult ParseMail(const std::string& path, std::string_view content);

// True for a message file of a Maildir folder: a file directly in `cur/`
// or `new/` whose name does not start with a dot.
bool IsMaildirMessage(const std::string& path);

}  // namespace kx::searchd
