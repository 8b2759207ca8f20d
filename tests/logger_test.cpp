#include "korvo/logger/logger.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include "support/cases.h"
#include "support/log_capture.h"

namespace {

TEST(Logger, WritesOneLineToStandardErrorWhateverTheArguments) {
    testing::internal::CaptureStderr();
    logInternal("module", "src/x", "f", 7, 3, 2, 0, "%s|%d", "a\nerror forged\r\t\x1b[0m%s \xc3\xa9", 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "error module src/x:7 f: a\\nerror forged\\r\\t\\x1b[0m%s \xc3\xa9|1 (error 2)\n");
}

TEST(Logger, NamesNoLevelThatThereIsNotAndNoErrorWhereThereIsNone) {
    for (const int level : {-1, 8}) {
        testing::internal::CaptureStderr();
        logInternal("module", "src/x", "f", 7, level, 0, 0, "message");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "unknown module src/x:7 f: message\n") << level;
    }
}

TEST(Logger, KeepsErrnoWhateverTheSinkDoes) {
    korvo::logger::setSink([](const korvo::logger::Record&) { errno = 6; });
    errno = 5;
    logInternal("module", "src/x", "f", 7, 3, 2, 0, "message");
    EXPECT_EQ(errno, 5);
    korvo::logger::setSink(nullptr);
}

TEST(Logger, IsNoPlaceWhereAThreadIsCancelled) {
    testing::internal::CaptureStderr();
    bool returned = false;
    pthread_t thread{};
    const auto log = [](void* result) -> void* {
        (void)::pthread_cancel(::pthread_self());
        logInternal("module", "src/x", "f", 7, 3, 0, 0, "message");
        *static_cast<bool*>(result) = true;
        return nullptr;
    };
    ASSERT_EQ(::pthread_create(&thread, nullptr, log, &returned), 0);
    ASSERT_EQ(::pthread_join(thread, nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "error module src/x:7 f: message\n");
    EXPECT_TRUE(returned);
}

TEST(Logger, EscapesControlCharactersAndWhatIsNoUtf8AndNothingElse) {
    for (const auto& [text, expected] : test::readCases("log_escapes.txt")) {
        test::LogCapture log;
        logInternal("module", "src/x", "f", 7, 3, 0, 0, "%s", text.c_str());
        EXPECT_EQ(log.messages(), expected) << text;
    }
}

TEST(Logger, SendsMessagesOfAnyLengthToTheHostsSinkUntilItIsTakenBack) {
    for (const std::size_t length : {255U, 256U, 100000U}) {
        const std::string text(length, 'x');
        test::LogCapture log;
        logInternal("module", "src/x", "f", 7, 4, 0, 0, "%s", text.c_str());
        EXPECT_EQ(log.messages(), text);
    }
    EXPECT_EQ(korvo::logger::setSink(nullptr), korvo::logger::standardErrorSink);
}

}  // namespace
