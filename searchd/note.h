// Notes from Markdown and plain text files: one item per file.
#pragma once

#include <string>
#include <string_view>

#include "searchd/parse_result.h"

namespace kx::searchd {

inline constexpr size_t kNoteSnippetLength = 160;  // code points

// The title is the first heading of a Markdown file or the first non-empty
// line, without its markup; the summary is the start of the text after it,
// blanks collapsed. A file that is not UTF-8 or has no text is an error.
ParseResult ParseNote(const std::string& path, std::string_view content);

}  // namespace kx::searchd
