#include "korvo/logger/logger.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <thread>

#include "support/cases.h"

namespace {

TEST(Logger, WritesOneLineToStandardErrorEvenWhenItsThreadIsCancelled) {
    testing::internal::CaptureStderr();
    std::thread([] {
        (void)::pthread_cancel(::pthread_self());
        for (const int level : {-1, 0, 3, 7, 8})
            logInternal("module", "src/x", "f", 7, level, level / 2, 0, "%s|%d", "a\nerror %s", level);
    }).join();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "unknown module src/x:7 f: a\\nerror %s|-1\n"
              "emerg module src/x:7 f: a\\nerror %s|0\n"
              "error module src/x:7 f: a\\nerror %s|3 (error 1)\n"
              "debug module src/x:7 f: a\\nerror %s|7 (error 3)\n"
              "unknown module src/x:7 f: a\\nerror %s|8 (error 4)\n");
}

TEST(Logger, EscapesControlCharactersAndWhatIsNoUtf8ForTheHostsSinkAndKeepsErrno) {
    static std::string message;
    korvo::logger::setSink([](const korvo::logger::Record& record) {
        message = record.message;
        errno = 6;
    });
    for (const auto& [text, expected] : test::readCases("log_escapes.txt")) {
        errno = 5;
        logInternal("module", "src/x", "f", 7, 3, 0, 0, "%s", text.c_str());
        EXPECT_EQ(errno, 5);
        EXPECT_EQ(message, expected);
    }
    korvo::logger::setSink(nullptr);
    EXPECT_EQ(korvo::logger::setSink(nullptr), korvo::logger::standardErrorSink);
}

}  // namespace
