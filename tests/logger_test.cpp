#include "korvo/logger/logger.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace {

TEST(Logger, WritesOneLineToStandardErrorWhateverTheArguments) {
    testing::internal::CaptureStderr();
    logInternal("module", "src/x", "f", 7, 3, 2, 0, "%s|%d", "a\nerror forged\r\t\x1b[0m%s \xc3\xa9", 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "error module src/x:7 f: a\\nerror forged\\r\\t\\x1b[0m%s \xc3\xa9|1 (error 2)\n");
}

TEST(Logger, KeepsErrnoWhateverTheSinkDoes) {
    korvo::logger::setSink([](const korvo::logger::Record&) { errno = 6; });
    errno = 5;
    logInternal("module", "src/x", "f", 7, 3, 2, 0, "message");
    EXPECT_EQ(errno, 5);
    korvo::logger::setSink(nullptr);
}

TEST(Logger, EscapesControlCharactersAndNothingElse) {
    const std::pair<const char*, const char*> cases[] = {
        {"\x01 \x7f", "\\x01 \\x7f"},
        {"\x9b[2J", "\\x9b[2J"},
        {"\xc2\x9b[2J \xc2\x80", "\\xc2\\x9b[2J \\xc2\\x80"},
        {"\xc2\xa0 \xe2\x9b\x94 \xf0\x9f\x9b\x91",
         "\xc2\xa0 \xe2\x9b\x94 \xf0\x9f\x9b\x91"},  // 0x9b in characters
        {"\xe9t\xe9", "\xe9t\xe9"},                  // another character set
        {"\xe2\x9b", "\xe2\\x9b"},
        {"\xe0\x9b\x94", "\xe0\\x9b\\x94"},
        {"\xed\xa0\x9b", "\xed\xa0\\x9b"},  // no UTF-8
        {"\xf0\x8f\x9b\x91", "\xf0\\x8f\\x9b\\x91"},
        {"\xf4\x9b\xa0\xa0", "\xf4\\x9b\xa0\xa0"},
    };
    for (const auto& [text, expected] : cases) {
        test::LogCapture log;
        logInternal("module", "src/x", "f", 7, 3, 0, 0, "%s", text);
        EXPECT_EQ(log.messages(), expected);
    }
}

TEST(Logger, SendsMessagesOfAnyLengthToTheHostsSinkUntilItIsTakenBack) {
    const std::string text(100000, 'x');
    {
        test::LogCapture log;
        logInternal("module", "src/x", "f", 7, 4, 0, 0, "%s", text.c_str());
        EXPECT_EQ(log.messages(), text);
    }
    EXPECT_EQ(korvo::logger::setSink(nullptr), korvo::logger::standardErrorSink);
}

}  // namespace
