#include "tools/kx-search/key_decoder.h"

#include <gtest/gtest.h>

namespace kx::cli {
namespace {

using K = Key::Kind;

TEST(KeyDecoderTest, SequencesAndCharactersSplitAcrossReads) {
  KeyDecoder d;
  // An arrow and a two-byte character, each cut in the middle.
  EXPECT_TRUE(d.feed("\x1b[").empty());
  EXPECT_EQ(d.feed("Ba\xc3"), (std::vector<Key>{{K::Down, {}}, {K::Text, "a"}}));
  EXPECT_EQ(d.feed("\xa9\x1bOA\r\x7f"),
            (std::vector<Key>{{K::Text, "\xc3\xa9"}, {K::Up, {}}, {K::Enter, {}}, {K::Backspace, {}}}));
  // Unknown sequences and control characters are dropped; Ctrl-C quits.
  EXPECT_EQ(d.feed("\x1b[1;5C\x01\x03"), (std::vector<Key>{{K::Quit, {}}}));
  // A lone escape is the Escape key once nothing follows it.
  EXPECT_TRUE(d.feed("\x1b").empty());
  EXPECT_EQ(d.flush(), (std::vector<Key>{{K::Quit, {}}}));
  EXPECT_TRUE(d.flush().empty());
}

TEST(KeyDecoderTest, BackspaceRemovesOneWholeCharacter) {
  std::string text = "ca";
  EXPECT_TRUE(ApplyToText({K::Text, "\xc3\xa9"}, text));
  EXPECT_TRUE(ApplyToText({K::Backspace, {}}, text));
  EXPECT_EQ(text, "ca");
  EXPECT_TRUE(ApplyToText({K::Backspace, {}}, text));
  EXPECT_TRUE(ApplyToText({K::Backspace, {}}, text));
  EXPECT_FALSE(ApplyToText({K::Backspace, {}}, text));
  EXPECT_FALSE(ApplyToText({K::Up, {}}, text));
  EXPECT_EQ(text, "");
}

}  // namespace
}  // namespace kx::cli
