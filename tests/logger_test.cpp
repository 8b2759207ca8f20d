#include "korvo/logger/logger.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <thread>
#include <tuple>

#include "support/cases.h"
#include "support/log_capture.h"

namespace {

TEST(Logger, WritesOneLineToStandardErrorEvenWhenItsThreadIsCancelled) {
    const std::tuple<int, int, const char*> cases[] = {
        // level, error code, line
        {3, 2, "error module src/x:7 f: a\\nerror forged%s|1 (error 2)\n"},
        {-1, 0, "unknown module src/x:7 f: a\\nerror forged%s|1\n"},
        {8, 0, "unknown module src/x:7 f: a\\nerror forged%s|1\n"}};
    for (const auto& [level, code, line] : cases) {
        testing::internal::CaptureStderr();
        std::thread([level = level, code = code] {
            (void)::pthread_cancel(::pthread_self());
            logInternal("module", "src/x", "f", 7, level, code, 0, "%s|%d", "a\nerror forged%s", 1);
        }).join();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
    }
}

TEST(Logger, EscapesControlCharactersAndWhatIsNoUtf8AndNothingElse) {
    for (const auto& [text, expected] : test::readCases("log_escapes.txt")) {
        test::LogCapture log;
        logInternal("module", "src/x", "f", 7, 3, 0, 0, "%s", text.c_str());
        EXPECT_EQ(log.messages(), expected) << text;
    }
}

TEST(Logger, SendsMessagesOfAnyLengthToTheHostsSinkAndKeepsErrno) {
    static std::string message;
    korvo::logger::setSink([](const korvo::logger::Record& record) {
        message = record.message;
        errno = 6;
    });
    for (const std::size_t length : {255U, 256U, 100000U}) {
        errno = 5;
        logInternal("module", "src/x", "f", 7, 4, 0, 0, "%s", std::string(length, 'x').c_str());
        EXPECT_EQ(errno, 5);
        EXPECT_EQ(message, std::string(length, 'x'));
    }
    korvo::logger::setSink(nullptr);
    EXPECT_EQ(korvo::logger::setSink(nullptr), korvo::logger::standardErrorSink);
}

}  // namespace
