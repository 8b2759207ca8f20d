/** @file Runs a piece of code in the locales where numbers are written differently. */
#pragma once

#include <gtest/gtest.h>

#include <clocale>

namespace test {

/** Calls @p body in the C locale and in one with a decimal comma, which the machine must have. */
template <class Body>
void inEveryLocale(Body body) {
    // NOLINTBEGIN(concurrency-mt-unsafe): tests change the locale from one thread
    for (const char* name : {"C", "de_DE.UTF-8"}) {
        SCOPED_TRACE(name);
        ASSERT_NE(std::setlocale(LC_ALL, name), nullptr) << "install the locale " << name;
        body();
    }
    std::setlocale(LC_ALL, "C");
    // NOLINTEND(concurrency-mt-unsafe)
}

}  // namespace test
