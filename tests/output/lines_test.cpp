// Lines of services: how they are split, cut and made harmless.
#include <gmock/gmock.h>

#include "output/line_splitter.h"
#include "output/line_tail.h"

namespace ProcMgr::Output {
namespace {

using Lines = std::vector<std::string>;

TEST(OutputLines, AreTheSameHoweverTheBytesArrive) {
    const std::string longest(LineSplitter::LENGTH_MAX, 'x');
    // The character at the place of the cut stays whole.
    const std::string text = "one\n\n" + longest + "\n" + longest + "yz\n" + longest.substr(1) +
                             "\xc3\xa4z\n" + std::string(3, '\0') + "\nend";
    const Lines expected = {
        "one", "", longest, longest, "yz", longest.substr(1), "\xc3\xa4z", std::string(3, '\0'),
        "end"};
    for (const size_t step : {1UL, 2UL, 1000UL, text.size()}) {
        LineSplitter splitter;
        Lines lines;
        const auto take = [&](std::string_view line) { lines.emplace_back(line); };
        for (size_t at = 0; at < text.size(); at += step) {
            splitter.Add(std::string_view(text).substr(at, step), take);
        }
        splitter.Flush(take);
        EXPECT_EQ(lines, expected) << step;
        EXPECT_FALSE(splitter.HasPartial());
        // The end of a line that was taken before its end makes no empty line.
        splitter.Add("\n\nnext\n", take);
        EXPECT_EQ(Lines(lines.end() - 2, lines.end()), (Lines{"", "next"}));
        EXPECT_EQ(lines.size(), expected.size() + 2);
    }
}

TEST(OutputLines, CannotControlATerminalAndTheLastOnesAreKept) {
    LineTail tail;
    for (int i = 0; i < 30; ++i) {
        tail.Add("line " + std::to_string(i));
    }
    LineTail later;
    later.Add(
        "\x1b[2J\ta\rb\x7f\xc2\x9b"
        "c\xc3\xa4\x9b\xc3\r");
    later.Add(std::string(199, 'x') + "\xc3\xa4");
    tail.Take(later);
    const Lines lines = tail.Get();
    ASSERT_EQ(lines.size(), LineTail::LINES_MAX);
    EXPECT_EQ(lines.front(), "line 12");
    EXPECT_EQ(lines[18], "?[2J a?b???c\xc3\xa4??");
    EXPECT_EQ(lines[19], std::string(199, 'x'));
    EXPECT_TRUE(later.IsEmpty());
}

}  // namespace
}  // namespace ProcMgr::Output
