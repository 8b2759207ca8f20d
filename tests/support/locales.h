/** @file Runs a piece of code in the locales where numbers are written differently. */
#pragma once

#include <gtest/gtest.h>

#include <clocale>

namespace test {

/** Calls @p body in the C locale and in one with a decimal comma, which only uClibc may lack. */
template <class Body>
void inEveryLocale(Body body) {
    // NOLINTBEGIN(concurrency-mt-unsafe): tests change the locale from one thread
    for (const char* name : {"C", "de_DE.UTF-8"}) {
        SCOPED_TRACE(name);
        if (std::setlocale(LC_ALL, name) != nullptr) body();
#ifndef __UCLIBC__
        ASSERT_STREQ(std::setlocale(LC_ALL, nullptr), name) << "install this locale";
#endif
    }
    std::setlocale(LC_ALL, "C");
    // NOLINTEND(concurrency-mt-unsafe)
}

}  // namespace test
