// The reading text of an HTML document, for mail that has no plain-text
// part: what a reader would see, without layout.
#pragma once

#include <string>
#include <string_view>

namespace kx::searchd {

// Reduces HTML to text:
//  - head, script, style, template and title elements are dropped with
//    their content, and so are comments and declarations;
//  - block elements (p, div, br, li, tr, h1-h6, ...) end a line, table
//    cells are separated by a space, every other tag disappears;
//  - character references (&amp;, &#233;, &#xE9; and the common named
//    ones) are decoded; an unknown or unterminated one stays as written;
//  - blanks are collapsed as a browser would: one space within a line, no
//    blank at the start or end of a line, no empty lines.
// Valid UTF-8 in gives valid UTF-8 out. Never fails: broken markup yields
// whatever text can be recovered.
std::string HtmlToText(std::string_view html);

}  // namespace kx::searchd
